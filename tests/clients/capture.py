"""The session of a capture: settings, bytes, a framed PPP call, unplugging under the open port; the file grows meanwhile."""
import os
import sys
import termios

from served import Stream, ctl, echoes, open_terminal, payload, require, status, until

FILE = sys.argv[1]

# LCP without an option, as an asynchronous line carries it: every control character escaped, the FCS of RFC 1662 behind.
REQUEST_1 = bytes.fromhex("7e ff 7d23 c021 7d21 7d21 7d20 7d24 d1b5 7e")
REQUEST_77 = bytes.fromhex("7e ff 7d23 c021 7d21 4d 7d20 7d24 7d24 7d36 7e")
ACKNOWLEDGED_77 = bytes.fromhex("7e ff 7d23 c021 7d22 4d 7d20 7d24 c933 7e")


def main():
    terminal = open_terminal()
    settings = termios.tcgetattr(terminal)
    settings[4] = settings[5] = termios.B9600
    termios.tcsetattr(terminal, termios.TCSANOW, settings)
    stream = Stream(terminal)
    require(stream.ask(b"ATD100", b"CONNECT"), "the echo answers")
    echoes(stream, "the echo", payload(20000))
    ctl("drop")
    require(stream.expect(b"NO CARRIER"), "the call is over")
    require(stream.ask(b"ATD*99#", b"CONNECT"), "the access server answers")
    stream.exchange(REQUEST_1, 0)
    require(until(lambda: status()["ppp"]["state"] == "framing"), "the call is framed")
    require(status()["captureDevice"] == 1, "status tells the device's number in the capture")
    stream.exchange(REQUEST_77, 0)
    require(stream.expect(ACKNOWLEDGED_77), "a framed request is acknowledged")
    ctl("drop")
    require(stream.expect(b"NO CARRIER"), "the call is over")
    size = os.path.getsize(FILE)
    require(stream.ask(b"AT", b"OK"), "the modem answers")
    require(until(lambda: os.path.getsize(FILE) > size, 1), "a reader of the file sees it within a second")
    ctl("unplug")
    ctl("plug")
    require(until(lambda: stream.ask(b"AT", b"OK")), "the modem is back under the open port")
    os.close(terminal)


main()
