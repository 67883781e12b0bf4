#!/usr/bin/env python3
"""pySerial against a served port, as its users call it: settings, lines, purges, bytes. Usage: pyserial.py URL NUMBER

URL is rfc2217://HOST:PORT of a port with the virtual modem, NUMBER one to call that echoes. Prints each step; exits with 1 at the
first that fails."""
import random
import sys
import threading
import time

import serial


def require(condition, what):
    print(("ok: " if condition else "FAILED: ") + what, flush=True)
    if not condition:
        sys.exit(1)


def until(condition, seconds=5):
    end = time.monotonic() + seconds
    while not condition() and time.monotonic() < end:
        time.sleep(0.01)
    return condition()


def answers(port, command, answer):
    port.write(command + b"\r")
    return answer in port.read_until(answer)


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


def echo(port, number):
    require(not port.cd, "no carrier")
    require(answers(port, b"ATD" + number.encode(), b"CONNECT"), "dialled")
    port.read_until(b"\n")
    require(until(lambda: port.cd), "carrier")
    data = random.Random(1).randbytes(200000) + b"\xff" * 1000
    writer = threading.Thread(target=port.write, args=(data,))
    writer.start()
    require(port.read(len(data)) == data, f"{len(data)} bytes echoed")
    writer.join()
    port.dtr = False
    require(until(lambda: not port.cd), "DTR hangs up")
    port.dtr = True


def main():
    url, number = sys.argv[1:]
    port = serial.serial_for_url(url, baudrate=115200, timeout=5)
    require(until(lambda: port.dsr), "opened, the modem is ready")
    require(answers(port, b"AT", b"OK"), "the modem answers")
    settings(port)
    port.reset_input_buffer()
    port.reset_output_buffer()
    echo(port, number)
    try:
        serial.serial_for_url(url).close()
        require(False, "a second client is refused")
    except (serial.SerialException, OSError):
        require(True, "a second client is refused")
    port.close()
    port = serial.serial_for_url(url, timeout=5)
    port.reset_input_buffer()
    require(answers(port, b"AT", b"OK"), "opened again, the modem answers")
    port.close()


main()
