"""A hundred ports of one server, all in use at the same time: by TCP, then at their terminals."""
import os
import random
import socket
import tty
from concurrent.futures import ThreadPoolExecutor

from served import Stream, address, ports, require, until

COUNT = 100


def wrong(descriptors, size):
    """The names of those where other bytes come back than are sent, all at the same time."""
    def differs(name):
        data = random.Random(name).randbytes(size)
        return Stream(descriptors[name]).exchange(data) != data
    with ThreadPoolExecutor(COUNT) as pool:
        return [name for name, bad in zip(descriptors, pool.map(differs, descriptors)) if bad]


def main():
    everything = ports()
    require([port["name"] for port in everything] == [f"COM{3 + i}" for i in range(COUNT)], "COM3 to COM102, in order")
    require(all(port["state"] == "started" for port in everything), "all have started")
    sockets = {port["name"]: socket.create_connection(address(port["network"][1])) for port in everything}
    require(wrong({name: client.fileno() for name, client in sockets.items()}, 4000) == [], "bytes there and back over TCP on all at once")
    require(all(port["open"] for port in ports()), "list shows them open")
    for client in sockets.values():
        client.close()
    require(until(lambda: not any(port["open"] for port in ports())), "closed")
    terminals = {port["name"]: os.open(port["terminal"], os.O_RDWR | os.O_NOCTTY) for port in everything}
    for fd in terminals.values():
        tty.setraw(fd)
    require(wrong(terminals, 2000) == [], "and at their terminals")


main()
