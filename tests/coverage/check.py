#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Whether the suite runs every line of the library, takes every branch both ways and shows
each condition's effect (MC/DC), but for the branches that unreachable.txt lists with the
reason why no test can take them."""
import argparse
import collections
import json
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = ("common", "drv", "mivosdif", "ricohsd", "sdparams", "zel")
FACE = "include/carddev.hpp"  # compiled into its callers
UNREACHABLE = pathlib.Path(__file__).with_name("unreachable.txt")
# Worked out by the compiler, never at run time.
LEFT_OUT = ("common/request.h",)


def listed():
    """How often each branch stands there: once for each place with that text in the file."""
    return collections.Counter(line.strip() for line in
                               UNREACHABLE.read_text(encoding="utf-8").splitlines()
                               if line.strip() and not line.startswith("#"))


def files_of(export):
    for file in export["data"][0]["files"]:
        name = str(pathlib.Path(file["filename"]).relative_to(ROOT))
        if (name.split("/")[0] in FOLDERS or name == FACE) and name not in LEFT_OUT:
            yield name, file


def untaken(name, file):
    text = (ROOT / name).read_text(encoding="utf-8").splitlines()
    # A function that is compiled into several others is counted for each.
    taken = {}
    for line, column, _, end, true, false, *_ in file["branches"]:
        sums = taken.setdefault((line, column, end), [0, 0])
        sums[0] += true
        sums[1] += false
    for (line, *_), (true, false) in sorted(taken.items()):
        for count, way in ((true, "true"), (false, "false")):
            if count == 0:
                yield f"{name} | {' '.join(text[line - 1].split())} | never {way}"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("llvm_cov_arguments", nargs="+", help="profile and programs, after --")
    arguments = parser.parse_args().llvm_cov_arguments
    export = json.loads(subprocess.run(
        ["llvm-cov-19", "export", *arguments, *(str(ROOT / name) for name in (*FOLDERS, FACE))],
        check=True, capture_output=True, text=True).stdout)
    totals = {what: [0, 0] for what in ("lines", "branches", "mcdc")}
    found = collections.Counter()
    for name, file in files_of(export):
        for what, counted in totals.items():
            counted[0] += file["summary"][what]["covered"]
            counted[1] += file["summary"][what]["count"]
        found.update(untaken(name, file))
    known = listed()
    for branch in sorted((found - known).elements()):
        print(f"NOT TAKEN {branch}")
    for branch in sorted((known - found).elements()):
        print(f"LISTED AS UNREACHABLE, BUT TAKEN OR GONE: {branch}")
    good = found == known
    for what in ("lines", "mcdc"):
        good = good and totals[what][1] > 0 and totals[what][0] == totals[what][1]
    figures = ", ".join(f"{what} {covered} of {count}" for what, (covered, count) in totals.items())
    print(f"note: {figures}; {known.total()} branches listed as unreachable")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
