#!/usr/bin/env python3
"""Checks that a linked image can be loaded as a 32-bit Windows driver: check_image.py IMAGE OBJECT..."""
import struct
import sys

ALLOWED_IMPORTS = {"ntoskrnl.exe", "hal.dll", "usbd.sys"}
# Code or data that only a C++ runtime would run or register; a driver has none, so it would be lost silently.
FORBIDDEN_SECTIONS = (".ctors", ".dtors", ".init_array", ".fini_array", ".tls", ".eh_frame", ".CRT")

MACHINE_I386 = 0x14C
PE32 = 0x10B
SUBSYSTEM_NATIVE = 1
DYNAMIC_BASE = 0x40
NX_COMPAT = 0x100
DIRECTORY_EXPORT, DIRECTORY_IMPORT, DIRECTORY_RELOCATION, DIRECTORY_TLS = 0, 1, 5, 9


def sections_at(data, offset, count):
    """(name, virtual address, virtual size, file offset, file size) of each section header."""
    for index in range(count):
        name, vsize, vaddr, size, pointer = struct.unpack_from("<8sIIII", data, offset + 40 * index)
        yield name.rstrip(b"\0").decode(), vaddr, vsize, pointer, size


class Image:
    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        if self.data[:2] != b"MZ":
            raise ValueError("no DOS header")
        header = struct.unpack_from("<I", self.data, 0x3C)[0]
        if self.data[header:header + 4] != b"PE\0\0":
            raise ValueError("no PE header")
        self.machine, count, self.timestamp, _, _, optional_size, _ = struct.unpack_from("<HHIIIHH", self.data, header + 4)
        optional = header + 24
        self.magic = struct.unpack_from("<H", self.data, optional)[0]
        self.entry = struct.unpack_from("<I", self.data, optional + 16)[0]
        self.subsystem, self.flags = struct.unpack_from("<HH", self.data, optional + 68)
        number = struct.unpack_from("<I", self.data, optional + 92)[0]
        self.directories = [struct.unpack_from("<II", self.data, optional + 96 + 8 * i) for i in range(number)]
        self.sections = list(sections_at(self.data, optional + optional_size, count))

    def offset(self, address):
        for name, vaddr, vsize, pointer, size in self.sections:
            if vaddr <= address < vaddr + max(vsize, size):
                return pointer + address - vaddr
        raise ValueError(f"address {address:#x} lies in no section")

    def text(self, address):
        start = self.offset(address)
        return self.data[start:self.data.index(b"\0", start)].decode()

    def imports(self):
        address, size = self.directories[DIRECTORY_IMPORT]
        if not size:
            return {}
        result = {}
        position = self.offset(address)
        while True:
            names, _, _, library, thunks = struct.unpack_from("<IIIII", self.data, position)
            if not library:
                return result
            result[self.text(library)] = [self.text(entry + 2) for entry in self.thunks(names or thunks)]
            position += 20

    def thunks(self, address):
        position = self.offset(address)
        while (entry := struct.unpack_from("<I", self.data, position)[0]):
            if not entry & 0x80000000:
                yield entry
            position += 4


def check_image(image):
    def directory(index):
        return index < len(image.directories) and image.directories[index][1] != 0

    if image.machine != MACHINE_I386 or image.magic != PE32:
        yield "not a PE32 image for i386"
    if image.subsystem != SUBSYSTEM_NATIVE:
        yield f"subsystem is {image.subsystem}, not native"
    if not image.entry:
        yield "there is no entry point"
    if image.flags & (DYNAMIC_BASE | NX_COMPAT) != DYNAMIC_BASE | NX_COMPAT:
        yield f"image flags {image.flags:#x} lack dynamic base or NX"
    if not directory(DIRECTORY_RELOCATION):
        yield "there are no relocations: it could be loaded at one address only"
    if directory(DIRECTORY_EXPORT):
        yield "the image exports symbols"
    if directory(DIRECTORY_TLS):
        yield "the image has thread-local storage"
    if image.timestamp:
        yield "the image carries a time stamp"
    for library in image.imports():
        if library.lower() not in ALLOWED_IMPORTS:
            yield f"imports from {library}"
    for section in image.sections:
        if section[0].startswith(FORBIDDEN_SECTIONS):
            yield f"section {section[0]}"


def object_sections(path):
    with open(path, "rb") as file:
        data = file.read()
    _, count, _, symbols, symbol_count, optional_size, _ = struct.unpack_from("<HHIIIHH", data)
    strings = symbols + 18 * symbol_count
    for name, _, _, _, size in sections_at(data, 20 + optional_size, count):
        if name.startswith("/"):
            start = strings + int(name[1:])
            name = data[start:data.index(b"\0", start)].decode()
        if size:
            yield name


def main():
    if len(sys.argv) < 2:
        sys.exit("usage: check_image.py IMAGE OBJECT...")
    findings = []
    try:
        image = Image(sys.argv[1])
        findings += [f"{sys.argv[1]}: {finding}" for finding in check_image(image)]
    except (ValueError, struct.error, OSError) as error:
        sys.exit(f"{sys.argv[1]}: {error}")
    for path in sys.argv[2:]:
        findings += [f"{path}: section {name}" for name in object_sections(path) if name.startswith(FORBIDDEN_SECTIONS)]
    if findings:
        sys.exit("\n".join(findings))
    count = sum(len(names) for names in image.imports().values())
    print(f"{sys.argv[1]}: native PE32, {len(image.data)} bytes, {count} imports from {', '.join(sorted(image.imports()))}")


if __name__ == "__main__":
    main()
