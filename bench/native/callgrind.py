#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Count with callgrind what direct transfers of the library execute on this machine. The
program is the one whose instructions are counted on the board's processor; the figures
are the same on every run."""
import argparse
import glob
import os
import re
import subprocess
import tempfile


def calls_of(program, function):
    """Instructions of each call of the function, in order, and the lines printed."""
    with tempfile.TemporaryDirectory() as folder:
        run = subprocess.run(
            ["valgrind", "-q", "--tool=callgrind", f"--toggle-collect={function}",
             f"--dump-after={function}", f"--callgrind-out-file={folder}/profile", program],
            check=True, capture_output=True, text=True)
        profiles = glob.glob(os.path.join(folder, "profile.*"))
        profiles.sort(key=lambda name: int(name.rsplit(".", 1)[1]))
        counted = []
        for profile in profiles:
            with open(profile, encoding="ascii", errors="replace") as text:
                counted.append(int(re.search(r"^(?:totals|summary): (\d+)", text.read(),
                                             flags=re.M).group(1)))
    return counted, run.stdout.splitlines()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program")
    program = parser.parse_args().program
    for way, function in (("read", "DevDrctRead"), ("write", "DevDrctWrite")):
        counted, lines = calls_of(program, function)
        # The arrays' calls go on to the plain ones; the frame's have no back-end behind them.
        names = [line for line in lines if f" {way} " in f"{line} " and "plain" not in line]
        for name, instructions in zip(names, counted, strict=False):
            print(f"{name:32}{instructions:8}")


if __name__ == "__main__":
    main()
