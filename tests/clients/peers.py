#!/usr/bin/env python3
"""Other programs as applications of a served port: every byte value both ways, settings and lines where the program can.

Usage: peers.py raw|stty|socat|picocom|gensiot, or peers.py ser2net PROGRAM.
Wants the loop plug: what is sent comes back, DTR is tied to DSR and DCD, RTS to CTS."""
import os
import pty
import socket
import subprocess
import sys
import tty

from served import DIRECTORY, LINK, RFC2217, TCP, Stream, address, echoes, open_terminal, payload, require, status, until


def host_port(url):
    return ",".join(map(str, address(url)))


def modem_has(**settings):
    """The modem was told these settings."""
    def told():
        side = status()["modemSide"]["settings"]
        return all(side[name] == value for name, value in settings.items())
    return until(told)


def closed():
    """The port is nobody's any more."""
    return until(lambda: not status()["open"])


class Piped:
    """A program between two pipes, ended with its input."""

    def __init__(self, *command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
        self.stream = Stream(self.process.stdout.fileno(), self.process.stdin.fileno())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.terminate()
        self.process.wait(10)
        require(closed(), f"{self.process.args[0]} has left the port")


def raw():
    with socket.create_connection(address(TCP)) as client:
        echoes(Stream(client.fileno()), "raw TCP")
        require(status()["modemSide"]["settings"]["baud"] == 115200, "115200 unless told")
        with socket.create_connection(address(TCP)) as second:
            second.settimeout(10)
            require(b"in use" in second.recv(100), "a second client is told that the port is in use")
        echoes(Stream(client.fileno()), "the first goes on", b"still here")
    require(closed(), "the port is free again")
    with socket.create_connection(address(TCP)) as client:
        echoes(Stream(client.fileno()), "another client", payload(50000))
        client.settimeout(10)
        client.shutdown(socket.SHUT_WR)
        require(client.recv(1) == b"", "the end of the client's bytes ends the session")


def stty():
    """Settings of a terminal that is open, and of one that is not."""
    terminal = open_terminal()
    subprocess.run(["stty", "300", "cstopb"], stdin=terminal, check=True)
    require(modem_has(baud=300, stopBits="2"), "stty on an open terminal: the modem is told 300 baud, two stop bits")
    settings = status()["port"]["settings"]
    require((settings["baud"], settings["dataBits"], settings["stopBits"]) == (300, 8, "2"), "status shows 300 8N2")
    lines = status()["port"]["lines"]
    require(lines["DTR"] and lines["RTS"] and lines["DSR"] and lines["DCD"] and lines["CTS"], "DTR and RTS are up")
    subprocess.run(["stty", "0"], stdin=terminal, stderr=subprocess.DEVNULL, check=False)  # complains, and does it
    require(until(lambda: not status()["port"]["lines"]["DTR"]), "0 baud drops DTR")
    require(not status()["port"]["lines"]["RTS"], "and RTS")
    subprocess.run(["stty", "57600", "-cstopb"], stdin=terminal, check=True)
    require(modem_has(baud=57600, stopBits="1") and until(lambda: status()["port"]["lines"]["DTR"]), "57600 raises them")
    refused = subprocess.run(["stty", "cs7", "parenb"], stdin=terminal, stderr=subprocess.DEVNULL, check=False)
    require(refused.returncode != 0 and status()["port"]["settings"]["dataBits"] == 8, "7 bits and parity are refused")
    os.close(terminal)
    require(closed(), "closed")
    side = status()["modemSide"]
    require(not side["DTR"] and not side["RTS"], "closing drops DTR and RTS")
    subprocess.run(["stty", "-F", LINK, "1200", "cstopb"], check=True)
    terminal = open_terminal()
    require(modem_has(baud=1200, stopBits="2"), "stty -F, then opened: 1200 baud, two stop bits")
    os.close(terminal)


def socat():
    with Piped("socat", "STDIO", f"FILE:{LINK},raw,echo=0,b9600,cstopb=1") as peer:
        echoes(peer.stream, "socat")
        require(modem_has(baud=9600, stopBits="2"), "9600 baud, two stop bits")


def picocom():
    ours, theirs = pty.openpty()
    tty.setraw(theirs)
    process = subprocess.Popen(["picocom", "--no-escape", "--baud", "38400", "--stopbits", "2", LINK],
                               stdin=theirs, stdout=theirs, start_new_session=True)
    os.close(theirs)
    stream = Stream(ours)
    require(stream.expect(b"Terminal ready\r\n"), "picocom is ready")
    echoes(stream, "picocom")
    require(modem_has(baud=38400, stopBits="2"), "38400 baud, two stop bits")
    process.terminate()
    process.wait(10)
    require(closed(), "picocom has left the port")


def gensiot():
    with Piped("gensiot", f"telnet(rfc2217),tcp,{host_port(RFC2217)}") as peer:
        echoes(peer.stream, "gensiot")
    escape = b"\x1c"
    with Piped("gensiot", "--escchar", "28", f"telnet(rfc2217),tcp,{host_port(RFC2217)}") as peer:
        echoes(peer.stream, "gensiot with an escape character", b"hello")
        for keys, settings, shown in ((b"s9600\r", {"baud": 9600}, b"9600N81"), (b"e", {"parity": "even"}, b"9600E81"),
                                      (b"o", {"parity": "odd"}, b"9600O81"), (b"7", {"dataBits": 7}, b"9600O71"),
                                      (b"2", {"stopBits": "2"}, b"9600O72"), (b"n", {"parity": "none"}, b"9600N72")):
            peer.stream.exchange(escape + keys, 0)
            require(modem_has(**settings), f"{settings}")
            peer.stream.exchange(escape + b"d", 0)
            require(peer.stream.expect(b"Speed: " + shown), f"gensiot asks and is told {shown.decode()}")


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        return listener.getsockname()[1]


def connected(port):
    try:
        return socket.create_connection(("127.0.0.1", port))
    except ConnectionRefusedError:
        return None


def ser2net():
    port = free_port()
    settings = os.path.join(DIRECTORY, "ser2net.yaml")
    with open(settings, "w", encoding="ascii") as file:
        file.write(f"""%YAML 1.1
---
connection: &port
  accepter: tcp,127.0.0.1,{port}
  connector: telnet(rfc2217),tcp,{host_port(RFC2217)}
""")
    process = subprocess.Popen([sys.argv[2], "-n", "-u", "-c", settings])
    with until(lambda: connected(port)) as client:
        echoes(Stream(client.fileno()), "a client of ser2net, which has the port by RFC 2217")
    require(closed(), "ser2net gives the port back with its client")
    process.terminate()
    process.wait(10)


{"raw": raw, "stty": stty, "socat": socat, "picocom": picocom, "gensiot": gensiot, "ser2net": ser2net}[sys.argv[1]]()
