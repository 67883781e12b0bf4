#!/usr/bin/python3
"""What udev makes of pretended devices with a rules file. Runs in a mount namespace of its own: udev.py RULES"""
import grp
import os
import re
import subprocess
import sys
import tempfile

PATH = "/devices/pci0000:00/0000:00:14.0/usb1/1-1"
DEVICE = f"""P: {PATH}
E: DEVTYPE=usb_device
E: DEVNAME=/dev/bus/usb/001/002
E: MAJOR=189
E: MINOR=1
E: SUBSYSTEM=usb
A: idVendor=1209
A: idProduct=0001
H: descriptors=%s
"""
DESCRIPTORS = "12010002ef0201400912010000010000000109020000010100c032"  # of the device and of the head of its configuration
ENDPOINT = "07058103100001"  # of the last interface: udev does not see one that nothing follows
MARK = 'SUBSYSTEM=="usb", ATTR{idVendor}=="1209", ATTR{idProduct}=="0001", ENV{ID_COMPORT}="1"\n'
DIALOUT = grp.getgrnam("dialout").gr_gid


def seen(interfaces, marked):
    """(the device's group was set, ModemManager is told to stay away, complaints about the file)"""
    descriptors = DESCRIPTORS + "".join(f"0904000000{codes}00" for codes in interfaces) + ENDPOINT
    mark = "/run/udev/rules.d/69-mark.rules"
    if marked:
        with open(mark, "w", encoding="ascii") as file:
            file.write(MARK)
    elif os.path.exists(mark):
        os.remove(mark)
    with tempfile.NamedTemporaryFile("w", suffix=".umockdev") as file:
        file.write(DEVICE % descriptors)
        file.flush()
        text = subprocess.run(["umockdev-run", "-d", file.name, "--", "udevadm", "test", "--action=add", "/sys" + PATH],
                              capture_output=True, text=True, check=True, timeout=60)
    lines = (text.stdout + text.stderr).splitlines()
    ours = [line for line in lines if "-comport.rules:" in line]
    group = any(line.endswith(f" GROUP {DIALOUT}") for line in ours) and any(line.endswith(" MODE 0660") for line in ours)
    return group, "ID_MM_DEVICE_IGNORE=1" in lines, [line for line in ours if not re.search(r"(GROUP|MODE) \d+$", line)]


def main():
    # Rules of this machine's own stay out, and it gets no links to devices that there are not.
    for words in ("-t tmpfs none /run", "--bind /dev /dev", "-o remount,bind,ro /dev"):
        subprocess.run(["mount", *words.split()], check=True)
    os.makedirs("/run/udev/rules.d")
    with open(sys.argv[1], encoding="utf-8") as file, open("/run/udev/rules.d/70-comport.rules", "w", encoding="utf-8") as copy:
        copy.write(file.read())
    failed = False
    for what, interfaces, marked, expected in (
            ("a modem", ["020201", "0a0000"], False, (True, False, [])),
            ("a modem without a command set, behind another function", ["080650", "020200", "0a0000"], False, (True, False, [])),
            ("a marked modem", ["020201", "0a0000"], True, (True, True, [])),
            ("an Ethernet adapter of the same class", ["020600", "0a0000"], True, (False, False, [])),
            ("a disk", ["080650"], True, (False, False, []))):
        result = seen(interfaces, marked)
        print(("ok: " if result == expected else f"FAILED: {result} for ") + what)
        failed |= result != expected
    sys.exit(failed)


main()
