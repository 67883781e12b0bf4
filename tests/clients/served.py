"""What the clients of a served port share: named steps, waiting for conditions, byte streams, and list, status and ctl."""
import errno
import json
import os
import random
import select
import subprocess
import sys
import termios
import time
import tty

PROGRAM = os.environ.get("COMPORT", "")
DIRECTORY = os.environ.get("COMPORT_DIRECTORY", "")
LINK = os.environ.get("COMPORT_LINK", "")
RFC2217 = os.environ.get("COMPORT_RFC2217", "")
TCP = os.environ.get("COMPORT_TCP", "")


def require(condition, what):
    """Prints the step; the first that fails ends the client with status 1."""
    print(("ok: " if condition else "FAILED: ") + what, flush=True)
    if not condition:
        sys.exit(1)


def until(condition, seconds=10):
    """Waits for the condition and returns what it gave last."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() > end:
            return value
        time.sleep(0.01)


def address(url):
    """(host, port) of a URL."""
    host, port = url.split("//")[1].rsplit(":", 1)
    return host, int(port)


def payload(size=300000):
    """Every byte value and runs of 0xFF among random bytes."""
    return bytes(range(256)) + random.Random(1).randbytes(size) + b"\xff" * 1000 + bytes(reversed(range(256)))


def pattern(size):
    """The first bytes of what the modem's number 101 pours out."""
    return bytes((i * 31 + i // 256) & 0xFF for i in range(size))


def comport(*arguments, **environment):
    """Runs the program as a person would; returns (exit status, output, error output)."""
    ran = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=60, env={**os.environ, **environment})
    return ran.returncode, ran.stdout, ran.stderr


def ctl(*words):
    result = comport("ctl", *words)
    if result != (0, "", ""):
        require(False, f"ctl {' '.join(words)}: {result}")


def ports(command="list"):
    """All of the server, as list or status tells of them."""
    code, output, errors = comport(command, "--json")
    if code != 0:
        require(False, f"{command} --json: {errors}")
    return json.loads(output)["ports"]


def status():
    """The one port of the server."""
    return ports("status")[0]


def open_terminal():
    """A descriptor of the terminal, raw. The server takes a moment to see that the last application has left."""
    def opened():
        try:
            return (os.open(LINK, os.O_RDWR | os.O_NOCTTY),)
        except OSError as error:
            if error.errno != errno.EBUSY:
                raise
            return None
    terminal = until(opened)
    if not terminal:
        require(False, "the terminal opens")
    tty.setraw(terminal[0], termios.TCSANOW)
    return terminal[0]


def answers(port, command, answer):
    """A command to the modem by a port of pySerial's; the rest of the answer's line is taken, too."""
    port.write(command + b"\r")
    return answer in port.read_until(answer) and port.read_until(b"\n")


class Stream:
    """Bytes to and from an application, by file descriptors. Ten seconds without a byte are a failure."""

    patience = 10

    def __init__(self, reads, writes=None):
        self.reads = reads
        self.writes = reads if writes is None else writes
        os.set_blocking(self.reads, False)
        os.set_blocking(self.writes, False)
        self.seen = bytearray()

    def exchange(self, data, size=None):
        """Sends the data while it reads `size` bytes (as many, when not given); returns what came."""
        size = len(data) if size is None else size
        sent = 0
        while sent < len(data) or len(self.seen) < size:
            wants = [self.writes] if sent < len(data) else []
            readable, writable, _ = select.select([self.reads], wants, [], self.patience)
            if not readable and not writable:
                break
            if writable:
                sent += os.write(self.writes, data[sent:sent + 16384])
            if readable and not self.receive():
                break
        came, self.seen = self.seen[:size], self.seen[size:]
        return came

    def expect(self, text):
        """Reads until the text has come; returns everything up to its end, or nothing."""
        while text not in self.seen:
            if not select.select([self.reads], [], [], self.patience)[0] or not self.receive():
                print(f"{text!r} did not come, but {self.seen[-200:]!r}")
                return b""
        end = self.seen.index(text) + len(text)
        came, self.seen = self.seen[:end], self.seen[end:]
        return came

    def ask(self, command, answer):
        """A command to the modem, and the line its answer ends with."""
        self.exchange(command + b"\r", 0)
        return self.expect(answer) and self.expect(b"\n")

    def receive(self):
        try:
            data = os.read(self.reads, 65536)
        except BlockingIOError:
            return True
        except OSError:
            return False
        self.seen += data
        return len(data) > 0


def echoes(stream, what, data=None):
    """What is sent comes back, byte by byte."""
    data = payload() if data is None else data
    came = stream.exchange(data)
    wrong = next((i for i, (a, b) in enumerate(zip(came, data)) if a != b), len(came))
    require(came == data, f"{what}: {len(data)} bytes there and back" + ("" if came == data else f", good up to {wrong}"))
