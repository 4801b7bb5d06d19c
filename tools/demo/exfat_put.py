#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Put files into the root directory of an exFAT volume, and get them out.

    exfat_put.py put VOLUME FILE...    add files, under their own names
    exfat_put.py get VOLUME NAME       write a file's content to standard output

VOLUME is a file that begins with the file system. The tools for exFAT only work
on mounted volumes, which takes root; this does what the demo needs without: new
files in one piece each, names of ASCII characters, a root directory of one
cluster. fsck.exfat has the last word on the result.
"""

import os
import struct
import sys
import time

ENTRY = 32
BITMAP, FILE, STREAM, NAME = 0x81, 0x85, 0xC0, 0xC1
ALLOCATED, IN_ONE_PIECE = 0x01, 0x02
ARCHIVE = 0x20
FIRST_CLUSTER = 2  # clusters are counted from 2
PERCENT_IN_USE = 112  # position in the boot sector, outside its checksum
NAME_PART = 15  # characters in a name entry


class Problem(Exception):
    pass


def rotate_and_add(data, total=0, skip=()):
    """The 16-bit sum that exFAT uses for names and for directory entries."""
    for position, byte in enumerate(data):
        if position not in skip:
            total = ((total >> 1 | total << 15) + byte) & 0xFFFF
    return total


def timestamp(seconds):
    """Date and time packed into 32 bits, in steps of two seconds."""
    t = time.gmtime(seconds)
    date = (t.tm_year - 1980) << 9 | t.tm_mon << 5 | t.tm_mday
    return date << 16 | t.tm_hour << 11 | t.tm_min << 5 | t.tm_sec // 2


def entry_set(name, length, first_cluster, changed):
    """The directory entries that make up one file."""
    wide = name.encode("utf-16-le")
    parts = [wide[i : i + 2 * NAME_PART] for i in range(0, len(wide), 2 * NAME_PART)]
    when = timestamp(changed)
    utc = 0x80  # the flag for "this offset is known", and the offset 0
    flags = ALLOCATED | (IN_ONE_PIECE if length else 0)
    # Names that differ only in case have one hash. Up-casing is fixed for ASCII.
    name_hash = rotate_and_add(name.upper().encode("utf-16-le"))

    entries = struct.pack("<BBHHHIIIBBBBB7x", FILE, 1 + len(parts), 0, ARCHIVE, 0, when, when,
                          when, 0, 0, utc, utc, utc)
    entries += struct.pack("<BBBBHHQIIQ", STREAM, flags, 0, len(name), name_hash, 0, length, 0,
                           first_cluster, length)
    for part in parts:
        entries += struct.pack("<BB30s", NAME, 0, part)
    checksum = rotate_and_add(entries, skip=(2, 3))
    return entries[:2] + struct.pack("<H", checksum) + entries[4:]


class Volume:
    def __init__(self, file):
        self.file = file
        boot = self.read(0, 512)
        if boot[3:11] != b"EXFAT   ":
            raise Problem("this is no exFAT volume")
        self.heap_sector, self.clusters, self.root_cluster = struct.unpack_from("<III", boot, 88)
        self.sector_size = 1 << boot[108]
        self.cluster_size = self.sector_size << boot[109]
        self.root = bytearray(self.read(self.position(self.root_cluster), self.cluster_size))
        self.bitmap_position, bitmap_size = self.find_bitmap()
        self.bitmap = bytearray(self.read(self.bitmap_position, bitmap_size))

    def read(self, position, length):
        self.file.seek(position)
        data = self.file.read(length)
        if len(data) != length:
            raise Problem("the volume ends too early")
        return data

    def write(self, position, data):
        self.file.seek(position)
        self.file.write(data)

    def position(self, cluster):
        return self.heap_sector * self.sector_size + (cluster - FIRST_CLUSTER) * self.cluster_size

    def find_bitmap(self):
        for at in range(0, len(self.root), ENTRY):
            if self.root[at] == BITMAP:
                first, length = struct.unpack_from("<IQ", self.root, at + 20)
                return self.position(first), length
        raise Problem("there is no allocation bitmap")

    def is_used(self, index):
        return self.bitmap[index // 8] >> index % 8 & 1

    def allocate(self, count):
        """Mark the first run of that many free clusters; return its first one."""
        run = 0
        for index in range(self.clusters):
            run = 0 if self.is_used(index) else run + 1
            if run == count:
                start = index + 1 - count
                for used in range(start, start + count):
                    self.bitmap[used // 8] |= 1 << used % 8
                return start + FIRST_CLUSTER
        raise Problem("there is no room for the file in one piece")

    def files(self):
        """Name, content's cluster and length of each file in the root directory."""
        at = 0
        while at < len(self.root) and self.root[at] != 0:
            if self.root[at] != FILE:
                at += ENTRY
                continue
            secondaries = self.root[at + 1]
            stream = self.root[at + ENTRY : at + 2 * ENTRY]
            names = self.root[at + 2 * ENTRY : at + (1 + secondaries) * ENTRY]
            wide = b"".join(names[i + 2 : i + ENTRY] for i in range(0, len(names), ENTRY))
            first, length = struct.unpack_from("<IQ", stream, 20)
            if length and not stream[1] & IN_ONE_PIECE:
                raise Problem("a file is scattered over the volume")
            yield wide[: 2 * stream[3]].decode("utf-16-le"), first, length
            at += (1 + secondaries) * ENTRY

    def end_of_directory(self):
        for at in range(0, len(self.root), ENTRY):
            if self.root[at] == 0:
                return at
        return len(self.root)

    def put(self, name, content, changed):
        if not name.isascii() or not 0 < len(name) < 256:
            raise Problem(f"{name!r} is no name for here: ASCII characters, at most 255")
        if name.upper() in (other.upper() for other, _, _ in self.files()):
            raise Problem(f"{name} is there already")
        count = -(-len(content) // self.cluster_size)
        first = self.allocate(count) if count else 0
        entries = entry_set(name, len(content), first, changed)
        at = self.end_of_directory()
        if at + len(entries) > len(self.root):
            raise Problem("the root directory is full")
        self.root[at : at + len(entries)] = entries

        # The content before the entries that lead to it.
        if count:
            self.write(self.position(first), content)
        self.write(self.bitmap_position, self.bitmap)
        self.write(self.position(self.root_cluster), self.root)
        used = sum(self.is_used(index) for index in range(self.clusters))
        self.write(PERCENT_IN_USE, bytes([used * 100 // self.clusters]))

    def get(self, name):
        for known, first, length in self.files():
            if known == name:
                return self.read(self.position(first), length) if length else b""
        raise Problem(f"there is no {name}")


def main(arguments):
    if len(arguments) < 3 or arguments[0] not in ("put", "get"):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    command, path, *names = arguments
    try:
        with open(path, "r+b" if command == "put" else "rb") as file:
            volume = Volume(file)
            for name in names:
                if command == "get":
                    sys.stdout.buffer.write(volume.get(name))
                    continue
                with open(name, "rb") as source:
                    volume.put(os.path.basename(name), source.read(), os.stat(name).st_mtime)
    except (Problem, OSError) as problem:
        print(f"exfat_put.py: {path}: {problem}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
