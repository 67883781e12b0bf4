#!/usr/bin/env python3
"""pySerial's own tests against a served port. Usage: suite.py rfc2217|pty DIRECTORY

DIRECTORY has pySerial's sources. Wants the loop plug: what is sent comes back, DTR is tied to DSR and DCD, RTS to CTS."""
import os
import sys
import unittest

from served import LINK, RFC2217, Stream, open_terminal, require, status, until

EVERYWHERE = ("test", "test_advanced", "test_context", "test_high_load", "test_iolib", "test_readline", "test_threaded")
"""Those that use the port they are given, whatever it is."""

NATIVE = ("test_cancel", "test_exclusive", "test_rs485")
"""For a port of the operating system."""

PORTS = {
    # kind: (port, modules, passes at least)
    "rfc2217": (RFC2217, EVERYWHERE, 31),
    "pty": (LINK, EVERYWHERE + NATIVE, 33),
}

# What may fail, and why.
NO_LINES = "the modem lines of a pseudo-terminal answer ENOTTY"
NO_LIMIT = "the kernel takes more than the test writes before a write to a pseudo-terminal blocks"
ONE_BYTE = "this client returns one byte per read when it does not wait"
KNOWN = {
    "rfc2217": {
        "test.Test4_Nonblocking.test2_Loopback": ONE_BYTE,
        "test.Test4_Nonblocking.test2_LoopbackTimeout": ONE_BYTE,
        "test.Test_MoreTimeouts.test_WriteTimeout": "this client has no time-out for writing",
    },
    "pty": {
        "test.Test0_DataWires.test1_RTS": NO_LINES,
        "test.Test0_DataWires.test2_DTR": NO_LINES,
        "test.Test0_DataWires.test3_RI": NO_LINES,
        "test.Test_MoreTimeouts.test_WriteTimeout": NO_LIMIT,
        "test_cancel.TestCancelWrite.test_cancel_once": NO_LIMIT,
        "test_rs485.Test_RS485_class.test_RS485_class": "a pseudo-terminal has no RS-485",
    },
}


def empty_wire():
    """Closing a terminal does not wait until its last bytes are sent: the next test is not to get the echo of the last."""
    terminal = open_terminal()
    marker = b"the end of what the last test has sent"
    stream = Stream(terminal)
    stream.exchange(marker, 0)
    if not stream.expect(marker):
        require(False, "the loop plug answers between two tests")
    os.close(terminal)
    until(lambda: not status()["open"])  # an opener is refused meanwhile


class Result(unittest.TextTestResult):
    """Prepares each test."""

    prepare = staticmethod(lambda: None)

    def startTest(self, test):
        super().startTest(test)
        self.prepare()


def load(modules, port):
    suite = unittest.TestSuite()
    for name in modules:
        module = __import__(name)
        module.PORT = port
        suite.addTest(unittest.defaultTestLoader.loadTestsFromModule(module))
    return suite


def main():
    kind, directory = sys.argv[1:]
    port, modules, least = PORTS[kind]
    if kind == "pty":
        Result.prepare = staticmethod(empty_wire)
    sys.path.insert(0, os.path.join(directory, "test"))
    result = unittest.TextTestRunner(sys.stdout, verbosity=2, resultclass=Result).run(load(modules, port))
    failed = {test.id() for test, _ in result.failures + result.errors}
    for test in sorted(failed & KNOWN[kind].keys()):
        print(f"known: {test}: {KNOWN[kind][test]}")
    passed = result.testsRun - len(failed) - len(result.skipped)  # one may fail more than once
    print(f"pySerial's own tests on {kind}: {passed} of {result.testsRun} pass, {len(result.skipped)} are skipped")
    require(passed >= least, f"at least {least} pass")
    require(failed <= KNOWN[kind].keys(), f"no other fails ({', '.join(sorted(failed - KNOWN[kind].keys())) or 'none'})")


main()
