"""What tshark reads in the files that the session of capture.py left."""
import subprocess
import sys
from collections import namedtuple

from served import payload, require

FILE = sys.argv[1]
SUBMITTED, COMPLETED = "S", "C"
CONTROL, BULK, INTERRUPT = "0x02", "0x03", "0x01"
IN_PROGRESS, RESET, SHUT_DOWN = "-115", "-104", "-108"

Urb = namedtuple("Urb", "id event type endpoint device bus status length there request code class_code data fragment")
FIELDS = ("usb.urb_id usb.urb_type usb.transfer_type usb.endpoint_address usb.device_address usb.bus_id usb.urb_status usb.urb_len "
          "usb.data_len usb.bmRequestType usb.setup.bRequest usbcom.control.request_code usb.capdata usb.data_fragment").split()


def tshark(file, fields, *options):
    """A list of the fields' texts for each record."""
    command = ["tshark", "-n", "-r", file, "-T", "fields", *options]
    for field in fields:
        command += ["-e", field]
    ran = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    require(ran.returncode == 0 and "cut short" not in ran.stderr, f"tshark reads {file}")
    return [line.replace("'", "").split("\t") for line in ran.stdout.splitlines()]


def main():
    urbs = [Urb(*row) for row in tshark(FILE, FIELDS, "--disable-protocol", "at")]
    out = {urb.id: urb for urb in urbs if urb.event == SUBMITTED}
    back = {urb.id: urb for urb in urbs if urb.event == COMPLETED}
    places = {(urb.id, urb.event): place for place, urb in enumerate(urbs)}
    require(len(urbs) > 100 and len(out) + len(back) == len(urbs), f"{len(urbs)} records, none of them twice")
    require(out.keys() == back.keys() and all(places[i, SUBMITTED] < places[i, COMPLETED] for i in out), "each request comes back, later")
    require(all(out[i][2:6] == back[i][2:6] for i in out), "with the same type, endpoint, device and bus")
    require({(urb.device, urb.bus) for urb in urbs} == {("1", "1")}, "and all are the one device's")
    require(all(urb.status == IN_PROGRESS for urb in out.values()), "submissions are in progress")

    requests = [(urb.request, urb.code or str(int(urb.class_code, 16)), back[urb.id].status, urb.length)
                for urb in out.values() if urb.type == CONTROL]
    wanted = [("0x80", "6", "0", "18"), ("0x00", "9", "0", "0"), ("0x21", str(0x22), "0", "0"), ("0x21", str(0x20), "0", "7"),
              ("0xc1", str(0x60), "0", "256"), ("0x41", str(0x61), "0", "0"), ("0x41", str(0x62), "0", "0"), ("0x80", "6", "0", "18")]
    rest = iter(requests)
    require(all(one in rest for one in wanted), "the requests of a modem's life, in order: " + str(requests))
    rates = [urb.fragment[:8] for urb in out.values() if urb.class_code == "0x20"]
    require("80250000" in rates, f"the rate that was set: {rates}")

    reads = [i for i, urb in out.items() if urb.type != CONTROL and urb.endpoint in ("0x81", "0x83")]
    require(all(out[i].there == "0" and out[i].length in ("65536", "16") for i in reads), "a read leaves with its room alone")
    require(all(back[i].there == back[i].length for i in reads), "and comes back with what it brings")
    writes = [i for i, urb in out.items() if urb.endpoint == "0x02"]
    require(all(out[i].there == out[i].length == back[i].length and back[i].there == "0" for i in writes), "a write the other way round")
    sent = "".join(out[i].data for i in writes)
    came = "".join(urb.data for urb in back.values() if urb.endpoint == "0x81")
    bytes_of_call = payload(20000).hex()
    require(bytes_of_call in sent and bytes_of_call in came, "every byte of the call stands there, out and in")

    ends = [[back[i].status for i in reads if back[i].type == kind and back[i].status != "0"] for kind in (BULK, INTERRUPT)]
    require(ends == [[SHUT_DOWN] * 5 + [RESET] * 5, [SHUT_DOWN, RESET]], f"what waited ended by the unplugging, then by the closing: {ends}")

    frames = tshark(FILE.replace(".pcap", ".1.ppp.pcap"), ["ppp.direction", "ppp.protocol", "ppp.code", "ppp.identifier"])
    rest = iter(frames)
    require(all(one in rest for one in (["0", "0xc021", "1", "77"], ["1", "0xc021", "2", "77"])) and
            [one[3] for one in frames if one[0] == "0"] == ["77"], f"the framed request and its answer: {frames}")


main()
