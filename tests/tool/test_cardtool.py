#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""cardtool from outside: what it prints, what it leaves, how it ends.

The environment variable CARDTOOL holds the command to test, with an emulator in
front of it where one is needed.
"""

import json
import os
import pathlib
import pty
import re
import select
import shlex
import shutil
import signal
import stat
import subprocess
import tempfile
import time
import unittest

import jsonschema

TOOL = shlex.split(os.environ["CARDTOOL"])
DEVICE = "/dev/sdcarda"
SECTOR = 512
SECTORS = 1000  # a size that no round number of sectors divides
TIMEOUT = 120

OK, UNEXPECTED, USAGE, NO_DEVICE, NOT_A_CARD = 0, 1, 2, 3, 4
REMOVED, BUSY, READ_ONLY, PERMISSION, INPUT_OUTPUT = 5, 6, 7, 8, 9
MISMATCH, INTERRUPTED, REFUSED, READER_GONE = 10, 11, 12, 141

SCHEMA = json.loads(
    (pathlib.Path(__file__).parents[2] / "docs" / "cardtool.schema.json").read_text())
NAMES = {UNEXPECTED: "unexpected", USAGE: "usage", NO_DEVICE: "no-such-device",
         NOT_A_CARD: "not-a-card", REMOVED: "removed", READ_ONLY: "read-only",
         BUSY: "busy", MISMATCH: "mismatch", INTERRUPTED: "interrupted",
         PERMISSION: "permission-denied", INPUT_OUTPUT: "input-output", REFUSED: "refused"}

BANNER = "Wrapper low-level driver"  # begins the library's line on opening


def pattern(seed, sectors):
    """Sectors that all differ, also from those of any other seed."""
    return b"".join(
        f"{seed} {i:9}\n".encode().ljust(SECTOR, bytes([i % 251])) for i in range(sectors)
    )


class CardtoolTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="cardtool-test-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.image = self.folder / "card.img"
        self.content = pattern("card", SECTORS)
        self.image.write_bytes(self.content)

    def path(self, name):
        return str(self.folder / name)

    def file(self, name, content):
        path = self.folder / name
        path.write_bytes(content)
        return str(path)

    def description(self, card=None, faults=(), name="cards.json"):
        card = {"driver": "ricoh-sd", "image": "card.img", **(card or {})}
        text = json.dumps({"cards": [card], "faults": list(faults)})
        return self.file(name, text.encode())

    def run_tool(self, *arguments, stdin=b"", stdout=subprocess.PIPE, **options):
        """Run without a terminal, so that questions go to standard input."""
        return subprocess.run(
            [*TOOL, *arguments],
            input=stdin,
            stdout=stdout,
            stderr=subprocess.PIPE,
            start_new_session=True,
            timeout=TIMEOUT,
            check=False,
            **options,
        )

    def on_card(self, *arguments, sim=None, **options):
        return self.run_tool("--sim", sim or str(self.image), *arguments, **options)

    def succeed(self, result):
        self.assertEqual(result.returncode, OK, result.stderr.decode(errors="replace"))
        self.assertNotIn(b"cardtool:", result.stderr)
        return result.stdout

    def fail_with(self, code, result, *texts):
        """A failure says what went wrong in one line and what to do in another."""
        errors = result.stderr.decode(errors="replace")
        self.assertEqual(result.returncode, code, errors)
        lines = [line for line in errors.splitlines() if line.startswith("cardtool: ")]
        self.assertEqual(len(lines), 2, errors)
        self.assertEqual(errors.splitlines()[-2:], lines)
        for text in texts:
            self.assertIn(text, lines[0])
        return lines

    def assert_card_unchanged(self):
        self.assertTrue(self.image.read_bytes() == self.content, "the card's sectors changed")


def no_repeated_key(pairs):
    document = dict(pairs)
    if len(document) != len(pairs):
        raise ValueError("a key stands twice")
    return document


class JsonTest(CardtoolTest):
    """One valid document on standard output, whatever happens."""

    CID = "02544d534131364743001af44c0129e9"
    CSD = "400e00325b590000734f7f800a40001b"

    def document(self, *arguments, code=OK, sim=None, plain=False, **options):
        run = self.run_tool if plain else self.on_card
        extra = {} if plain else {"sim": sim}
        result = run("--json", *arguments, **extra, **options)
        self.assertEqual(result.returncode, code, result.stderr)
        text = result.stdout.decode("ascii")
        self.assertTrue(text.endswith("}\n"))
        self.assertFalse(set(text) & set(map(chr, range(32))) - {"\n"}, "control characters")
        document = json.loads(text, object_pairs_hook=no_repeated_key)
        jsonschema.Draft202012Validator(SCHEMA).validate(document)
        self.assertEqual(document["ok"], code == OK)
        if code != OK:
            self.assertEqual(document["error"]["code"], code)
            self.assertEqual(document["error"]["name"], NAMES[code])
            lines = self.fail_with(code, result)
            self.assertEqual(lines, ["cardtool: " + document["error"]["message"],
                                     "cardtool: " + document["error"]["hint"]])
        return document

    def test_the_schema_is_one_and_refuses(self):
        jsonschema.Draft202012Validator.check_schema(SCHEMA)
        good = self.document("size", DEVICE)
        for wrong in ({**good, "more": 1}, {**good, "ok": False}, {**good, "command": "detect"},
                      {**good, "result": None}, {**good, "result": {"size_sectors": "1000"}}):
            with self.assertRaises(jsonschema.ValidationError):
                jsonschema.Draft202012Validator(SCHEMA).validate(wrong)

    def test_queries(self):
        self.assertEqual(self.document("size", DEVICE)["result"],
                         {"size_sectors": 1000, "size_bytes": 512000})
        document = self.document("detect", DEVICE)
        self.assertEqual(document["result"], {"back_end": "Ricoh SD", "unit": 0})
        self.assertEqual(document["device"], DEVICE)
        self.assertTrue(document["simulated"])
        self.assertEqual(self.document("status", DEVICE)["result"],
                         {"status": 0x8000, "ready": True, "write_protected": False})
        protected = self.description({"write_protected": True})
        self.assertEqual(self.document("write-protect", DEVICE, sim=protected)["result"],
                         {"write_protected": True})
        self.assertEqual(self.document("format-params", "15523840", plain=True)["result"],
                         {"capacity_sectors": 15523840, "capacity_bytes": 15523840 * 512,
                          "file_system": "FAT32", "partition_start": 8192, "data_start": 16384,
                          "root_directory_sectors": 32})

    def test_list(self):
        sim = self.file("all.json", json.dumps({"cards": [
            {"driver": "ricoh-sd", "image": "card.img"},
            {"driver": "zel", "unit": 2, "image": "card.img"},
            {"driver": "mivo", "unit": 1, "image": "card.img"}]}).encode())
        self.assertEqual(self.document("list", sim=sim)["result"]["nodes"], [
            {"device": "/dev/sdcarda", "back_end": "Ricoh SD", "unit": 0},
            {"device": "/dev/spdc", "back_end": "Zel", "unit": 2},
            {"device": "/dev/mivosdif1", "back_end": "Mivo", "unit": 1}])
        self.assertEqual(self.succeed(self.on_card("list")), b"/dev/sdcarda: Ricoh SD, unit 0\n")

    def test_list_of_this_machine(self):
        """Whatever its /dev holds: no line about what is no card, and no node twice."""
        result = self.run_tool("list")
        self.succeed(result)
        self.assertEqual(result.stderr, b"")
        nodes = self.document("list", plain=True)["result"]["nodes"]
        shown = [node["device"] for node in nodes]
        self.assertEqual(len(shown), len(set(shown)))
        for device in shown:
            mode = os.stat(device).st_mode
            self.assertTrue(stat.S_ISBLK(mode) or stat.S_ISCHR(mode), device)
        self.assertEqual(self.on_card("list").stderr, b"")

    def test_info(self):
        sim = self.description({"cid": self.CID, "csd": self.CSD})
        result = self.document("info", DEVICE, sim=sim)["result"]
        self.assertEqual(result["cid"]["crc7"], "valid")
        self.assertEqual(result["cid"]["fields"]["PNM"],
                         {"bits": "103:64", "raw": 0x5341313647, "value": "SA16G", "unit": None})
        self.assertEqual(result["csd"]["capacity_bytes"], 30228480 * 512)
        self.assertIsNone(result["scr"])
        self.assertIsNone(result["speed"])

    def test_info_of_a_back_end_that_leaves_a_byte_out(self):
        sim = self.description({"driver": "zel", "unit": 1, "cid": self.CID})
        result = self.document("info", "/dev/spdb", sim=sim)["result"]
        self.assertEqual(result["cid"]["raw"], self.CID[:30])
        self.assertEqual(result["cid"]["crc7"], "not-delivered")
        self.assertIsNone(result["cid"]["fields"]["CRC7"]["raw"])
        # Five bytes that nobody but the driver can explain.
        speed = result["speed"]
        self.assertEqual(len(speed["raw"]), 64)
        self.assertEqual(list(speed["fields"]), [f"BYTE_{i}" for i in range(5)])
        self.assertEqual(speed["fields"]["BYTE_0"], {
            "bits": "255:248", "raw": int(speed["raw"][:2], 16), "value": None, "unit": None})
        self.assertGreater(speed["fields"]["BYTE_0"]["raw"], 0)

    def test_info_has_the_speed_record_in_fields(self):
        # Video speed class 30 with 8 MiB units; class 10, and 512 KiB units without video.
        video = 4 << 440 | 6 << 428 | 30 << 384 | 8 << 368
        for status, expected in ((video, {"VIDEO_SPEED_CLASS": (30, 30, "class"),
                                          "AU_SIZE": (10, 8 << 20, "bytes")}),
                                 (4 << 440 | 6 << 428, {"VIDEO_SPEED_CLASS": (0, 0, "class"),
                                                        "AU_SIZE": (6, 512 << 10, "bytes")}),
                                 (4 << 440, {"AU_SIZE": (0, None, "bytes")})):
            sim = self.description({"driver": "mivo", "unit": 1,
                                    "sd_status": status.to_bytes(64, "big").hex()})
            speed = self.document("info", "/dev/mivosdif1", sim=sim)["result"]["speed"]
            for name, found in expected.items():
                field = speed["fields"][name]
                self.assertEqual((field["raw"], field["value"], field["unit"]), found)
        raw, fields = bytes.fromhex(speed["raw"]), speed["fields"]
        self.assertEqual(fields["BYTE_2"], {"bits": "239:232", "raw": raw[2], "value": None,
                                            "unit": None})
        self.assertEqual(raw[2], 4)
        text = self.succeed(self.on_card("info", "--fields", "/dev/mivosdif1", sim=sim)).decode()
        self.assertRegex(text, r"BYTE_2 +239:232 +4  \(not defined or not known\)")
        self.assertRegex(text, r"(?s)speed record: .*VIDEO_SPEED_CLASS +255:248 +0  = 0 class")

    def test_what_could_not_be_had_is_null(self):
        sim = self.description(faults=[{"call": "ioctl", "request": "0x400178fe", "errno": "EIO"}])
        document = self.document("info", DEVICE, sim=sim, code=INPUT_OUTPUT)
        self.assertIsNone(document["result"]["cid"])
        self.assertEqual(document["result"]["size_bytes"], 512000)
        sim = self.description({"cid": "0" * 32})
        self.assertIsNone(self.document("info", DEVICE, sim=sim)["result"]["cid"])

    def test_no_card_and_no_path_drives_the_terminal(self):
        sim = self.description({"cid": "001b631b5d30075c43001af44c012900"})
        fields = self.document("info", DEVICE, sim=sim)["result"]["cid"]["fields"]
        self.assertEqual(fields["OID"]["value"], "\\x1bc")
        self.assertEqual(fields["PNM"]["value"], "\\x1b]0\\x07\\x5c")
        result = self.on_card("--json", "size", b"/dev/\x1bc\xff\x9b")
        self.assertEqual(result.returncode, NO_DEVICE)
        self.assertNotIn(b"\x1b", result.stdout)
        self.assertEqual(json.loads(result.stdout)["device"], "/dev/\x1bc\ufffd\ufffd")
        said = [line for line in result.stderr.split(b"\n") if line.startswith(b"cardtool: ")]
        self.assertNotIn(b"\x1b", b"".join(said))

    def test_every_failure_of_every_call(self):
        commands = (["detect", DEVICE], ["info", DEVICE], ["size", DEVICE], ["status", DEVICE],
                    ["write-protect", DEVICE], ["format-params", DEVICE], ["rt", DEVICE],
                    ["read", DEVICE, "-o", self.path("out")],
                    ["write", DEVICE, "--yes", "-i", self.file("in", bytes(SECTOR))])
        ended = set()
        for call in ("stat", "open", "close", "seek", "read", "write", "ioctl"):
            for errno in ("EIO", "EACCES", "ENXIO"):
                sim = self.description(
                    faults=[{"call": call, "node": DEVICE, "errno": errno, "times": 99}])
                for command in commands:
                    with self.subTest(f"{call} {errno}: {command[0]}"):
                        code = self.on_card(*command, sim=sim).returncode
                        self.document(*command, sim=sim, code=code)
                        ended.add(code)
        self.assertEqual(ended, {OK, NO_DEVICE, PERMISSION, INPUT_OUTPUT})

    def test_errors_of_the_command_line(self):
        for arguments in ([], ["erase"], ["size"], ["read", DEVICE], ["size", DEVICE, "--x"]):
            document = self.document(*arguments, code=USAGE, plain=True)
            self.assertIsNone(document["command"])
        self.document("detect", "/dev/null", code=NOT_A_CARD, plain=True)
        self.document("decode", code=USAGE, plain=True)
        self.document("decode", "--cid", "00", code=USAGE, plain=True)
        self.document("write", DEVICE, "-i", str(self.image), code=REFUSED)
        self.assert_card_unchanged()

    def test_data_and_a_document_do_not_share_standard_output(self):
        self.document("read", DEVICE, "-o", "-", code=USAGE)

    def test_transfers(self):
        result = self.document("read", DEVICE, "-o", self.path("out"), "--first", "10")["result"]
        self.assertEqual(result, {"first": 10, "sectors": 990, "bytes": 990 * SECTOR,
                                  "moved_bytes": 990 * SECTOR, "verified": False})
        source = self.file("in", pattern("new", 3))
        result = self.document("write", DEVICE, "--yes", "-i", source)["result"]
        self.assertEqual(result, {"first": 0, "sectors": 3, "bytes": 3 * SECTOR,
                                  "moved_bytes": 3 * SECTOR, "verified": True})
        result = self.document("verify", DEVICE, "-i", source)["result"]
        self.assertTrue(result["verified"])
        result = self.document("verify", DEVICE, "-i", source, "--first", "1",
                               code=MISMATCH)["result"]
        self.assertFalse(result["verified"])
        self.document("backup", DEVICE, "-o", self.path("whole"))
        self.document("restore", DEVICE, "-i", self.path("whole"), "--yes")

    def test_a_transfer_that_stops_says_how_far_it_came(self):
        sim = self.description(faults=[{"call": "read", "first": 3, "errno": "EIO"}])
        result = self.document("backup", DEVICE, "-o", self.path("out"), sim=sim,
                               code=INPUT_OUTPUT)["result"]
        self.assertEqual(result["moved_bytes"], 512 * SECTOR)
        self.assertFalse(result["verified"])

    def test_decode(self):
        result = self.document("decode", "--csd", "400e00325b590001dcff7f800a4040f1", "--cid",
                               "1b534d474638533530d8466363a16700", "--scr", "0235800100000000",
                               plain=True)["result"]
        self.assertEqual(result["csd"]["capacity_bytes"], 125042688 * 512)
        self.assertEqual(result["csd"]["crc7"], "valid")
        self.assertEqual(result["cid"]["crc7"], "absent")
        self.assertEqual(result["scr"]["layer_version"], "3.0x")
        self.assertIsNone(result["sd_status"])
        fields = result["csd"]["fields"]
        self.assertEqual(fields["TRAN_SPEED"]["value"], 25_000_000)
        self.assertEqual(fields["TAAC"]["value"], 10**9)  # 1 ms in ps
        self.assertEqual(fields["READ_BL_LEN"], {"bits": "83:80", "raw": 9, "value": 512,
                                                 "unit": "bytes"})

    def test_decode_of_the_first_version(self):
        # READ_BL_LEN 10, C_SIZE EAFh, C_SIZE_MULT 7.
        csd = (10 << 80 | 0xEAF << 62 | 7 << 47 | 0x5A << 96).to_bytes(16, "big").hex()
        result = self.document("decode", "--csd", csd, plain=True)["result"]["csd"]
        self.assertEqual(result["version"], 1)
        self.assertEqual(result["capacity_bytes"], 1_971_322_880)
        self.assertEqual(result["fields"]["TRAN_SPEED"]["value"], 50_000_000)
        self.assertEqual(result["fields"]["VDD_R_CURR_MIN"]["value"], 500)

    def test_decode_of_an_sd_status(self):
        value = (2 << 510 | 4 << 440 | 9 << 428 | 5 << 408 | 3 << 396 | 30 << 384 | 1 << 336
                 | 1 << 313).to_bytes(64, "big").hex()
        fields = self.document("decode", "--sd-status", value, plain=True)["result"]["sd_status"][
            "fields"]
        self.assertEqual({name: fields[name]["value"] for name in (
            "DAT_BUS_WIDTH", "SPEED_CLASS", "AU_SIZE", "ERASE_SIZE", "UHS_SPEED_GRADE",
            "VIDEO_SPEED_CLASS", "APP_PERF_CLASS", "DISCARD_SUPPORT", "FULE_SUPPORT")}, {
            "DAT_BUS_WIDTH": 4, "SPEED_CLASS": 10, "AU_SIZE": 4 << 20, "ERASE_SIZE": 5,
            "UHS_SPEED_GRADE": 30, "VIDEO_SPEED_CLASS": 30, "APP_PERF_CLASS": "A1",
            "DISCARD_SUPPORT": True, "FULE_SUPPORT": False})

    def test_bench(self):
        sim = self.description({"driver": "zel", "unit": 0})
        for command in (["bench", "/dev/spda"], ["bench", "/dev/spda", "--direct"]):
            result = self.document(*command, "--count", "600", sim=sim)["result"]
            self.assertEqual(result["bytes"], 600 * SECTOR)
            self.assertEqual(result["direct"], "--direct" in command)
            self.assertGreater(result["bytes_per_second"], 0)
            self.assertLessEqual(result["request_median_us"], result["request_longest_us"])
        sim = self.description(faults=[{"call": "read", "errno": "EIO", "first": 2}])
        self.document("bench", DEVICE, sim=sim, code=INPUT_OUTPUT)
        self.assert_card_unchanged()

    def test_watch_refuses(self):
        sim = self.description({"driver": "zel", "unit": 0})
        self.document("watch", DEVICE, code=INPUT_OUTPUT)
        self.document("watch", "/dev/spda", "--interval", "60001", sim=sim, code=USAGE)

    def test_real_time_control(self):
        sim = self.description({"driver": "zel", "unit": 0})
        before = self.document("rt", "/dev/spda", sim=sim)["result"]
        locked = self.document("rt", "/dev/spda", "--set", "lock", sim=sim)["result"]
        self.assertEqual(before["set"], None)
        self.assertEqual(locked["set"], "lock")
        self.assertIsInstance(before["status"], int)
        self.assertIsNone(self.document("rt", DEVICE)["result"]["status"])
        self.document("rt", DEVICE, "--set", "lock", code=INPUT_OUTPUT)

    def test_card_commands(self):
        sim = self.description({"driver": "zel", "unit": 0})
        command = ["ioctl", "/dev/spda", "--command", "3"]
        self.document(*command, sim=sim, code=REFUSED)
        self.assertEqual(self.document(*command, "--argument", "7", "--yes", sim=sim)["result"],
                         {"command": 3, "argument": 7})
        self.document("ioctl", "/dev/spda", "--command", "5", "--yes", sim=sim, code=USAGE)
        self.document("ioctl", DEVICE, "--command", "2", "--yes", code=INPUT_OUTPUT)


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


class HelpTest(CardtoolTest):
    def test_help_has_examples_and_every_exit_code(self):
        text = self.succeed(self.run_tool("--help")).decode()
        for command in ("detect", "info", "size", "status", "format-params", "read", "write"):
            self.assertRegex(text, rf"(?m)^  {command} ")
        self.assertIn("cardtool read /dev/sdcarda", text)
        self.assertIn("standard error", text)
        for code in (0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 141):
            self.assertRegex(text, rf"(?m)^ *{code}  \w")

    def test_help_of_a_command(self):
        text = self.succeed(self.run_tool("read", "--help")).decode()
        for option in ("--first", "--count", "-o,--output"):
            self.assertIn(option, text)

    def test_version(self):
        self.assertRegex(self.succeed(self.run_tool("--version")), rb"^cardtool \d+\.\d+\.\d+\n$")


class GeneratedTest(CardtoolTest):
    """The manual page and the completions come from the parser's own table."""

    def generated(self, kind):
        return self.succeed(self.run_tool("--generate", kind)).decode()

    def commands(self):
        """Names of commands, and of each one's options, as --help shows them."""
        text = self.succeed(self.run_tool("--help")).decode()
        listed = text.split("Subcommands:")[1].split("Examples:")[0]
        names = re.findall(r"(?m)^  ([a-z][a-z-]+)  ", listed)
        self.assertGreater(len(names), 6)
        found = {}
        for name in names:
            own = self.succeed(self.run_tool(name, "--help")).decode().split("Examples:")[0]
            found[name] = set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", own)) - {"--help"}
        return found

    def test_manual_page_has_the_projects_date(self):
        lists = (pathlib.Path(__file__).parents[2] / "CMakeLists.txt").read_text()
        date = re.search(r'set\(CARDDEV_DATE "(.*?)"\)', lists).group(1)
        self.assertIn(f"\n.Dd {date}\n", self.generated("man"))

    def test_manual_page(self):
        page = self.file("cardtool.1", self.generated("man").encode())
        lint = subprocess.run(["mandoc", "-T", "lint", page], capture_output=True, text=True,
                              check=False)
        # The other pages need not be installed where this runs.
        self.assertEqual([line for line in lint.stdout.splitlines()
                          if "referenced manual not found" not in line], [])
        shown = subprocess.run(["mandoc", "-T", "ascii", page], capture_output=True, text=True,
                               check=True).stdout
        shown = re.sub(".\b", "", shown)  # bold is a letter struck twice
        for name, options in self.commands().items():
            self.assertRegex(shown, rf"(?m)^ +{name}( |$)")
            for option in options:
                self.assertIn(option, shown)

    def complete(self, script, *words):
        """What bash would offer for the last word."""
        line = (f"source {shlex.quote(script)}; COMP_WORDS=(cardtool {shlex.join(words)}); "
                'COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _cardtool; printf "%s\\n" "${COMPREPLY[@]}"')
        got = subprocess.run(["bash", "-c", line], capture_output=True, text=True, check=True)
        self.assertEqual(got.stderr, "")
        return set(got.stdout.split())

    def test_bash(self):
        script = self.file("cardtool.bash", self.generated("bash").encode())
        commands = self.commands()
        self.assertLessEqual(set(commands), self.complete(script, ""))
        self.assertEqual(self.complete(script, "form"), {"format-params"})
        for name, options in commands.items():
            self.assertLessEqual(options, self.complete(script, name, "-"))
        self.assertNotIn("--first", self.complete(script, "size", "-"))
        self.assertEqual(self.complete(script, "read", "--count", ""), set())
        self.assertEqual(self.complete(script, "read", "-o", self.path("card.i")), {str(self.image)})

    def test_zsh_and_fish(self):
        for kind in ("zsh", "fish"):
            script = self.generated(kind)
            path = self.file(kind, script.encode())
            subprocess.run([kind, "-n", path], check=True)
            for name, options in self.commands().items():
                self.assertIn(name, script)
                for option in options:
                    self.assertIn(f"-l {option[2:]} " if kind == "fish" else f"{option}[", script)

    def test_other_kinds_are_not_known(self):
        self.fail_with(USAGE, self.run_tool("--generate", "tcsh"))


class UsageTest(CardtoolTest):
    def test_what_cannot_be_understood(self):
        for arguments in (
            [],
            ["erase", DEVICE],
            ["size"],
            ["size", DEVICE, "more"],
            ["size", DEVICE, "--first", "1"],
            ["read", DEVICE],
            ["write", DEVICE],
            ["read", DEVICE, "-o"],
            ["read", DEVICE, "-o", "-", "--nonsense"],
        ):
            with self.subTest(arguments):
                result = self.on_card(*arguments)
                self.fail_with(USAGE, result)
                self.assertEqual(result.stdout, b"")

    def test_numbers_are_taken_strictly(self):
        for number in ("-1", "+1", "1.5", "1k", "0x10", " 1", "", "4294967296", "9" * 20):
            for option in ("--first", "--count"):
                with self.subTest(f"{option} {number!r}"):
                    result = self.on_card("read", DEVICE, "-o", "-", option, number)
                    self.fail_with(USAGE, result)
                    self.assertEqual(result.stdout, b"")

    def test_a_leading_zero_is_no_octal_number(self):
        result = self.on_card("read", DEVICE, "-o", "-", "--first", "010", "--count", "01")
        self.assertEqual(self.succeed(result), self.content[10 * SECTOR : 11 * SECTOR])

    def test_a_path_that_is_too_long(self):
        self.fail_with(USAGE, self.on_card("size", "/dev/" + "x" * 251))


class DetectTest(CardtoolTest):
    def test_names_the_back_end(self):
        result = self.on_card("detect", DEVICE)
        self.assertEqual(self.succeed(result), b"/dev/sdcarda: Ricoh SD, unit 0\n")
        self.assertEqual(result.stderr, b"")

    def test_no_such_device(self):
        for command in ("detect", "info", "size", "status"):
            self.fail_with(NO_DEVICE, self.on_card(command, "/dev/none"), "/dev/none")
        self.fail_with(NO_DEVICE, self.on_card("read", "/dev/none", "-o", "-"), "/dev/none")
        self.fail_with(NO_DEVICE, self.run_tool("detect", self.path("none")), "none")
        self.fail_with(NO_DEVICE, self.run_tool("detect", str(self.image) + "/below"))

    def test_what_is_no_card(self):
        for path in (str(self.image), str(self.folder)):
            self.fail_with(NOT_A_CARD, self.run_tool("detect", path), path, "not a device")
        self.fail_with(NOT_A_CARD, self.run_tool("detect", "/dev/null"), "/dev/null", "no back-end")
        self.fail_with(NOT_A_CARD, self.run_tool("info", "/dev/null"), "/dev/null")

    def test_permission_denied(self):
        for call in ("stat", "open"):
            for errno in ("EACCES", "EPERM"):
                with self.subTest(f"{call} {errno}"):
                    sim = self.description(faults=[{"call": call, "errno": errno}])
                    self.fail_with(PERMISSION, self.on_card("size", DEVICE, sim=sim), DEVICE)

    def test_an_empty_slot(self):
        # Out of the slot when the tool has looked at the node's numbers; the other host
        # has no slot to take a card from.
        slot = {"call": "stat", "eject": "/dev/spda"}
        none = {"call": "open", "errno": "ENOMEDIUM"}
        for card, fault, node in (({"driver": "zel", "unit": 0}, slot, "/dev/spda"),
                                  ({}, none, DEVICE)):
            with self.subTest(node):
                sim = self.description(card, [fault])
                lines = self.fail_with(NO_DEVICE, self.on_card("size", node, sim=sim),
                                       "cannot open " + node, "No medium found")
                self.assertEqual(lines[1], "cardtool: put a card in and try again")

    def test_other_failures_to_open(self):
        for errno, code in (("ENXIO", NO_DEVICE), ("ENODEV", NO_DEVICE), ("EIO", INPUT_OUTPUT)):
            with self.subTest(errno):
                sim = self.description(faults=[{"call": "open", "errno": errno}])
                self.fail_with(code, self.on_card("size", DEVICE, sim=sim), "cannot open")


class QueryTest(CardtoolTest):
    def test_size(self):
        for arguments in (["--sim", str(self.image), "size", DEVICE],
                          ["size", "--sim", str(self.image), DEVICE],
                          ["size", DEVICE, "--sim=" + str(self.image)]):
            result = self.run_tool(*arguments)
            self.assertEqual(self.succeed(result), b"1000 sectors, 512000 bytes\n")
            # The library did speak, and elsewhere.
            self.assertIn(BANNER, result.stderr.decode())

    def test_size_of_a_large_card(self):
        with open(self.image, "wb") as image:
            image.truncate(5 << 30)
        self.assertEqual(self.succeed(self.on_card("size", DEVICE)),
                         b"10485760 sectors, 5368709120 bytes\n")

    def test_size_that_cannot_be_had(self):
        sim = self.description(faults=[{"call": "ioctl", "errno": "EIO"}])
        for command in (["size"], ["read", "-o", "-"], ["write", "-i", str(self.image), "--yes"]):
            result = self.on_card(*command, DEVICE, sim=sim)
            self.fail_with(INPUT_OUTPUT, result, "size", "Input/output error")
            self.assertEqual(result.stdout, b"")
        self.assert_card_unchanged()

    def test_status(self):
        result = self.on_card("status", DEVICE)
        self.assertEqual(
            self.succeed(result).decode().split("\n"),
            ["status word:        0x8000 (ready)", "write protection:   off", ""])
        protected = self.on_card("status", DEVICE, sim=self.description({"write_protected": True}))
        self.assertIn(b"write protection:   on\n", self.succeed(protected))

    def info(self, card=None):
        text = self.succeed(self.on_card("info", DEVICE, sim=self.description(card))).decode()
        self.assertTrue(text.isascii() and text.replace("\n", "").isprintable(), repr(text))
        return text

    def test_info(self):
        text = self.info({
            "cid": "02544d534131364743001af44c0129e9",
            "csd": "400e00325b590000734f7f800a40001b",
            "sd_status": "".join(f"{i:02x}" for i in range(64)),
        })
        self.assertEqual(text, """\
device:             /dev/sdcarda
back-end:           Ricoh SD, unit 0
size:               1000 sectors, 512000 bytes
write protection:   off
CID:                02544d534131364743001af44c0129e9
  manufacturer:     0x02
  OEM:              TM
  product:          SA16G
  revision:         4.3
  serial:           0x001af44c
  made:             2018-09
  CRC7:             valid
CSD:                400e00325b590000734f7f800a40001b
  version:          2
  capacity:         30228480 sectors, 15476981760 bytes
  CRC7:             valid
SD status:          000102030405060708090a0b0c0d0e0f
                    101112131415161718191a1b1c1d1e1f
                    202122232425262728292a2b2c2d2e2f
                    303132333435363738393a3b3c3d3e3f
""")

    def test_info_with_every_field(self):
        sim = self.description({"cid": "02544d534131364743001af44c0129e9"})
        text = self.succeed(self.on_card("info", DEVICE, "--fields", sim=sim)).decode()
        self.assertRegex(text, r"(?m)^  PRV +63:56 +67  = 4\.3$")
        self.assertRegex(text, r"(?m)^  READ_BL_LEN +83:80 +9  = 512 bytes$")
        self.assertRegex(text, r"(?m)^  AU_SIZE +431:428 ")

    def test_info_of_other_registers(self):
        text = self.info({"cid": "1b534d474638533530d8466363a16700",
                          "csd": "400e00325b590000734f7f800a40001d"})
        self.assertIn("  CRC7:             absent", text)
        self.assertIn("  CRC7:             mismatching", text)
        text = self.info({"cid": "0" * 32, "csd": "c00000000000003fffff0000000000d7"})
        self.assertIn("CID:                empty", text)
        self.assertIn("  capacity:         not known", text)
        self.assertIn("  version:          4", text)

    def test_info_lets_no_card_drive_the_terminal(self):
        # ESC c, and ESC ] 0 BEL backslash: would reset a terminal and set its title.
        text = self.info({"cid": "001b631b5d30075c43001af44c012900"})
        self.assertIn("  OEM:              \\x1bc\n", text)
        self.assertIn("  product:          \\x1b]0\\x07\\x5c\n", text)

    def test_info_shows_what_it_can_get(self):
        sim = self.description(faults=[{"call": "ioctl", "request": "0x400178fe", "errno": "EIO"}])
        result = self.on_card("info", DEVICE, sim=sim)
        self.fail_with(INPUT_OUTPUT, result, "registers", "Input/output error")
        self.assertIn(b"size:               1000 sectors", result.stdout)
        self.assertIn(b"SD status:", result.stdout)
        self.assertNotIn(b"CID", result.stdout)

    def test_results_that_cannot_be_written(self):
        with open("/dev/full", "wb") as full:
            result = self.on_card("info", DEVICE, stdout=full)
        self.fail_with(INPUT_OUTPUT, result, "standard output", "No space left")


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


class SimulationTest(CardtoolTest):
    def test_descriptions_that_cannot_be_used(self):
        good = {"driver": "ricoh-sd", "image": "card.img"}
        for what, text, hint in (
            ("no JSON", b"{", "parse error"),
            ("empty", b"", "parse error"),
            ("no cards", b"{}", "cards"),
            ("misspelt key", json.dumps({"cards": [{**good, "imgae": "x"}]}).encode(), "imgae"),
            ("misspelt top key", json.dumps({"cards": [good], "fualts": []}).encode(), "fualts"),
            ("image not there", json.dumps({"cards": [{**good, "image": "none.img"}]}).encode(),
             "none.img"),
            ("unknown driver", json.dumps({"cards": [{**good, "driver": "x"}]}).encode(), "x"),
            ("short register", json.dumps({"cards": [{**good, "cid": "00"}]}).encode(), "cid"),
            ("unknown errno", json.dumps({"cards": [good], "faults": [
                {"call": "read", "errno": "EWHAT"}]}).encode(), "EWHAT"),
        ):
            with self.subTest(what):
                sim = self.file("bad.json", text)
                result = self.on_card("size", DEVICE, sim=sim)
                self.fail_with(USAGE, result, sim, hint)
                self.assertEqual(result.stdout, b"")

    def test_images_that_cannot_be_used(self):
        for name, content in (("odd.img", bytes(700)), ("empty.img", b"")):
            sim = self.file(name, content)
            self.fail_with(USAGE, self.on_card("size", DEVICE, sim=sim), sim)
        for sim in (self.path("none.img"), self.path("none.json"), str(self.folder)):
            self.fail_with(USAGE, self.on_card("size", DEVICE, sim=sim), sim)

    def test_image_beside_the_description(self):
        self.description()
        result = self.run_tool("--sim", "cards.json", "size", DEVICE, cwd=self.folder)
        self.assertEqual(self.succeed(result), b"1000 sectors, 512000 bytes\n")
        elsewhere = self.folder / "elsewhere"
        elsewhere.mkdir()
        shutil.copy(self.folder / "cards.json", elsewhere)
        sim = str(elsewhere / "cards.json")
        self.fail_with(USAGE, self.on_card("size", DEVICE, sim=sim), "card.img")

    def test_without_a_simulation_there_is_no_card(self):
        # A machine where this file exists has a card of its own: leave it alone.
        if os.path.exists(DEVICE):
            self.skipTest("this machine has such a card")
        self.fail_with(NO_DEVICE, self.run_tool("size", DEVICE), DEVICE)


class SlotTest(CardtoolTest):
    """A card in a slot that offers direct transfers and notices an eject."""

    NODE = "/dev/spdb"

    def slot(self, *faults):
        return self.description({"driver": "zel", "unit": 1}, faults)

    def test_info(self):
        text = self.succeed(self.on_card("info", self.NODE, sim=self.slot())).decode()
        self.assertRegex(text, r"back-end: +Zel, unit 1")
        self.assertRegex(text, r"size: +1000 sectors")

    def test_reads_the_whole_card_directly(self):
        copy = self.path("copy.img")
        self.succeed(self.on_card("read", self.NODE, "--direct", "-o", copy, sim=self.slot()))
        self.assertTrue(pathlib.Path(copy).read_bytes() == self.content)

    def test_writes_directly_just_what_it_was_told(self):
        new = pattern("new", 300)
        arguments = ["-i", self.file("new", new), "--first", "101", "--direct", "--yes"]
        self.succeed(self.on_card("write", self.NODE, *arguments, sim=self.slot()))
        expected = self.content[: 101 * SECTOR] + new + self.content[401 * SECTOR :]
        self.assertTrue(self.image.read_bytes() == expected)

    def test_a_busy_card_recovers_with_warnings(self):
        busy = {"call": "ioctl", "request": "0x2000700d", "times": 9, "errno": "EBUSY"}
        arguments = ["read", self.NODE, "--direct", "--count", "5", "-o", "-"]
        result = self.on_card(*arguments, sim=self.slot(busy))
        self.assertTrue(self.succeed(result) == self.content[: 5 * SECTOR])
        self.assertEqual(result.stderr.count(b"(device Busy)"), 9)

    def test_a_card_that_stays_busy_ends_it(self):
        busy = {"call": "ioctl", "request": "0x2000700d", "times": 10, "errno": "EBUSY"}
        arguments = ["read", self.NODE, "--direct", "-o", self.path("out")]
        result = self.on_card(*arguments, sim=self.slot(busy))
        self.fail_with(BUSY, result, "after 0 of 1000 sectors", "busy")

    def test_an_eject_tells_how_far(self):
        eject = {"call": "ioctl", "request": "0x2000700d", "first": 2, "eject": self.NODE}
        arguments = ["read", self.NODE, "--direct", "-o", self.path("out")]
        result = self.on_card(*arguments, sim=self.slot(eject))
        lines = self.fail_with(REMOVED, result, "after 512 of 1000 sectors", "removed")
        self.assertIn("--first 512", lines[1])
        self.assertTrue(pathlib.Path(self.path("out")).read_bytes() == self.content[: 512 * SECTOR])

    def test_an_eject_that_breaks_the_transfer_counts_as_one(self):
        eject = {"call": "ioctl", "request": "0x2000700d", "first": 2, "eject": self.NODE}
        arguments = ["read", self.NODE, "--direct", "-o", self.path("out")]
        result = self.on_card(*arguments, sim=self.slot(eject | {"errno": "EIO"}))
        self.fail_with(REMOVED, result, "after 256 of 1000 sectors", "removed")

    def test_an_eject_after_the_last_write(self):
        eject = {"call": "write", "eject": self.NODE}
        arguments = ["-i", self.file("new", pattern("new", 9)), "--yes"]
        result = self.on_card("write", self.NODE, *arguments, sim=self.slot(eject))
        self.fail_with(REMOVED, result, "wrote 9 sectors", "could not compare", "removed")

    def test_an_eject_during_plain_reads_is_noticed_too(self):
        eject = {"call": "read", "first": 1, "eject": self.NODE}
        arguments = ["read", self.NODE, "-o", self.path("out")]
        result = self.on_card(*arguments, sim=self.slot(eject))
        self.fail_with(REMOVED, result, "after 256 of 1000 sectors", "removed")

    def test_a_host_without_direct_transfers_says_so(self):
        result = self.on_card("read", DEVICE, "--direct", "-o", self.path("out"))
        self.fail_with(INPUT_OUTPUT, result, "direct transfers", "does not offer")


class AdaptorTest(CardtoolTest):
    """A card in the adaptor, whose direct transfers count in sectors."""

    NODE = "/dev/mivosdif1"

    def adaptor(self, *faults):
        return self.description({"driver": "mivo", "unit": 1}, faults)

    def test_info(self):
        text = self.succeed(self.on_card("info", self.NODE, sim=self.adaptor())).decode()
        self.assertRegex(text, r"back-end: +Mivo, unit 1")
        self.assertRegex(text, r"CRC7: +valid")
        self.assertRegex(text, r"size: +1000 sectors")

    def test_direct_transfers_both_ways(self):
        new = pattern("new", 300)
        arguments = ["-i", self.file("new", new), "--first", "101", "--direct", "--yes"]
        self.succeed(self.on_card("write", self.NODE, *arguments, sim=self.adaptor()))
        expected = self.content[: 101 * SECTOR] + new + self.content[401 * SECTOR :]
        self.assertTrue(self.image.read_bytes() == expected)
        copy = self.path("copy.img")
        self.succeed(self.on_card("read", self.NODE, "--direct", "-o", copy, sim=self.adaptor()))
        self.assertTrue(pathlib.Path(copy).read_bytes() == expected)

    def test_an_eject_tells_how_far(self):
        eject = {"call": "ioctl", "request": "0xc010d324", "first": 2, "eject": self.NODE}
        arguments = ["read", self.NODE, "--direct", "-o", self.path("out")]
        result = self.on_card(*arguments, sim=self.adaptor(eject))
        self.fail_with(REMOVED, result, "after 512 of 1000 sectors", "removed")


class FormatParamsTest(CardtoolTest):
    def fields(self, *arguments):
        text = self.succeed(self.on_card("format-params", *arguments)).decode()
        return [line.split(":")[1].split()[:2] for line in text.splitlines()]

    def test_capacity(self):
        self.assertEqual(
            self.fields("15523840"),
            [
                ["15523840", "sectors,"],
                ["FAT32"],
                ["sector", "8192"],
                ["sector", "16384"],
                ["32", "sectors"],
            ],
        )
        self.assertEqual(self.fields("16384")[1:4], [["FAT12"], ["sector", "25"], ["sector", "64"]])
        self.assertEqual(self.fields("131072")[1], ["FAT16"])
        self.assertEqual(self.fields("67108865")[1], ["exFAT"])

    def test_card(self):
        self.assertEqual(self.fields(DEVICE), self.fields(str(SECTORS)))

    def test_no_layout(self):
        self.fail_with(USAGE, self.run_tool("format-params", "1073741825"), "1073741825 sectors")
        self.fail_with(USAGE, self.run_tool("format-params", "4294967296"), "4294967296")
        self.fail_with(NO_DEVICE, self.run_tool("format-params", "-5x"))



if __name__ == "__main__":
    unittest.main()
