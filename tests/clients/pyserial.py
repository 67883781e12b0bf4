#!/usr/bin/env python3
"""pySerial against a served port, as its users call it: settings, lines, purges, bytes. Wants the modem."""
import random
import threading

import serial

from served import RFC2217, answers, require, until

ECHO = b"100"


def settings(port):
    for name, values in {
        "baudrate": (300, 9600, 65535, 3000000, 115200),
        "bytesize": (5, 6, 7, 8),
        "parity": ("E", "O", "M", "S", "N"),
        "stopbits": (1.5, 2, 1),
        "xonxoff": (True, False),
        "rtscts": (True, False),
        "break_condition": (True, False),
        "rts": (False, True),
    }.items():
        for value in values:
            setattr(port, name, value)  # waits for the acknowledgement, raises without
        require(getattr(port, name) == values[-1], f"{name}: {values}")


def echo(port):
    require(not port.cd, "no carrier")
    require(answers(port, b"ATD" + ECHO, b"CONNECT"), "dialled")
    require(until(lambda: port.cd), "carrier")
    data = random.Random(1).randbytes(200000) + b"\xff" * 1000
    writer = threading.Thread(target=port.write, args=(data,))
    writer.start()
    require(port.read(len(data)) == data, f"{len(data)} bytes echoed")
    writer.join()
    port.dtr = False
    require(until(lambda: not port.cd), "DTR hangs up")
    require(port.cts and port.dsr and port.rts, "and moves no other line")
    port.dtr = True


def main():
    port = serial.serial_for_url(RFC2217, baudrate=115200, timeout=5)
    require(until(lambda: port.dsr), "opened, the modem is ready")
    require(answers(port, b"AT", b"OK"), "the modem answers")
    settings(port)
    port.reset_input_buffer()
    port.reset_output_buffer()
    echo(port)
    try:
        serial.serial_for_url(RFC2217).close()
        require(False, "a second client is refused")
    except (serial.SerialException, OSError):
        require(True, "a second client is refused")
    port.close()
    port = serial.serial_for_url(RFC2217, timeout=5)
    port.reset_input_buffer()
    require(answers(port, b"AT", b"OK"), "opened again, the modem answers")
    port.close()


main()
