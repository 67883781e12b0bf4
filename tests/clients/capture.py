"""The session of a capture: settings, bytes, a framed PPP call, unplugging under the open port; the file grows meanwhile."""
import os
import sys
import termios

from served import Stream, ctl, echoes, open_terminal, payload, require, status, until

FILE = sys.argv[1]
FLAG, ESCAPE = 0x7E, 0x7D


def fcs(data):
    """RFC 1662, bit by bit."""
    value = 0xFFFF
    for byte in data:
        value ^= byte
        for _ in range(8):
            value = value >> 1 ^ (0x8408 if value & 1 else 0)
    return (value ^ 0xFFFF).to_bytes(2, "little")


def framed(frame):
    """A PPP frame as an asynchronous line carries it, every control character escaped."""
    escaped = bytearray()
    for byte in frame + fcs(frame):
        escaped += bytes([ESCAPE, byte ^ 0x20]) if byte < 0x20 or byte in (FLAG, ESCAPE) else bytes([byte])
    return bytes([FLAG]) + bytes(escaped) + bytes([FLAG])


def configure_request(number):
    """LCP, without an option."""
    return bytes([0xFF, 0x03, 0xC0, 0x21, 1, number, 0, 4])


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
    stream.exchange(framed(configure_request(1)), 0)
    require(until(lambda: status()["ppp"]["state"] == "framing"), "the call is framed")
    require(status()["captureDevice"] == 1, "status tells the device's number in the capture")
    stream.exchange(framed(configure_request(77)), 0)
    acknowledged = bytes([0xFF, 0x03, 0xC0, 0x21, 2, 77, 0, 4])
    require(stream.expect(framed(acknowledged)), "a framed request is acknowledged")
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
