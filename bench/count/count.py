#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Count the instructions that the library itself executes, one by one.

qemu-ppc executes the program one instruction at a time and names each address; those
that lie in the shared library are counted, its call stubs included. libc's calls are
replaced in the program and lie outside. The figures are exact and the same on every
run; a figure above its bound fails.
"""
import argparse
import re
import subprocess
import sys
import tempfile

# Of one direct request with one piece, from the public call to its return, with the
# sixteen instructions by which it reaches lock, ioctl, poll and unlock. What is wanted is
# 100; these are what was reached, and are not to grow.
REQUEST = {"zel read": 152, "zel write": 166, "mivo read": 150, "mivo write": 163}
# Added by each further piece: joined to the one before it, with an entry of its own,
# or 64 KiB of a long one.
JOINED, SCATTERED, LONG = 12, 20, 14
# From the public call to the slot.
FRAME = 12
# These go on after the slot, so that they need a stack frame of their own.
FRAME_AFTER_SLOT = {"CARD_Read": 17, "CARD_Write": 17, "DevExit": 18}


def text_of(readelf, library):
    """Where the code lies, from the library's load address on."""
    listing = subprocess.run([readelf, "-SW", library], check=True, capture_output=True, text=True)
    name, address, size = re.search(
        r"(\.text)\s+PROGBITS\s+([0-9a-f]+)\s+[0-9a-f]+\s+([0-9a-f]+)", listing.stdout).groups()
    return int(address, 16), int(size, 16)


def symbol(nm, library, name):
    listing = subprocess.run([nm, "-D", library], check=True, capture_output=True, text=True)
    return int(re.search(rf"^([0-9a-f]+) T {name}@", listing.stdout, flags=re.M).group(1), 16)


def execute(arguments):
    """What the program printed, and the address of each instruction in turn."""
    with tempfile.NamedTemporaryFile("r") as trace:
        run = subprocess.run(
            [*arguments.emulator, "-singlestep", "-d", "exec,nochain", "-D", trace.name,
             arguments.program], check=False, capture_output=True, text=True)
        if run.returncode != 0:
            sys.exit(f"{arguments.program} failed:\n{run.stdout}{run.stderr}")
        addresses = [int(line.split("/")[1], 16) for line in trace if line.startswith("Trace")]
    return run.stdout.splitlines(), addresses


def counts(arguments):
    printed, addresses = execute(arguments)
    begin, end, known = (int(word, 16) for word in re.findall(r"0x([0-9a-f]+)", printed[0]))
    start, size = text_of(arguments.readelf, arguments.shared_object)
    low = known - symbol(arguments.nm, arguments.shared_object, "DevDetect") + start
    names = iter(printed[1:])
    result, name, count = {}, None, 0
    for address in addresses:
        if address == begin:
            name, count = next(names), 0
        elif address == end:
            result[name] = count
            name = None
        elif name is not None and low <= address < low + size:
            count += 1
    return result


class Table:
    def __init__(self):
        self.failed = False

    def row(self, what, measured, bound=None):
        text = "" if bound is None else f"{bound:7}"
        mark = ""
        if bound is not None and measured > bound:
            self.failed = True
            mark = "  ABOVE ITS BOUND"
        figure = f"{measured:9.2f}" if isinstance(measured, float) else f"{measured:6}   "
        print(f"{what:44}{figure}{text}{mark}")


def each(counted, what, few, many):
    """What one more piece costs, on average over the pieces from `few` to `many`."""
    return (counted[f"{what} {many}"] - counted[f"{what} {few}"]) / (many - few)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    for option in ("program", "shared-object", "emulator", "nm", "readelf"):
        parser.add_argument("--" + option, required=True)
    arguments = parser.parse_args()
    arguments.emulator = arguments.emulator.split(";")
    counted = counts(arguments)
    table = Table()
    print(f"{'':44}{'counted':7}{'bound':>9}")
    for who in ("zel", "mivo"):
        for way in ("read", "write"):
            call = f"{who} {way}"
            table.row(f"{call}: one piece", counted[f"{call} scattered 1"], REQUEST[call])
            table.row(f"{call}: 2047 pieces", counted[f"{call} scattered 2047"])
            for many in (2, 8, 64, 2047):
                table.row(f"{call}: each further of {many}, joined",
                          each(counted, f"{call} joined", 1, many), JOINED)
                table.row(f"{call}: each further of {many}, scattered",
                          each(counted, f"{call} scattered", 1, many), SCATTERED)
            for many in (2, 64):
                table.row(f"{call}: each further 64 KiB of {many}",
                          each(counted, f"{call} long", 1, many), LONG)
        table.row(f"{who}: array read, one piece", counted[f"{who} read array 1"])
        table.row(f"{who}: array read, each further", each(counted, f"{who} read array", 1, 8))
        for what in ("rmw", "fat"):
            table.row(f"{who}: {what}, one element", counted[f"{who} {what} 1"])
            table.row(f"{who}: {what}, each further", each(counted, f"{who} {what}", 1, 8))
    for who in ("zel", "mivo", "ricoh"):
        for way in ("read", "write"):
            table.row(f"{who}: plain {way}", counted[f"{who} {way} plain"])
    for name in (name for name in counted if name.startswith("frame ")):
        bound = FRAME_AFTER_SLOT.get(name.removeprefix("frame "), FRAME)
        table.row(f"{name} to its slot", counted[name], bound)
    return 1 if table.failed else 0


if __name__ == "__main__":
    sys.exit(main())
