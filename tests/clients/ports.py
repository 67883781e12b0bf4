"""Several ports of one server, most of whose devices misbehave or are away: the good ones carry every byte all the while."""
import os
import socket
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

import served
from served import DIRECTORY, PROGRAM, Stream, address, comport, ctl, payload, require, until

LATE = os.environ["COMPORT_LATE"]


def ports():
    """All of the server, those that were never there too; they must be told at once."""
    begin = time.monotonic()
    everything = served.ports()
    if time.monotonic() - begin > 5:
        require(False, "list answers within 5 s")
    return everything


def tcp(port):
    return next(url for url in port["network"] if url.startswith("tcp:"))


def echo(port, data):
    """What came back of it."""
    with socket.create_connection(address(tcp(port))) as client:
        return Stream(client.fileno()).exchange(data)


def echo_all(good, size, what):
    """Through all of them at the same time."""
    data = payload(size)
    with ThreadPoolExecutor(len(good)) as pool:
        came = list(pool.map(lambda port: echo(port, data), good))
    failures = [f"{port['name']}: {len(back)} bytes" for port, back in zip(good, came) if back != data]
    require(not failures, f"{what}: {size} bytes there and back on each of {len(good)} ports {failures or ''}")


def unplugged(good):
    """One device leaves and comes back while the others go on."""
    name = good[0]["name"]
    result = comport("ctl", "unplug")
    require(result[0] == 1 and "--port" in result[2], f"ctl wants a port named: {result[2].strip()!r}")
    ctl("--port", name, "unplug")
    echo_all(good[1:], 100_000, f"{name} is unplugged")
    states = {port["name"]: port["state"] for port in ports() if port["name"]}
    require(states[name] == "unplugged" and all(states[port["name"]] == "started" for port in good[1:]), "it alone is")
    ctl("--port", name, "plug")
    echo_all(good, 100_000, "it is back")


def late(good):
    """What was not there at the start is served when it comes."""
    with subprocess.Popen([PROGRAM, "modem", "--usbip", LATE, "--modem", "loopback"], stdout=subprocess.DEVNULL) as exporter:
        def arrived():
            return [port for port in ports() if LATE.replace(":", "&") in port["device"] and port["network"]]
        came = until(arrived, 40)
        require(came, f"a device that comes late is served: {came and came[0]['name']}")
        with open(os.path.join(DIRECTORY, "out"), encoding="utf-8") as told:
            line = f"{came[0]['name']} (usbip://{LATE}/1-1) is served at {came[0]['terminal']}, "
            require(line in told.read(), "and told")
        echo_all(good + came, 300_000, "with it")
        exporter.terminate()


def main():
    everything = ports()
    good = [port for port in everything if port["modem"] == "loopback"]
    require(len(everything) == 12 and [port["name"] for port in good[:2]] == ["COM3", "COM4"], "twelve devices, names in their order")
    require(all(port["state"] == "started" for port in everything if port["modem"] != "usbip"), "the good ones have started")
    require(not any(port["state"] == "started" for port in everything if port["modem"] == "usbip"), "the bad ones have not")
    echo_all(good, 3_000_000, "the bad ones misbehave")
    unplugged(good)
    late(good)


main()
