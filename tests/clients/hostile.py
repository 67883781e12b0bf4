"""A USB/IP server whose every device misbehaves in its own way, by its bus id. Prints its port, and a port where nobody listens."""
import os
import socket
import struct
import threading

IMPORT = struct.Struct(">HHI32s")
DESCRIPTOR = bytes([18, 1, 0, 2, 2, 0, 0, 64, 9, 18, 1, 0, 0, 1, 0, 0, 0, 1])


def received(link, size):
    data = b""
    while len(data) < size:
        piece = link.recv(size - len(data))
        if not piece:
            raise ConnectionError
        data += piece
    return data


def commands(link):
    """(sequence, IN, setup, length) of each transfer asked for; what goes out with it is taken."""
    while True:
        command, sequence, _, inward, _, _, length, _, _, _, setup = struct.unpack(">10I8s", received(link, 48))
        if command == 1:
            if not inward:
                received(link, length)
            yield sequence, inward, setup, length


def reply(link, sequence, data, actual=None, status=0):
    link.sendall(struct.pack(">5IiI12x8x", 3, sequence, 0, 0, 0, status, len(data) if actual is None else actual) + data)


def flood(link):
    """Answers that nobody asked for."""
    while True:
        link.sendall(bytes(65536))


def silent(link):
    """Takes everything and answers nothing."""
    for _ in commands(link):
        pass


def junk(link):
    """Random bytes for every question."""
    for sequence, inward, _, length in commands(link):
        reply(link, sequence, os.urandom(length) if inward else b"", length)


def flap(link):
    """Tells who it is, and is gone."""
    for sequence, _, setup, length in commands(link):
        if setup[3] != 1:
            return
        reply(link, sequence, DESCRIPTOR[:length])


def longer(link):
    """More bytes than asked for."""
    for sequence, inward, _, length in commands(link):
        reply(link, sequence, bytes(length + 100) if inward else b"", length + 100)


BEHAVIOURS = {behaviour.__name__: behaviour for behaviour in (flood, silent, junk, flap, longer)}


def serve(link):
    try:
        name = IMPORT.unpack(received(link, IMPORT.size))[3].rstrip(b"\0").decode()
        if name == "mute":
            link.recv(1)  # until the client goes
        elif name not in BEHAVIOURS:
            link.sendall(struct.pack(">HHI", 0x111, 3, 4))
        else:
            link.sendall(struct.pack(">HHI256s32s3I3H6B", 0x111, 3, 0, b"/nowhere", name.encode(), 1, 2, 2, 0x1209, 1, 1, 2, 0, 0, 0, 1, 2))
            BEHAVIOURS[name](link)
    except OSError:
        pass
    finally:
        link.close()


def main():
    server = socket.create_server(("127.0.0.1", 0))
    with socket.create_server(("127.0.0.1", 0)) as other:
        nobody = other.getsockname()[1]
    print(server.getsockname()[1], nobody, flush=True)
    while True:
        threading.Thread(target=serve, args=(server.accept()[0],), daemon=True).start()


main()
