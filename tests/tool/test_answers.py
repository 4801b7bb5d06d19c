#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What cardtool says of itself, of nodes and of cards, on its output and in JSON."""

import json
import os
import pathlib
import re
import shlex
import shutil
import stat
import subprocess
import unittest

import jsonschema

from case import (BANNER, BUSY, CardtoolTest, DEVICE, DocumentTest, INPUT_OUTPUT, MISMATCH,
                  NOT_A_CARD, NO_DEVICE, PERMISSION, REFUSED, REMOVED, SCHEMA, SECTOR, SECTORS,
                  USAGE, pattern)


class JsonTest(DocumentTest):
    """One valid document on standard output, whatever happens."""

    CID = "02544d534131364743001af44c0129e9"
    CSD = "400e00325b590000734f7f800a40001b"

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
