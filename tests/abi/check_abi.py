#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What the built libraries need and offer, read from the files themselves.

The header is the one list of public names; the version script, the shared
library and the header must agree in both directions.
"""
import argparse
import re
import subprocess
import sys
import unittest

ARGUMENTS = None

# All that the library may ask of its surroundings. A name that is missing here
# is a new dependency: think twice before adding it.
LIBC = {
    "__errno_location", "close", "free", "ioctl", "lseek64", "malloc", "memchr", "memcpy",
    "memset", "nanosleep", "open64", "poll", "printf", "pthread_mutex_init",
    "pthread_mutex_lock", "pthread_mutex_unlock", "puts", "read", "snprintf", "stat64", "stdout", "strerror",
    "vfprintf", "vprintf", "vsnprintf", "write", "__stat64_time64", "gnu_dev_major", "gnu_dev_minor",
}
# What compilers leave for the linker to fill in.
LINKER = {"_GLOBAL_OFFSET_TABLE_"}
# Register save and restore, from the compiler's own static helper library.
COMPILER = re.compile(r"^_(save|rest)(gpr|fpr)_\d+(_x)?$|^_restgpr_\d+_x$")


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def header_names():
    text = ""
    for header in ARGUMENTS.header:
        with open(header, encoding="utf-8") as file:
            text += re.sub(r"/\*.*?\*/", "", file.read(), flags=re.S)
    functions = re.findall(r"^\w[\w ]*[ *]((?:Dev|CARD_|Calc)\w+)\(", text, flags=re.M)
    objects = re.findall(r"^extern [\w ]*?(\w+)(?:\[\w*\])?;", text, flags=re.M)
    return set(functions) | set(objects)


def map_names():
    with open(ARGUMENTS.map, encoding="utf-8") as file:
        text = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.S)
    listed = re.search(r"global:(.*?)local:\s*\*;", text, flags=re.S).group(1)
    return set(re.findall(r"(\w+);", listed))


def dynamic_names():
    names = set()
    for line in run(ARGUMENTS.nm, "-D", "--defined-only", ARGUMENTS.shared).splitlines():
        kind, name = line.split()[-2:]
        if kind != "A":  # the version's own name
            names.add(name.split("@")[0])
    return names


class Library(unittest.TestCase):
    def test_header_lists_plausible_names(self):
        names = header_names()
        self.assertIn("DevDrctWriteArray", names)
        self.assertIn("CARD_GetCardSize", names)
        self.assertIn("ricoh_sd_ops", names)
        self.assertGreaterEqual(len(names), 30)

    def test_shared_library_exports_the_header_and_nothing_else(self):
        self.assertEqual(header_names(), dynamic_names())

    def test_version_script_lists_the_header_and_nothing_else(self):
        self.assertEqual(header_names(), map_names())

    def test_shared_library_needs_libc_alone(self):
        dynamic = run(ARGUMENTS.readelf, "-d", ARGUMENTS.shared)
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
        self.assertEqual(["libc.so.6"], needed)

    def test_shared_library_has_its_name(self):
        dynamic = run(ARGUMENTS.readelf, "-d", ARGUMENTS.shared)
        self.assertEqual(["libcarddev.so.0"], re.findall(r"\(SONAME\).*\[(.*)\]", dynamic))

    def test_static_library_leaves_only_libc_open(self):
        listing = run(ARGUMENTS.nm, "-A", ARGUMENTS.static)
        defined, undefined = set(), set()
        for line in listing.splitlines():
            kind, name = line.split()[-2:]
            # 'w' and 'v' too: a weak C++ runtime symbol slips past the linker.
            (undefined if kind in "Uwv" else defined).add(name)
        left = {name for name in undefined - defined - LIBC - LINKER if not COMPILER.match(name)}
        self.assertEqual(set(), left)

    def test_names_of_the_interface_have_c_linkage(self):
        # What the back-ends share is C++ and cannot clash with a program's names.
        listing = run(ARGUMENTS.nm, "-A", "--extern-only", "--defined-only", ARGUMENTS.static)
        names = {line.split()[-1] for line in listing.splitlines() if len(line.split()) >= 3}
        self.assertIn("DevArray2Chunk", names)
        mangled = re.compile(r"^_Z\d+(Dev|CARD_|Calc|_*Zel|_*Mivo|RicohSD|\w*_ops|\w*_dev)")
        self.assertEqual([], sorted(name for name in names if mangled.match(name)))

    def test_static_library_keeps_the_internal_routines(self):
        listing = run(ARGUMENTS.nm, "--defined-only", ARGUMENTS.static)
        names = set(listing.split())
        for name in ("DevArray2Chunk", "RicohSD_Init", "RicohSD_CardGetSpeedInfo",
                     "Mivo_SetSgEntry", "__Mivo_CheckEject", "Zel_SetSgEntry", "Zel_Chunk2Sg", "__Zel_CheckEject", "Zel_PollWait"):
            self.assertIn(name, names)

    def test_tables_are_not_writable(self):
        # A table of pointers is filled in at load time and sealed afterwards.
        sections = {}
        for line in run(ARGUMENTS.readelf, "-SW", ARGUMENTS.shared).splitlines():
            match = re.match(r"\s*\[\s*(\d+)\]\s+(\S+)", line)
            if match:
                sections[int(match.group(1))] = match.group(2)
        places = {}
        for line in run(ARGUMENTS.readelf, "--dyn-syms", "-W", ARGUMENTS.shared).splitlines():
            match = re.match(r"\s*\d+:.*OBJECT.*\s(\d+)\s+(\w+_ops)@", line)
            if match:
                places[match.group(2)] = sections[int(match.group(1))]
        self.assertEqual({"mivo_ops", "ricoh_sd_ops", "zel_ops"}, set(places))
        for name, section in places.items():
            self.assertIn(section, (".data.rel.ro", ".rodata"), name)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--header", action="append", required=True)
    for option in ("map", "shared", "static", "nm", "readelf"):
        parser.add_argument("--" + option, required=True)
    ARGUMENTS, rest = parser.parse_known_args()
    unittest.main(argv=sys.argv[:1] + rest)
