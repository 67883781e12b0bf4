"""Runs the installed unit's command line as a service manager does: service.py ROOT UNIT"""
import grp
import os
import signal
import socket
import subprocess
import sys
import tempfile


def require(condition, what):
    print(("ok: " if condition else "FAILED: ") + what, flush=True)
    if not condition:
        sys.exit(1)


def command(unit, root, directory):
    """The words of ExecStart, and the environment of Environment, below `root` and `directory`."""
    with open(unit, encoding="utf-8") as file:
        settings = dict(line.rstrip().split("=", 1) for line in file if "=" in line and line[0] not in "#[-")
    def there(text):
        return text.replace("%t", directory).replace("%S", directory)
    words = there(settings["ExecStart"]).replace("$COMPORT_OPTIONS", "--rfc2217 0 --trace 0").split()
    name, value = there(settings["Environment"]).split("=", 1)
    return [root + words[0], *words[1:]], {**os.environ, name: value}


def told(listener):
    return dict(line.split("=", 1) for line in listener.recv(4096).decode().splitlines())


def serves(words, environment, listener, runtime):
    """From the start until READY, then every front end at once, then the end."""
    with subprocess.Popen(words, env=environment, stdout=subprocess.PIPE, text=True) as server:
        try:
            require(told(listener).get("READY") == "1", "it says when it is ready")
            link = os.path.join(runtime, "COM3")
            require(os.path.exists(link), "its terminal is there")
            terminal = os.stat(link)
            require(terminal.st_gid == grp.getgrnam("dialout").gr_gid and terminal.st_mode & 0o777 == 0o660, "for the group dialout")
            text = iter(server.stdout.readline, "")
            url = next(line for line in text if "rfc2217://" in line).split("//")[1].rsplit(":", 1)
            socket.create_connection((url[0], int(url[1])), 5).close()
            listed = subprocess.run([words[0], "list"], env=environment, capture_output=True, text=True, timeout=20, check=False)
            require("COM3" in listed.stdout, "network clients and orders are answered from then on")
            server.send_signal(signal.SIGTERM)
            require(told(listener) == {"STOPPING": "1"}, "it says that it ends")
            require(server.wait(20) == 0 and not os.path.lexists(link), "and ends cleanly")
        finally:
            server.kill()


def main():
    root, unit = sys.argv[1:]
    with tempfile.TemporaryDirectory() as directory:
        runtime = os.path.join(directory, "comport")
        os.mkdir(runtime)
        words, environment = command(unit, root, directory)
        path = os.path.join(directory, "notify")
        for name in (path, "\0comport-" + directory):
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as listener:
                listener.bind(name)
                listener.settimeout(30)
                serves(words, {**environment, "NOTIFY_SOCKET": name.replace("\0", "@")}, listener, runtime)
        os.remove(path)
        refused = subprocess.run([*words, "--group", "no such group"], env=environment, capture_output=True, text=True, timeout=20,
                                 check=False)
        require(refused.returncode == 1 and "--group no such group" in refused.stderr, "a group that is not there is no start")
        for name in (path, "vsock:2:1"):
            environment["NOTIFY_SOCKET"] = name
            with subprocess.Popen(words, env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as server:
                greeting = server.stdout.readline()
                server.send_signal(signal.SIGTERM)
                errors = server.stderr.read()
                require("COM3" in greeting and "comport: " in errors and server.wait(20) == 0,
                        f"a manager that cannot be told is no reason not to serve: {errors.splitlines()[0]}")


main()
