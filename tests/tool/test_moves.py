#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What cardtool moves to and from a card, and what it does meanwhile."""

import json
import os
import pathlib
import pty
import re
import select
import shlex
import signal
import subprocess
import time
import unittest

import jsonschema

from case import (BANNER, BUSY, CardtoolTest, DEVICE, INPUT_OUTPUT, INTERRUPTED, MISMATCH, NAMES,
                  NO_DEVICE, OK, PERMISSION, READER_GONE, READ_ONLY, REFUSED, REMOVED, SCHEMA,
                  SECTOR, SECTORS, TIMEOUT, TOOL, USAGE, pattern)


class WatchTest(CardtoolTest):
    """A card that leaves and comes back, on the back-ends that notice it."""

    EJECT, INSERT = b"the card was taken out or exchanged\n", b"a card was put in\n"

    def slot(self, *faults):
        return self.description({"driver": "zel", "unit": 0}, faults)

    def comings_and_goings(self):
        """Out at the twelfth look of the driver, in again at the fourth try to open."""
        return self.slot(
            {"call": "ioctl", "node": "/dev/spdra", "first": 12, "eject": "/dev/spda"},
            {"call": "open", "node": "/dev/spda", "first": 6, "errno": "ENOMEDIUM",
             "insert": "/dev/spda"},
            {"call": "ioctl", "node": "/dev/spdra", "first": 30, "eject": "/dev/spda"})

    def watch(self, *arguments, node="/dev/spda", sim=None):
        return self.on_card("watch", node, "--interval", "1", *arguments, sim=sim)

    def stream(self, result):
        """A valid document on each line; what they tell."""
        documents = [json.loads(line) for line in result.stdout.decode("ascii").splitlines()]
        for document in documents:
            jsonschema.Draft202012Validator(SCHEMA).validate(document)
            self.assertEqual(document["command"], "watch")
        return documents

    def test_shows_each_eject_and_each_insertion(self):
        result = self.watch("--events", "3", sim=self.comings_and_goings())
        self.assertEqual(result.returncode, OK, result.stderr)
        self.assertEqual(result.stdout,
                         b"state: ready\n" + self.EJECT + self.INSERT + self.EJECT)

    def test_says_once_why_there_is_no_card(self):
        # Opening failed several times, and the library's own lines are not repeated.
        result = self.watch("--events", "2", sim=self.comings_and_goings())
        lines = result.stderr.decode().splitlines()
        self.assertEqual([line for line in lines if "No medium" in line],
                         ["cardtool: still no card: cannot open /dev/spda: No medium found"])
        self.assertEqual(len([line for line in lines if BANNER in line]), 1)

    def test_says_it_again_when_the_reason_is_another(self):
        result = self.watch("--looks", "20", sim=self.slot(
            {"call": "ioctl", "node": "/dev/spdra", "first": 12, "eject": "/dev/spda"},
            {"call": "stat", "first": 4, "times": 2, "errno": "ENOENT"}))
        self.assertEqual(result.returncode, OK)
        said = [line for line in result.stderr.decode().splitlines() if "still no card" in line]
        self.assertEqual([line.rsplit(": ", 1)[1] for line in said],
                         ["No medium found", "No such file or directory", "No medium found"])

    def test_is_a_stream_for_programs(self):
        result = self.watch("--json", "--events", "3", sim=self.comings_and_goings())
        self.assertEqual(result.returncode, OK, result.stderr)
        told = [document["result"] for document in self.stream(result)]
        self.assertEqual([(one["event"], one["ready"], one["removed"]) for one in told],
                         [("state", True, False), ("eject", False, True),
                          ("insert", True, False), ("eject", False, True)])
        looks = [one["looks"] for one in told]
        self.assertEqual(looks[0], 1)
        self.assertEqual(looks, sorted(set(looks)))

    def test_ends_with_the_eject_when_it_is_told_so(self):
        sim = self.comings_and_goings()
        self.assertEqual(self.succeed(self.watch("--events", "1", sim=sim)),
                         b"state: ready\n" + self.EJECT)

    def test_ends_after_so_many_looks(self):
        told = self.stream(self.watch("--json", "--looks", "3", sim=self.slot()))
        self.assertEqual([document["result"] for document in told],
                         [{"event": "state", "ready": True, "removed": False, "looks": 1}])

    def test_an_exchange_is_both(self):
        sim = self.slot(
            {"call": "ioctl", "node": "/dev/spdra", "first": 12, "eject": "/dev/spda"},
            {"call": "ioctl", "node": "/dev/spdra", "first": 13, "insert": "/dev/spda"})
        self.assertEqual(self.succeed(self.watch("--events", "2", sim=sim)),
                         b"state: ready\n" + self.EJECT + self.INSERT)

    def test_begins_with_an_empty_slot(self):
        sim = self.slot({"call": "stat", "eject": "/dev/spda"},
                        {"call": "open", "node": "/dev/spda", "first": 3, "errno": "ENOMEDIUM",
                         "insert": "/dev/spda"})
        told = self.stream(self.watch("--json", "--events", "1", sim=sim))
        self.assertEqual([document["result"]["event"] for document in told], ["state", "insert"])
        self.assertTrue(told[0]["result"]["removed"])

    def test_a_device_that_does_not_open_is_no_empty_slot(self):
        sim = self.slot({"call": "open", "node": "/dev/spda", "errno": "EACCES"})
        self.fail_with(PERMISSION, self.watch("--events", "1", sim=sim))

    def test_a_failure_is_the_last_document(self):
        result = self.watch("--json", "--looks", "1", node="/dev/spdb", sim=self.slot())
        (told,) = self.stream(result)
        self.assertEqual(told["error"]["name"], NAMES[NO_DEVICE])

    def test_the_adaptor(self):
        sim = self.description({"driver": "mivo", "unit": 1}, [
            {"call": "ioctl", "node": "/dev/mivosdif1", "first": 6, "eject": "/dev/mivosdif1"},
            {"call": "open", "node": "/dev/mivosdif1", "first": 4, "insert": "/dev/mivosdif1"}])
        result = self.watch("--events", "2", node="/dev/mivosdif1", sim=sim)
        self.assertEqual(result.stdout, b"state: ready\n" + self.EJECT + self.INSERT)
        self.assertEqual(result.stderr.decode().count("still no card"), 1)

    def test_an_interruption_ends_it_well(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = subprocess.Popen(
                [*TOOL, "--sim", self.slot(), "--json", "watch", "/dev/spda"],
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
            # The state is there while the command goes on.
            self.assertEqual(json.loads(process.stdout.readline())["result"]["event"], "state")
            process.send_signal(number)
            rest = process.communicate(timeout=TIMEOUT)[0]
            self.assertEqual((process.returncode, rest), (OK, b""))


class ReadTest(CardtoolTest):
    def test_whole_card_to_standard_output(self):
        result = self.on_card("read", DEVICE, "-o", "-")
        self.assertTrue(self.succeed(result) == self.content)
        self.assertIn(BANNER, result.stderr.decode())

    def test_whole_card_to_a_file(self):
        out = self.file("out.img", b"what was there before" * 100000)
        self.succeed(self.on_card("read", DEVICE, "--output", out))
        self.assertTrue(pathlib.Path(out).read_bytes() == self.content)
        self.assert_card_unchanged()

    def test_parts(self):
        for first, count in ((0, 1), (1, 999), (255, 2), (256, 256), (700, 300), (999, 1)):
            with self.subTest(f"{count} sectors from {first}"):
                result = self.on_card("read", DEVICE, "-o", "-", "--first", str(first),
                                      "--count", str(count))
                expected = self.content[first * SECTOR : (first + count) * SECTOR]
                self.assertTrue(self.succeed(result) == expected)

    def test_to_the_end_from_somewhere(self):
        got = self.succeed(self.on_card("read", DEVICE, "-o", "-", "--first", "990"))
        self.assertEqual(got, self.content[990 * SECTOR :])

    def test_beyond_four_gigabytes(self):
        far = 9_000_000
        with open(self.image, "r+b") as image:
            image.truncate(5 << 30)
            image.seek(far * SECTOR)
            image.write(pattern("far", 3))
        result = self.on_card("read", DEVICE, "-o", "-", "--first", str(far), "--count", "3")
        self.assertEqual(self.succeed(result), pattern("far", 3))

    def test_ranges_that_are_not_on_the_card(self):
        for first, count in (("1000", None), ("4294967295", None), ("0", "1001"), ("999", "2"),
                             ("1", "4294967295"), ("0", "0")):
            with self.subTest(f"{count} from {first}"):
                out = self.folder / "out.img"
                arguments = ["--first", first] + (["--count", count] if count else [])
                self.fail_with(USAGE, self.on_card("read", DEVICE, "-o", str(out), *arguments))
                self.assertFalse(out.exists())

    def test_failure_in_the_middle_tells_how_far(self):
        for call in ("read", "seek"):
            with self.subTest(call):
                sim = self.description(faults=[{"call": call, "first": 3, "errno": "EIO"}])
                out = self.folder / "out.img"
                result = self.on_card("read", DEVICE, "-o", str(out), sim=sim)
                done = out.stat().st_size // SECTOR
                self.assertTrue(0 < done < SECTORS)
                lines = self.fail_with(INPUT_OUTPUT, result, "Input/output error",
                                       f"sector {done} after {done} of 1000 sectors")
                self.assertTrue(out.read_bytes() == self.content[: done * SECTOR])
                # The advice leads to the rest.
                self.assertIn(f"--first {done}", lines[1])
                rest = self.succeed(self.on_card("read", DEVICE, "-o", "-", "--first", str(done)))
                self.assertTrue(out.read_bytes() + rest == self.content)

    def test_failure_counts_from_the_first_sector_asked_for(self):
        sim = self.description(faults=[{"call": "read", "errno": "EIO"}])
        result = self.on_card("read", DEVICE, "-o", "-", "--first", "40", "--count", "9", sim=sim)
        self.fail_with(INPUT_OUTPUT, result, "sector 40 after 0 of 9 sectors")
        self.assertEqual(result.stdout, b"")

    def test_output_that_cannot_be_written(self):
        self.fail_with(INPUT_OUTPUT, self.on_card("read", DEVICE, "-o", "/dev/full"),
                       "/dev/full", "No space left")
        with open("/dev/full", "wb") as full:
            result = self.on_card("read", DEVICE, "-o", "-", stdout=full)
        self.fail_with(INPUT_OUTPUT, result, "standard output", "No space left")
        self.fail_with(INPUT_OUTPUT, self.on_card("read", DEVICE, "-o", self.path("no/such")),
                       "cannot create")

    def test_output_that_cannot_be_completed(self):
        # The card onto itself: closing a node can be made to fail.
        sim = self.description(faults=[{"call": "close", "errno": "EIO"}])
        result = self.on_card("read", DEVICE, "-o", DEVICE, sim=sim)
        self.fail_with(INPUT_OUTPUT, result, "cannot complete", "Input/output error")
        self.assert_card_unchanged()

    def test_reader_that_goes_away(self):
        for arguments in (["read", DEVICE, "-o", "-"], ["info", DEVICE], ["--json", "size", DEVICE],
                          ["--help"]):
            with self.subTest(arguments):
                source, sink = os.pipe()
                os.close(source)
                try:
                    result = self.on_card(*arguments, stdout=sink)
                finally:
                    os.close(sink)
                self.assertEqual(result.returncode, READER_GONE)
                self.assertNotIn(b"cardtool:", result.stderr)

    def test_reader_that_stops_in_the_middle(self):
        command = shlex.join([*TOOL, "--sim", str(self.image), "read", DEVICE, "-o", "-"])
        result = subprocess.run(["bash", "-c", command + " | head -c 512; echo ${PIPESTATUS[0]}"],
                                capture_output=True, timeout=TIMEOUT, check=False)
        self.assertEqual(result.stdout, self.content[:SECTOR] + b"141\n")
        self.assertNotIn(b"cardtool:", result.stderr)

    def test_reader_of_a_named_pipe_that_goes_away(self):
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        tool = subprocess.Popen([*TOOL, "--sim", str(self.image), "read", DEVICE, "-o", pipe],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        with open(pipe, "rb") as reader:
            reader.read(1)
        _, errors = tool.communicate(timeout=TIMEOUT)
        self.fail_with(INPUT_OUTPUT, subprocess.CompletedProcess([], tool.returncode, b"", errors),
                       "Broken pipe")

    def test_standard_output_that_is_closed(self):
        command = shlex.join([*TOOL, "--sim", str(self.image), "size", DEVICE]) + " >&-"
        result = subprocess.run(["sh", "-c", command], stderr=subprocess.PIPE, timeout=TIMEOUT,
                                check=False)
        self.fail_with(INPUT_OUTPUT, result, "standard output")

    def test_files_that_are_not_permitted(self):
        # A place of the stand-in's, so that root is refused, too.
        sim = self.description(faults=[{"call": "open", "node": "/dev/mine", "errno": "EACCES"}])
        self.fail_with(PERMISSION, self.on_card("read", DEVICE, "-o", "/dev/mine", sim=sim),
                       "cannot create /dev/mine")
        self.fail_with(PERMISSION, self.on_card("write", DEVICE, "-i", "/dev/mine", sim=sim),
                       "cannot open /dev/mine")

    def test_the_simulated_card_is_no_place_for_its_copy(self):
        link = self.folder / "link"
        link.symlink_to(self.image)
        for out in (self.image, link):
            self.fail_with(USAGE, self.on_card("read", DEVICE, "-o", str(out)))
            self.assert_card_unchanged()


class WriteTest(CardtoolTest):
    def written(self, first, data):
        start = first * SECTOR
        return self.content[:start] + data + self.content[start + len(data) :]

    def assert_image(self, expected):
        self.assertTrue(self.image.read_bytes() == expected)

    def test_lands_exactly_there(self):
        for first, count in ((0, 1), (7, 300), (255, 2), (999, 1), (0, 1000)):
            for way in ("file", "standard input", "pipe by name"):
                with self.subTest(f"{count} sectors at {first} from {way}"):
                    self.image.write_bytes(self.content)
                    data = pattern(way, count)
                    source = {"file": self.file("in", data), "standard input": "-",
                              "pipe by name": "/dev/stdin"}[way]
                    self.succeed(self.on_card("write", DEVICE, "--yes", "-i", source,
                                              "--first", str(first), stdin=data))
                    self.assert_image(self.written(first, data))

    def test_beyond_four_gigabytes(self):
        far = 9_000_000
        with open(self.image, "r+b") as image:
            image.truncate(5 << 30)
        data = self.file("in", pattern("far", 3))
        self.succeed(self.on_card("write", DEVICE, "--yes", "-i", data, "--first", str(far)))
        with open(self.image, "rb") as image:
            self.assertTrue(image.read(len(self.content)) == self.content)
            image.seek((far - 1) * SECTOR)
            zeros = bytes(SECTOR)
            self.assertEqual(image.read(5 * SECTOR), zeros + pattern("far", 3) + zeros)

    def test_inputs_that_are_no_whole_number_of_sectors(self):
        for length in (0, 1, 511, 513, 512 * 300 + 1):
            for source in (self.file("in", bytes(length)), "-"):
                with self.subTest(f"{length} bytes from {source}"):
                    result = self.on_card("write", DEVICE, "--yes", "-i", source,
                                          stdin=bytes(length))
                    self.fail_with(USAGE, result, f"{length} bytes")
                    self.assert_card_unchanged()

    def test_inputs_that_do_not_fit(self):
        for first, count in ((0, 1001), (999, 2), (700, 301), (1000, 1), (4294967295, 1)):
            data = pattern("new", count)
            for source in (self.file("in", data), "-"):
                with self.subTest(f"{count} sectors at {first} from {source}"):
                    result = self.on_card("write", DEVICE, "--yes", "-i", source,
                                          "--first", str(first), stdin=data)
                    self.fail_with(USAGE, result)
                    self.assert_card_unchanged()

    def test_endless_input_does_not_fit_either(self):
        self.fail_with(USAGE, self.on_card("write", DEVICE, "--yes", "-i", "/dev/zero"), "not fit")
        self.assert_card_unchanged()

    def test_input_that_is_not_there(self):
        for source in (self.path("none"), str(self.folder)):
            result = self.on_card("write", DEVICE, "--yes", "-i", source)
            self.fail_with(INPUT_OUTPUT, result, source)
        self.assert_card_unchanged()

    def test_asks_on_standard_input_without_a_terminal(self):
        data = pattern("new", 2)
        source = self.file("in", data)
        for answer in (b"", b"\n", b"no\n", b"y\n", b"YES\n", b"yes please\n", b" yes\n"):
            with self.subTest(answer):
                result = self.on_card("write", DEVICE, "-i", source, "--first", "5", stdin=answer)
                self.assertIn(f"Write 2 sectors to {DEVICE} from sector 5? Type yes: ",
                              result.stderr.decode())
                lines = self.fail_with(REFUSED, result, 'not "yes"')
                self.assertIn("nothing was written", lines[1])
                self.assertEqual(result.stdout, b"")
                self.assert_card_unchanged()
        for answer in (b"yes\n", b"yes"):
            self.image.write_bytes(self.content)
            result = self.on_card("write", DEVICE, "-i", source, "--first", "5", stdin=answer)
            self.assertEqual(result.returncode, OK, result.stderr)
            self.assert_image(self.written(5, data))

    def test_data_on_standard_input_is_no_answer(self):
        data = b"yes\n".ljust(SECTOR, b"\n")
        result = self.on_card("write", DEVICE, "-i", "-", stdin=data)
        self.fail_with(REFUSED, result, "cannot ask")
        self.assert_card_unchanged()

    def on_terminal(self, answer, *arguments, stdin=None):
        """Run with a terminal of its own; answer when the question has come."""
        pid, terminal = pty.fork()
        if pid == 0:
            try:
                if stdin:
                    os.dup2(os.open(stdin, os.O_RDONLY), 0)
                os.execvp(TOOL[0], [*TOOL, "--sim", str(self.image), *arguments])
            finally:  # or the child would go on with the tests
                os._exit(127)
        shown = b""
        while select.select([terminal], [], [], TIMEOUT)[0]:
            try:
                got = os.read(terminal, 4096)
            except OSError:  # how a terminal without a program ends
                break
            shown += got
            if not got:
                break
            if answer and b"Type yes: " in shown:
                os.write(terminal, answer)
                answer = b""
        os.close(terminal)
        return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), shown.decode()

    def test_asks_on_the_terminal(self):
        data = pattern("new", 2)
        source = self.file("in", data)
        code, shown = self.on_terminal(b"no\n", "write", DEVICE, "-i", source)
        self.assertEqual(code, REFUSED, shown)
        self.assertIn(f"Write 2 sectors to {DEVICE} from sector 0? Type yes: ", shown)
        self.assert_card_unchanged()
        code, shown = self.on_terminal(b"yes\n", "write", DEVICE, "-i", source)
        self.assertEqual(code, OK, shown)
        self.assert_image(self.written(0, data))

    def test_asks_on_the_terminal_while_standard_input_is_the_data(self):
        data = pattern("new", 2)
        source = self.file("in", data)
        code, shown = self.on_terminal(b"no\n", "write", DEVICE, "-i", "-", stdin=source)
        self.assertEqual(code, REFUSED, shown)
        self.assertNotIn("cannot ask", shown)
        self.assert_card_unchanged()
        code, shown = self.on_terminal(b"yes\n", "write", DEVICE, "-i", "-", stdin=source)
        self.assertEqual(code, OK, shown)
        self.assert_image(self.written(0, data))

    def test_protected_card(self):
        sim = self.description({"write_protected": True})
        source = self.file("in", pattern("new", 1))
        for arguments in ([], ["--yes"]):
            result = self.on_card("write", DEVICE, "-i", source, *arguments, sim=sim)
            self.fail_with(READ_ONLY, result, "write-protected")
        self.assert_card_unchanged()
        # It can be read all the same.
        result = self.on_card("read", DEVICE, "-o", "-", sim=sim)
        self.assertTrue(self.succeed(result) == self.content)

    def test_failure_in_the_middle_tells_how_far(self):
        sim = self.description(faults=[{"call": "write", "first": 3, "errno": "EIO"}])
        data = pattern("new", 900)
        source = self.file("in", data)
        result = self.on_card("write", DEVICE, "--yes", "-i", source, "--first", "50", sim=sim)
        now = self.image.read_bytes()
        done = sum(now[i * SECTOR : (i + 1) * SECTOR] != self.content[i * SECTOR : (i + 1) * SECTOR]
                   for i in range(SECTORS))
        self.assertTrue(0 < done < 900)
        self.assert_image(self.written(50, data[: done * SECTOR]))
        self.fail_with(INPUT_OUTPUT, result, "Input/output error",
                       f"sector {50 + done} after {done} of 900 sectors")
        self.assertEqual(result.stdout, b"")


class CompareTest(CardtoolTest):
    """What is read back, and what goes on where it stopped."""

    def test_verify(self):
        source = self.file("in", self.content[20 * SECTOR : 500 * SECTOR])
        self.succeed(self.on_card("verify", DEVICE, "-i", source, "--first", "20"))
        self.succeed(self.on_card("verify", DEVICE, "-i", source, "--first", "25", "--skip", "5",
                                  "--count", "300"))
        wrong = bytearray(self.content)
        for sector in (300, 301, 999):
            wrong[sector * SECTOR + 511] ^= 1
        result = self.on_card("verify", DEVICE, "-i", self.file("wrong", bytes(wrong)))
        self.fail_with(MISMATCH, result, "3 sectors of", "first sector 300")
        self.assert_card_unchanged()

    def test_a_write_is_read_back(self):
        data = pattern("new", 300)
        source = self.file("in", data)
        write = ["write", DEVICE, "--yes", "-i", source]
        sim = self.description(faults=[{"call": "read", "errno": "EIO"}])
        self.fail_with(INPUT_OUTPUT, self.on_card(*write, sim=sim), "comparing", "sector 0 after 0")
        self.assertIn(b"wrote and compared 300 sectors", self.succeed(self.on_card(*write)))
        result = self.on_card(*write, "--no-verify", sim=sim)
        self.assertNotIn(b"compared", self.succeed(result))

    def test_a_device_that_does_not_open_again_is_not_compared(self):
        data = pattern("new", 300)
        source = self.file("in", data)
        for errno, code in (("EIO", INPUT_OUTPUT), ("EBUSY", BUSY), ("ENOMEDIUM", REMOVED)):
            with self.subTest(errno):
                self.image.write_bytes(self.content)
                sim = self.description(faults=[{"call": "open", "first": 2, "errno": errno}])
                write = ["--json", "write", DEVICE, "--yes", "-i", source, "--first", "7"]
                result = self.on_card(*write, sim=sim)
                lines = self.fail_with(code, result, "wrote 300 sectors", "from sector 7",
                                       "could not compare", "cannot open")
                self.assertIn("verify", lines[1])
                self.assertIn(data, self.image.read_bytes())
                moved = json.loads(result.stdout)["result"]
                self.assertEqual((moved["moved_bytes"], moved["verified"]),
                                 (300 * SECTOR, False))
                self.succeed(self.on_card(*write, "--no-verify", sim=sim))

    def test_a_backup_is_read_back_and_restores(self):
        copy = self.path("copy.img")
        self.succeed(self.on_card("backup", DEVICE, "-o", copy))
        self.assertTrue(pathlib.Path(copy).read_bytes() == self.content)
        sim = self.description(faults=[{"call": "read", "first": 5, "errno": "EIO"}])
        self.fail_with(INPUT_OUTPUT, self.on_card("backup", DEVICE, "-o", copy, sim=sim),
                       "comparing", "sector 0 after 0")
        self.succeed(self.on_card("backup", DEVICE, "-o", copy, "--no-verify", sim=sim))
        self.image.write_bytes(bytes(len(self.content)))
        self.succeed(self.on_card("restore", DEVICE, "-i", copy, "--yes"))
        self.assert_card_unchanged()
        self.fail_with(REFUSED, self.on_card("restore", DEVICE, "-i", copy))
        short = self.file("short.img", self.content[:-SECTOR])
        self.fail_with(USAGE, self.on_card("restore", DEVICE, "-i", short, "--yes"),
                       "ends after 999 sectors")

    def options_of(self, hint):
        return re.search(r"go on with (--first .*)$", hint).group(1).split()

    def test_a_read_that_stopped_goes_on_in_its_file(self):
        sim = self.description(faults=[{"call": "read", "first": 3, "errno": "EIO"}])
        for command in (["read", "--first", "7", "--count", "900"], ["read"], ["backup"]):
            with self.subTest(command):
                arguments = [command[0], DEVICE, "-o", self.path("out")]
                lines = self.fail_with(INPUT_OUTPUT,
                                       self.on_card(*arguments, *command[1:], sim=sim))
                self.succeed(self.on_card(*arguments, *self.options_of(lines[1])))
                wanted = self.content[7 * SECTOR : 907 * SECTOR] if command[1:] else self.content
                self.assertTrue(pathlib.Path(self.path("out")).read_bytes() == wanted)

    def test_a_write_that_stopped_goes_on(self):
        data = pattern("new", 900)
        source = self.file("in", data)
        sim = self.description(faults=[{"call": "write", "first": 3, "errno": "EIO"}])
        write = ["write", DEVICE, "--yes", "-i", source]
        lines = self.fail_with(INPUT_OUTPUT, self.on_card(*write, "--first", "50", sim=sim))
        self.succeed(self.on_card(*write, *self.options_of(lines[1])))
        expected = self.content[: 50 * SECTOR] + data + self.content[950 * SECTOR :]
        self.assertTrue(self.image.read_bytes() == expected)

    def test_places_in_a_file_that_are_not_there(self):
        source = self.file("in", bytes(10 * SECTOR))
        for option in (["--skip", "10"], ["--skip", "11"], ["--count", "11"]):
            result = self.on_card("write", DEVICE, "--yes", "-i", source, *option)
            self.fail_with(USAGE, result, "10 sectors")
        self.fail_with(USAGE, self.on_card("read", DEVICE, "-o", source, "--seek", "11"),
                       "holds only 5120 bytes")
        self.fail_with(USAGE, self.on_card("read", DEVICE, "-o", "-", "--seek", "1"))
        self.fail_with(USAGE, self.on_card("backup", DEVICE, "-o", "-"))
        self.assert_card_unchanged()


class ProgressTest(CardtoolTest):
    def lines(self, how, *command):
        result = self.on_card(*command, "--progress", how)
        self.succeed(result)
        return result.stderr.decode().splitlines()

    def test_json_lines_reach_the_whole(self):
        source = self.file("in", pattern("new", 600))
        shown = [json.loads(line) for line in
                 self.lines("json", "write", DEVICE, "--yes", "-i", source) if line[0] == "{"]
        self.assertEqual(shown[0]["phase"], "writing")
        self.assertEqual(shown[-1]["phase"], "comparing")
        # Written and read back is the whole.
        self.assertEqual({line["total_bytes"] for line in shown}, {1200 * SECTOR})
        self.assertEqual(shown[-1]["done_bytes"], 1200 * SECTOR)

    def test_plain(self):
        lines = self.lines("plain", "read", DEVICE, "-o", self.path("out"))
        self.assertEqual(lines[-1], "reading: 512000 of 512000 bytes, 100 %")

    def test_none_and_no_terminal(self):
        read = ["read", DEVICE, "-o", self.path("out")]
        self.assertEqual(len(self.lines("none", *read)), 1)  # the library's own
        self.assertEqual(len(self.on_card(*read).stderr.splitlines()), 1)

    def test_bar(self):
        result = self.on_card("read", DEVICE, "-o", self.path("out"), "--progress", "bar")
        bar = result.stderr.decode().split("\r")[-1]
        self.assertRegex(bar, r"^reading +\[#{24}\] 100 % .*MB/s.* s left *\n$")
        self.assertTrue(bar.isascii())


class InterruptTest(CardtoolTest):
    def start(self, *arguments, **options):
        return subprocess.Popen([*TOOL, "--sim", str(self.image), *arguments],
                                stderr=subprocess.PIPE, start_new_session=True, **options)

    def end(self, process, number):
        process.send_signal(number)
        errors = process.communicate(timeout=TIMEOUT)[1].decode()
        self.assertEqual(process.returncode, INTERRUPTED, errors)
        return errors.splitlines()[-2:]

    def test_a_transfer_says_how_far_and_goes_on(self):
        with open(self.image, "r+b") as image:
            image.truncate(2 << 30)
        for number in (signal.SIGINT, signal.SIGTERM):
            out = self.folder / "out"
            process = self.start("read", DEVICE, "-o", str(out), "--progress", "plain",
                                 stdout=subprocess.DEVNULL)
            while b"reading:" not in process.stderr.readline():
                pass
            lines = self.end(process, number)
            done = out.stat().st_size // SECTOR
            self.assertTrue(0 < done < (2 << 30) // SECTOR)
            self.assertIn(f"stopped at sector {done} after {done} of", lines[0])
            self.assertIn(f"--first {done} --seek {done}", lines[1])
            self.succeed(self.on_card("read", DEVICE, "-o", str(out), "--first", str(done),
                                      "--seek", str(done), "--count", "9"))
            self.assertEqual(out.stat().st_size, (done + 9) * SECTOR)

    def test_while_input_is_waited_for(self):
        process = self.start("write", DEVICE, "--yes", "-i", "-", "--json",
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        process.stderr.readline()  # the library's line on opening
        self.wait_for_read(process.pid)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(TIMEOUT), INTERRUPTED)
        document = json.loads(process.stdout.read())
        jsonschema.Draft202012Validator(SCHEMA).validate(document)
        self.assertEqual(document["error"]["name"], "interrupted")
        for stream in (process.stdin, process.stdout, process.stderr):
            stream.close()
        self.assert_card_unchanged()

    def test_what_is_ignored_stays_so(self):
        command = shlex.join([*TOOL, "--sim", str(self.image), "write", DEVICE, "-i",
                              self.file("in", bytes(SECTOR))])
        process = subprocess.Popen(["sh", "-c", f"trap '' INT; exec {command}"],
                                   stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, start_new_session=True)
        shown = b""
        while b"Type yes: " not in shown:
            shown += os.read(process.stderr.fileno(), 4096)
        process.send_signal(signal.SIGINT)
        process.communicate(b"no\n", timeout=TIMEOUT)
        self.assertEqual(process.returncode, REFUSED)

    def wait_for_read(self, pid):
        """Until the process sleeps: it cannot, before it waits for input."""
        for _ in range(200):
            state = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
            if state == "S":
                return
            time.sleep(0.02)

    def test_at_the_question(self):
        process = self.start("write", DEVICE, "-i", self.file("in", bytes(SECTOR)),
                             stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        shown = b""
        while b"Type yes: " not in shown:
            shown += os.read(process.stderr.fileno(), 4096)
        self.assertIn("interrupted", self.end(process, signal.SIGINT)[0])
        self.assert_card_unchanged()


if __name__ == "__main__":
    unittest.main()
