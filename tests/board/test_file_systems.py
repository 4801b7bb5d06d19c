#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Cards that other people's tools formatted, used on the board, and checked by those
tools again: test_file_systems.py BUILD_DIR"""

import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/ppc"
EXFAT_PUT = ROOT / "tools/demo/exfat_put.py"
MIB = 1 << 20
os.environ["PATH"] += ":/usr/sbin:/sbin"


def run(*command):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


def noise(seed, length):
    return random.Random(seed).randbytes(length)


class Fat:
    def __init__(self, bits, size, sectors_a_cluster):
        self.bits, self.size, self.cluster = bits, size, sectors_a_cluster

    def make(self, image, name, content):
        run("mkfs.fat", "-F", self.bits, "-s", self.cluster, "-n", "TEST", image)
        run("mcopy", "-i", image, content, f"::{name}")

    def check(self, image, name, content):
        run("fsck.fat", "-n", image)
        copied = image.with_suffix(".copied")
        run("mcopy", "-n", "-i", image, f"::{name}", copied)
        assert copied.read_bytes() == content.read_bytes(), f"{name} is not what was written"


class ExFat:
    size = 4 * MIB

    def make(self, image, name, content):
        run("mkfs.exfat", "-L", "TEST", image)
        named = content.with_name(name)
        shutil.copy(content, named)
        run(sys.executable, EXFAT_PUT, "put", image, named)

    def check(self, image, name, content):
        run("fsck.exfat", "-n", image)
        got = subprocess.run(
            [sys.executable, EXFAT_PUT, "get", image, name], capture_output=True, check=True
        )
        assert got.stdout == content.read_bytes(), f"{name} is not what was written"


CASES = {
    "fat16 in a Zel slot": (Fat(16, 3 * MIB, 1), "zel0", "/dev/spda", "direct", "vfat"),
    "fat32 in a Zel slot": (Fat(32, 34 * MIB, 1), "zel1", "/dev/spdb", "plain", "vfat"),
    "exfat in a Zel slot": (ExFat(), "zel2", "/dev/spdc", "direct", "exfat"),
    "fat16 in the adaptor": (Fat(16, 3 * MIB, 1), "mivo0", "/dev/mivosdif0", "plain", "-"),
    "exfat in the adaptor": (ExFat(), "mivo1", "/dev/mivosdif1", "direct", "-"),
    "fat16 behind the Ricoh host": (Fat(16, 3 * MIB, 1), "ricoh", "/dev/sdcarda", "plain", "vfat"),
    "exfat behind the Ricoh host": (ExFat(), "ricoh", "/dev/sdcarda", "plain", "exfat"),
}


class FileSystems(unittest.TestCase):
    """All cases in one start of the board; each is then looked at for itself."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="card-file-systems-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        lines = []
        for number, (system, place, node, way, mount) in enumerate(CASES.values()):
            case = cls.folder / str(number)
            cls.prepare(case, system, number)
            words = [ROOT / "tests/board/file_systems.sh", BUILD / "tests/board/card_copy"]
            words += [case, place, node, way, mount]
            lines.append(" ".join(str(word) for word in words) + f"; echo {number} $? >&2")
        script = cls.folder / "all.sh"
        script.write_text("\n".join(lines) + "\n")
        cls.done = subprocess.run(
            [ROOT / "board/run", "--timeout", "120", "sh", script],
            cwd=cls.folder,
            capture_output=True,
            text=True,
            check=False,
        )

    @staticmethod
    def prepare(case, system, number):
        case.mkdir()
        for name, seed, length in (
            ("in.bin", 1, 300_000),
            ("new.bin", 2, 500_001),
            ("board.bin", 3, 200_777),
        ):
            (case / name).write_bytes(noise(seed * 100 + number, length))
        for image, name, content in (
            ("before.img", "IN.BIN", "in.bin"),
            ("new.img", "NEW.BIN", "new.bin"),
        ):
            with open(case / image, "wb") as file:
                file.truncate(system.size)
            system.make(case / image, name, case / content)

    def test_the_board_ran_through(self):
        self.assertEqual(0, self.done.returncode, self.done.stdout + self.done.stderr)
        self.assertEqual("", self.done.stdout)
        self.assertEqual([f"{i} 0" for i in range(len(CASES))], self.done.stderr.splitlines())

    def look_at(self, name):
        number = list(CASES).index(name)
        system, _, _, _, mount = CASES[name]
        case = self.folder / str(number)
        saved = case / "saved.img"
        self.assertTrue(saved.exists(), self.done.stdout + self.done.stderr)
        if mount == "-":
            self.assertEqual((case / "new.img").read_bytes(), saved.read_bytes())
        else:
            self.assertNotEqual((case / "new.img").read_bytes(), saved.read_bytes())
            system.check(saved, "BOARD.BIN", case / "board.bin")
        system.check(saved, "NEW.BIN", case / "new.bin")


def add_case(name):
    setattr(FileSystems, "test_" + name.replace(" ", "_"), lambda self: self.look_at(name))


for case_name in CASES:
    add_case(case_name)

if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main()
