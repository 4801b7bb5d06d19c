#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Count the instructions that each function of the C++ face and its twin in C execute.

The program runs under qemu-ppc one instruction at a time; each leaves a line with its
address. What the calls themselves execute is the same library and is not counted.
"""
import argparse
import collections
import re
import subprocess
import sys
import tempfile


def functions(nm, program):
    """{name: (first address, address behind)} of the twins."""
    found = {}
    for line in subprocess.run([nm, "-S", program], check=True, capture_output=True,
                               text=True).stdout.splitlines():
        fields = line.split()
        if len(fields) == 4 and re.match(r"(c|cpp)_[A-Z]", fields[3]):
            start, size = int(fields[0], 16), int(fields[1], 16)
            found[fields[3]] = (start, start + size)
    return found


def executed(emulator, program, arguments, twins):
    with tempfile.NamedTemporaryFile("r") as log:
        ranges = ",".join(f"{start:#x}..{end - 1:#x}" for start, end in twins.values())
        result = subprocess.run([*emulator, "-singlestep", "-d", "exec,nochain", "-dfilter", ranges,
                                 "-D", log.name, program, *arguments], check=False)
        if result.returncode != 0:
            sys.exit(f"{program} ended with {result.returncode}: twins answered differently")
        counts = collections.Counter()
        for line in log:
            match = re.match(r"Trace .*\[[0-9a-f]+/([0-9a-f]+)/", line)
            if match:
                address = int(match.group(1), 16)
                for name, (start, end) in twins.items():
                    if start <= address < end:
                        counts[name] += 1
        return counts


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--nm", required=True)
    parser.add_argument("--program", required=True)
    parser.add_argument("emulator", nargs="+")
    options = parser.parse_args()

    twins = functions(options.nm, options.program)
    names = sorted(name[2:] for name in twins if name.startswith("c_"))
    if len(names) < 10 or 2 * len(names) != len(twins):
        sys.exit(f"twins are missing: {sorted(twins)}")
    dearer = []
    for outcome, arguments in (("success", []), ("failure", ["fail"])):
        counts = executed(options.emulator, options.program, arguments, twins)
        for name in names:
            in_c, in_cpp = counts["c_" + name], counts["cpp_" + name]
            print(f"{outcome}  {name:16} C {in_c:3}  C++ {in_cpp:3}")
            if in_c == 0 or in_cpp == 0:
                sys.exit(f"{name} was not seen running")
            # A jump that the compiler lays out the other way may stand on one side.
            if in_cpp > in_c + (outcome == "failure"):
                dearer.append(f"{name} ({outcome})")
    if dearer:
        sys.exit("dearer in C++: " + ", ".join(dearer))


if __name__ == "__main__":
    main()
