#!/usr/bin/env python3
"""list, status and ctl against a running server, and what applications see of their effects. Wants the modem."""
import json
import os
import socket
import stat
import subprocess

import serial
from serial import rfc2217

from served import (DIRECTORY, LINK, PROGRAM, RFC2217, TCP, Stream, address, answers, comport, ctl, open_terminal, pattern, require,
                    status, until)

SOCKET = os.path.join(DIRECTORY, "comport.sock")


def wrong_orders():
    """(words, exit status, part of the sentence)"""
    for words, code, text in (
        (("ctl",), 2, "order"),
        (("ctl", "jump"), 2, "'jump'"),
        (("ctl", "--port", "COM99", "break"), 1, "COM99"),
        (("status", "COM99"), 1, "COM99"),
        (("list", "--control", os.path.join(DIRECTORY, "nothing")), 1, "comport serve"),
    ):
        result = comport(*words)
        said = result[2].strip()
        require(result[0] == code and text in said and result[1] == "", f"{' '.join(words)}: status {code}, {said!r}")


def places():
    """Only the owner reaches the socket, and a second server says what is in use and harms nothing."""
    mode = os.stat(SOCKET)
    require(stat.S_ISSOCK(mode.st_mode) and stat.S_IMODE(mode.st_mode) == 0o600, "the socket is its owner's alone")
    second = ["serve", "--registry", os.path.join(DIRECTORY, "second.reg"), "--pty-link", os.path.join(DIRECTORY, "second"),
              "--trace", "0"]
    code, _, said = comport(*second, "--control", SOCKET)
    require(code == 1 and SOCKET in said and "--control" in said, f"a second server at this place: {said.strip()!r}")
    code, _, said = comport(*second, "--control", SOCKET + "2", "--rfc2217", RFC2217.split(":")[-1])
    require(code == 1 and "in use" in said and "--rfc2217" in said, f"a second server at this port: {said.strip()!r}")
    # Without a place of its own it serves, and says what it does without. Ended as soon as it serves, it leaves nothing behind.
    for _ in range(10):
        with subprocess.Popen([PROGRAM, *second], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as other:
            said = other.stderr.readline().strip()
            serves = "served at" in other.stdout.readline()
            other.terminate()
        if other.returncode != 0 or os.path.lexists(os.path.join(DIRECTORY, "second")):
            require(False, f"a second server ends cleanly, at any moment (status {other.returncode})")
    require(serves and SOCKET in said and "no list, status and ctl" in said, f"a second server of the same user serves: {said!r}")
    require(status()["terminal"] == LINK, "the first is still asked")


def listing():
    code, output, _ = comport("list", "--json")
    port = json.loads(output)["ports"][0]
    name = port["name"]
    require(code == 0 and not port["open"] and port["pluggedIn"] and port["state"] == "started", f"list --json shows {name}")
    code, output, _ = comport("list")
    require(code == 0 and [name, "modem", "started", "no", LINK] == output.splitlines()[1].split()[:5], f"list: {output}")
    require(comport("status", name.lower(), "--json")[0] == 0, "status of a port by its name, in any case")
    require(status()["port"] is None, "a closed port has no settings, lines and queues")


def open_port():
    port = serial.serial_for_url(RFC2217, baudrate=9600, parity="E", stopbits=2, timeout=10)
    require(until(lambda: port.dsr), "an application has the port open by RFC 2217")
    return port


def settings(port):
    asked = {"baud": 9600, "dataBits": 8, "parity": "even", "stopBits": "2"}
    port.rts = False
    now = status()
    require(now["port"]["settings"] == asked and now["modemSide"]["settings"] == asked, "status shows both sides' settings")
    require(now["port"]["lines"] == {"DTR": True, "RTS": False, "CTS": True, "DSR": True, "RI": False, "DCD": False} and
            now["modemSide"]["DTR"] and not now["modemSide"]["RTS"], "and lines")
    port.rts = True


def lines(port):
    for name, seen, natural in (("dcd", lambda: port.cd, False), ("dsr", lambda: port.dsr, True),
                                ("ri", lambda: port.ri, False), ("cts", lambda: port.cts, True)):
        for order, level in (("on", True), ("off", False), ("on", True), ("auto", natural)):
            ctl("line", name, order)
            now = {"level": level, "held": order != "auto"}
            require(until(lambda: seen() == level) and until(lambda: status()["modemSide"]["lines"][name.upper()] == now),
                    f"line {name} {order}: the application sees it {'up' if level else 'down'}")
    ctl("line", "hold", "on")
    port.write(b"AT\r")
    require(until(lambda: status()["port"]["queues"]["out"] == 3), "line hold on: bytes wait in the port")
    ctl("line", "hold", "auto")
    require(b"OK" in port.read_until(b"OK"), "line hold auto: they go")
    port.read_until(b"\n")
    require(status()["port"]["queues"] == {"in": 0, "out": 0}, "the queues are empty")


def line_state(port):
    """pySerial keeps the last notification, and has no public name for it."""
    port.rfc2217_send_subnegotiation(rfc2217.SET_LINESTATE_MASK, b"\x1e")
    errors = [(("error", kind), 0x0E) for kind in ("framing", "parity", "overrun")]  # the port does not say which
    for words, bits in [(("break",), 0x10), *errors]:
        port._linestate = 0  # pylint: disable=protected-access
        ctl(*words)
        require(until(lambda: port._linestate & bits == bits), f"{' '.join(words)}: in the line state")
    port.rfc2217_send_subnegotiation(rfc2217.SET_LINESTATE_MASK, b"\x00")


def calls(port):
    ctl("ring")
    require(until(lambda: port.ri) and b"RING" in port.read_until(b"RING\r\n"), "ring: RI is up, RING is said")
    require(answers(port, b"ATA", b"CONNECT 9600"), "answered")
    require(until(lambda: port.cd) and until(lambda: not port.ri), "the carrier is there, the bell is not")
    ctl("drop")
    require(b"NO CARRIER" in port.read_until(b"NO CARRIER\r\n") and until(lambda: not port.cd), "drop: NO CARRIER, DCD falls")
    ctl("ring", "1")
    require(until(lambda: port.ri) and b"RING" in port.read_until(b"RING\r\n"), "ring 1")
    ctl("drop")
    require(until(lambda: not port.ri), "drop: the caller gives up")


def counts(port):
    before = status()["counters"]
    port.write(b"AT\r")
    answer = port.read_until(b"OK\r\n")
    after = status()["counters"]
    require(after["bytesOut"] == before["bytesOut"] + 3 and after["bytesIn"] == before["bytesIn"] + len(answer),
            f"counters: 3 bytes out, {len(answer)} in")


def plug(port):
    for _ in range(2):  # an order for what is the case already is done, too
        ctl("unplug")
    require(until(lambda: not (port.dsr or port.cts)), "unplug: the application sees DSR and CTS fall")
    now = status()
    require(not now["pluggedIn"] and now["state"] != "started", f"status says {now['state']!r}")
    require(comport("list")[0] == 0 and comport("status")[0] == 0, "the tables can show it")
    port.write(b"AT\r")
    for _ in range(2):
        ctl("plug")
    require(until(lambda: port.dsr and port.cts), "plug: DSR and CTS rise")
    require(b"OK" in port.read_until(b"OK"), "what was written meanwhile is answered, by the same handle")
    port.read_until(b"\n")
    now = status()
    require(now["counters"]["reconnects"] == 1 and now["pluggedIn"] and now["port"]["settings"]["baud"] == 9600,
            "one reconnection, the settings are back")


def trace():
    """From the next opening on; kept in the registry."""
    def traced():
        return os.path.getsize(os.path.join(DIRECTORY, "trace"))

    def dialogue():
        with serial.serial_for_url(RFC2217, timeout=10) as port:
            before = traced()
            require(answers(port, b"AT", b"OK"), "AT")
            return traced() - before
    ctl("trace", "0")
    require(dialogue() == 0, "trace 0: silence")
    ctl("trace", "0x7FFFFFFF")
    require(dialogue() > 0, "trace 0x7FFFFFFF: the driver tells")
    with open(os.path.join(DIRECTORY, "comport.reg"), "rb") as file:
        kept = file.read()
    kept = kept.decode("utf-16") if kept[:2] == b"\xff\xfe" else kept.decode()
    require('"TraceMask"=dword:7fffffff' in kept, "and it is kept in the registry")
    ctl("trace", "0")


def held_back(what, stream, size):
    """An application does not read while the modem pours, more than fits on the way: the modem waits, and no byte is lost."""
    before = status()["counters"]["heldBackReads"]
    require(stream.ask(b"ATD101*%d" % size, b"CONNECT"), f"{what}: the modem pours")

    def settled(last={}):  # no byte has come since the last look
        now = status()["counters"]
        stands = now["heldBackReads"] > before and now["bytesIn"] == last.get("bytesIn")
        last.update(now)
        return stands
    require(until(settled), f"{what}: reads are held back, the modem waits")
    require(stream.exchange(b"", size) == pattern(size), f"{what}: {size} bytes, none lost")
    require(stream.expect(b"NO CARRIER"), f"{what}: the end is told")


def stalled_readers():
    terminal = open_terminal()
    held_back("a terminal", Stream(terminal), 500000)
    os.close(terminal)
    require(until(lambda: not status()["open"]), "closed")
    with socket.socket() as client:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.connect(address(TCP))
        held_back("raw TCP", Stream(client.fileno()), 3000000)
    require(until(lambda: not status()["open"]), "closed")


def main():
    listing()
    wrong_orders()
    port = open_port()
    require(until(lambda: status()["open"]), "list and status show it open")
    for theme in (settings, lines, line_state, calls, counts, plug):
        theme(port)
    port.close()
    require(until(lambda: not status()["open"]), "closed")
    trace()
    stalled_readers()
    places()


main()
