"""A port whose device is imported over USB/IP: bytes through both ends, and the exporter killed and started again."""
import os
import signal
import socket
import subprocess
import time

from served import PROGRAM, TCP, Stream, address, echoes, payload, require, status, until

PLACE = os.environ["COMPORT_PLACE"]
PID_FILE = os.environ["COMPORT_EXPORTER"]


def echo(size):
    """Random bytes over the raw port and back."""
    with socket.create_connection(address(TCP)) as port:
        begin = time.monotonic()
        echoes(Stream(port.fileno()), "imported", payload(size))
        print(f"{time.monotonic() - begin:.1f} s")


def main():
    require(status()["modem"] == "usbip", "status names the kind of the modem")
    echo(64_000_000)
    with open(PID_FILE, encoding="ascii") as file:
        os.kill(int(file.read()), signal.SIGKILL)
    require(until(lambda: status()["state"] != "started"), "the exporter is killed: the driver hears of it")
    place = PLACE.split("//")[1].split("/")[0]
    again = subprocess.Popen([PROGRAM, "modem", "--usbip", place, "--modem", "loopback"], stdout=subprocess.DEVNULL)
    with open(PID_FILE, "w", encoding="ascii") as file:
        file.write(str(again.pid))
    require(until(lambda: status()["state"] == "started", 20), "it is started again: the modem is back on its port")
    require(status()["counters"]["reconnects"] == 1, "that counts as one reconnect")
    echo(100_000)


main()
