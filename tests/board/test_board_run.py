#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""board/run, cardtool on the board, and tests/board/run-suite from outside: what goes in
comes out, and whatever fails is seen to fail: test_board_run.py BUILD_DIR"""

import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build/ppc"
RUN = ROOT / "board/run"
BOARD_FAILED = 125
os.environ["PATH"] += ":/usr/sbin:/sbin"


class BoardTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="board-run-test-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_it(self, *arguments, cwd=None):
        return subprocess.run(
            [RUN, *map(str, arguments)],
            cwd=cwd or ROOT,
            capture_output=True,
            stdin=subprocess.DEVNULL,
            timeout=300,
            check=False,
        )


class BoardRun(BoardTest):
    # What passes through, in one start of the board.
    def test_hands_through_output_errors_status_and_files(self):
        content = random.Random(1).randbytes(200_000)
        (self.folder / "in here").write_bytes(content)
        words = ["a b", "it's", '"$HOME"', "\\n", "*", "", "; exit 9"]
        script = (
            'cat "in here"; for word; do echo "<$word>" >&2; done; pwd > out;'
            ' printf "%s" "$(uname -m)" >> out; exit 42'
        )
        done = self.run_it("sh", "-c", script, "sh", *words, cwd=self.folder)
        self.assertEqual(42, done.returncode, done.stderr)
        self.assertEqual(content, done.stdout)
        self.assertEqual("".join(f"<{word}>\n" for word in words).encode(), done.stderr)
        self.assertEqual(f"{self.folder}\nppc", (self.folder / "out").read_text())

    def test_a_command_that_is_not_there(self):
        done = self.run_it("there-is-no-such-command")
        self.assertEqual(127, done.returncode)
        self.assertIn(b"there-is-no-such-command", done.stderr)

    # The kernel's own words count, whatever the command makes of itself.
    def test_a_kernel_warning_is_a_failure(self):
        log = self.folder / "kernel.log"
        done = self.run_it(
            "--log", log, "sh", "-c", 'echo "WARNING: at the test" > /dev/kmsg; echo done'
        )
        self.assertEqual(BOARD_FAILED, done.returncode)
        self.assertEqual(b"done\n", done.stdout)
        self.assertIn(b"WARNING: at the test", done.stderr)
        self.assertIn("WARNING: at the test", log.read_text())

    def test_a_kernel_that_dies_is_a_failure(self):
        done = self.run_it("sh", "-c", "echo c > /proc/sysrq-trigger || reboot -f")
        self.assertEqual(BOARD_FAILED, done.returncode)
        self.assertNotEqual(b"", done.stderr)

    def test_a_command_that_hangs_is_stopped(self):
        start = time.monotonic()
        done = self.run_it("--timeout", "4", "sh", "-c", "echo begun; sleep 1000")
        self.assertEqual(BOARD_FAILED, done.returncode)
        self.assertEqual(b"begun\n", done.stdout)
        self.assertIn(b"4 seconds", done.stderr)
        self.assertGreater(60, time.monotonic() - start)

    # 1000 s in less than it takes to wait for them.
    def test_waits_take_no_time_on_the_exact_clock(self):
        start = time.monotonic()
        done = self.run_it(
            "--exact-time", "sh", "-c", "read a b < /proc/uptime; sleep 1000; cat /proc/uptime"
        )
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertLess(1000, float(done.stdout.split()[0]))
        self.assertGreater(120, time.monotonic() - start)

    def test_tells_its_use(self):
        done = self.run_it("--help")
        self.assertEqual((0, b""), (done.returncode, done.stderr))
        text = done.stdout.decode()
        self.assertTrue(text.startswith("board/run "), text)
        for option in ("--exact-time", "--memory", "--timeout", "--log", "--help", "125"):
            self.assertIn(option, text)
        self.assertGreaterEqual(100, max(len(line) for line in text.splitlines()))

    def test_refuses_what_it_does_not_know(self):
        done = self.run_it("--no-such-option", "true")
        self.assertEqual(BOARD_FAILED, done.returncode)
        self.assertIn(b"--help", done.stderr)
        # A shell is for people.
        done = self.run_it()
        self.assertEqual(BOARD_FAILED, done.returncode)
        self.assertEqual(b"", done.stdout)


class CardTool(BoardTest):
    """What cardtool makes of a block node, whose writes wait in the kernel's memory."""

    def write(self, *faults):
        content = random.Random(2).randbytes(64 * 512)
        (self.folder / "card.img").write_bytes(bytes(1 << 20))
        (self.folder / "in").write_bytes(content)
        script = (
            'tool=$1; shift; card insert zel0 card.img || exit 1; for fault; do'
            ' card fault zel0 $fault || exit 1; done; "$tool" write /dev/spda -i in --yes'
        )
        return self.run_it(
            "sh", "-c", script, "sh", BUILD / "cardtool", *faults, cwd=self.folder
        )

    def test_a_write_is_compared_with_the_card(self):
        done = self.write()
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertIn(b"wrote and compared 64 sectors", done.stdout)

    # The driver fails when the kernel writes out, after every call of the tool's went well.
    def test_a_write_that_fails_at_the_close_is_noticed(self):
        done = self.write("call=write node=block errno=EIO")
        self.assertEqual(10, done.returncode, done.stdout + done.stderr)
        self.assertEqual(b"", done.stdout)
        self.assertIn(b"differ", done.stderr)


    # Each sector reaches the driver twice: the kernel's copy would agree with itself.
    def test_a_backup_is_compared_with_the_card(self):
        (self.folder / "card.img").write_bytes(random.Random(3).randbytes(1 << 20))
        script = (
            'tool=$1; shift; card insert zel0 card.img && "$tool" backup /dev/spda -o out "$@" &&'
            " card trace zel0"
        )
        for options, twice in ((["--no-verify"], False), ([], True)):
            done = self.run_it(
                "sh", "-c", script, "sh", BUILD / "cardtool", *options, cwd=self.folder
            )
            self.assertEqual(0, done.returncode, done.stderr)
            self.assertEqual(
                (self.folder / "card.img").read_bytes(), (self.folder / "out").read_bytes()
            )
            reads = re.findall(rb" /dev/spda read = (\d+)$", done.stdout, re.MULTILINE)
            self.assertGreaterEqual(sum(map(int, reads)), 1 << 20, done.stdout)
            self.assertEqual(twice, sum(map(int, reads)) >= 2 << 20, done.stdout)

    def test_a_mounted_card_is_not_written_to(self):
        image = self.folder / "card.img"
        with open(image, "wb") as file:
            file.truncate(1 << 20)
        subprocess.run(["mkfs.fat", image], check=True, capture_output=True)
        (self.folder / "in").write_bytes(random.Random(4).randbytes(1 << 20))
        script = (
            "tool=$1 place=$2 node=$3; mkdir -p /mnt; card insert $place card.img || exit 1;"
            " mount -t vfat -o ro $node /mnt || exit 2;"
            ' "$tool" write $node -i in --count 3 --yes; echo write $?;'
            ' "$tool" restore $node -i in --yes; echo restore $?;'
            ' card save $place mounted.img; umount /mnt;'
            ' "$tool" restore $node -i in --yes > /dev/null; echo unmounted $?;'
            " card save $place after.img"
        )
        for place, node in (("zel0", "/dev/spda"), ("ricoh", "/dev/sdcarda")):
            with self.subTest(node):
                done = self.run_it(
                    "sh", "-c", script, "sh", BUILD / "cardtool", place, node, cwd=self.folder
                )
                self.assertEqual(b"write 6\nrestore 6\nunmounted 0\n", done.stdout, done.stderr)
                self.assertEqual(2, done.stderr.count(b" is mounted at /mnt\n"), done.stderr)
                for saved, source in (("mounted.img", "card.img"), ("after.img", "in")):
                    self.assertEqual(
                        (self.folder / source).read_bytes(), (self.folder / saved).read_bytes()
                    )


class RunSuite(unittest.TestCase):
    """The runner, with a program put in that ends as it is told to."""

    def suite(self, part, program):
        with tempfile.TemporaryDirectory(prefix="run-suite-test-", dir=ROOT / "build") as folder:
            build = pathlib.Path(folder)
            path = build / "tests/board" / part
            path.parent.mkdir(parents=True)
            path.write_text("#!/bin/sh\n" + program)
            path.chmod(0o755)
            shutil.copy(BUILD / "libcarddev.so.0", build)
            return subprocess.run(
                [ROOT / "tests/board/run-suite", build, part],
                capture_output=True,
                text=True,
                check=False,
            )

    def test_passes_when_all_pass(self):
        done = self.suite("board_timing_test", GOOD)
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)
        self.assertIn("\n3 tests on the board, 0 of 1 parts failed", done.stdout)

    def test_fails_with_a_program_that_fails(self):
        done = self.suite("board_backends_test", GOOD + "exit 1\n")
        self.assertEqual(1, done.returncode, done.stdout + done.stderr)
        self.assertIn("board_backends_test  FAILED    3 tests", done.stdout)
        self.assertIn("1 of 1 parts failed", done.stdout)

    def test_fails_with_a_program_without_tests(self):
        done = self.suite("driver_test", 'echo "[  PASSED  ] 0 tests."\n')
        self.assertEqual(1, done.returncode, done.stdout + done.stderr)
        self.assertIn("it ran no test", done.stdout)

    def test_fails_with_a_kernel_warning(self):
        done = self.suite("board_timing_test", GOOD + 'echo "BUG: of the test" > /dev/kmsg\n')
        self.assertEqual(1, done.returncode, done.stdout + done.stderr)
        self.assertIn("exit status 125", done.stdout)

    def test_fails_with_a_part_that_is_none(self):
        done = self.suite("no_such_part", GOOD)
        self.assertEqual(1, done.returncode, done.stdout + done.stderr)


GOOD = 'echo "[  PASSED  ] 3 tests."\n'

if __name__ == "__main__":
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main()
