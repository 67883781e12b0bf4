"""A hundred ports of one server, all in use at the same time: by TCP, then at their terminals."""
import json
import os
import random
import select
import socket
import tty

from served import address, comport, require, until

COUNT = 100


def ports():
    return json.loads(comport("list", "--json")[1])["ports"]


def echoed(descriptors, size):
    """Sends other bytes to each and compares what comes back, all at once. The names of those where it is not the same."""
    sent = {name: random.Random(name).randbytes(size) for name in descriptors}
    came = {name: b"" for name in descriptors}
    names = {fd: name for name, fd in descriptors.items()}
    poll = select.poll()
    for name, fd in descriptors.items():
        os.write(fd, sent[name])  # no more than fits on the way
        poll.register(fd, select.POLLIN)
    while names and (ready := poll.poll(10_000)):
        for fd, _ in ready:
            name = names[fd]
            came[name] += os.read(fd, size)
            if len(came[name]) >= size:
                poll.unregister(fd)
                del names[fd]
    return [name for name in descriptors if came[name] != sent[name]]


def main():
    everything = ports()
    require([port["name"] for port in everything] == [f"COM{3 + i}" for i in range(COUNT)], "COM3 to COM102, in order")
    require(all(port["state"] == "started" for port in everything), "all have started")
    sockets = {port["name"]: socket.create_connection(address(port["network"][1])) for port in everything}
    wrong = echoed({name: client.fileno() for name, client in sockets.items()}, 4000)
    require(not wrong, f"bytes there and back over TCP on all at once {wrong or ''}")
    require(all(port["open"] for port in ports()), "list shows them open")
    for client in sockets.values():
        client.close()
    require(until(lambda: not any(port["open"] for port in ports())), "closed")
    terminals = {port["name"]: os.open(port["terminal"], os.O_RDWR | os.O_NOCTTY) for port in everything}
    for fd in terminals.values():
        tty.setraw(fd)
    wrong = echoed(terminals, 2000)
    require(not wrong, f"and at their terminals {wrong or ''}")


main()
