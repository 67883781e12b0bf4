"""A port whose device is imported over USB/IP: bytes through both ends, and the exporter killed and started again."""
import os
import signal
import socket
import subprocess
import time

from served import PROGRAM, TCP, address, payload, require, status, until

PLACE = os.environ["COMPORT_PLACE"]
PID_FILE = os.environ["COMPORT_EXPORTER"]


def echo(size):
    """Sends random bytes over the raw port and reads them back; the seconds it took, None when other bytes came."""
    data = payload(size)
    with socket.create_connection(address(TCP)) as port:
        port.settimeout(20)
        begin = time.monotonic()
        sent, back = 0, bytearray()
        while len(back) < len(data):
            # As much as is sure to find room on the way there and back.
            if sent - len(back) < 4096 and sent < len(data):
                piece = data[sent:sent + 2048]
                port.sendall(piece)
                sent += len(piece)
                continue
            piece = port.recv(65536)
            if not piece:
                return None
            back += piece
        return time.monotonic() - begin if bytes(back) == data else None


def main():
    require(status()["modem"] == "usbip", "status names the kind of the modem")
    took = echo(64_000_000)
    require(took is not None, f"64 MB there and back, all bytes in order: {took or 0:.1f} s")
    with open(PID_FILE, encoding="ascii") as file:
        os.kill(int(file.read()), signal.SIGKILL)
    require(until(lambda: status()["state"] != "started"), "the exporter is killed: the driver hears of it")
    place = PLACE.split("//")[1].split("/")[0]
    again = subprocess.Popen([PROGRAM, "modem", "--usbip", place, "--modem", "loopback"], stdout=subprocess.DEVNULL)
    with open(PID_FILE, "w", encoding="ascii") as file:
        file.write(str(again.pid))
    require(until(lambda: status()["state"] == "started", 20), "it is started again: the modem is back on its port")
    require(status()["counters"]["reconnects"] == 1, "that counts as one reconnect")
    require(echo(100_000) is not None, "and works")


main()
