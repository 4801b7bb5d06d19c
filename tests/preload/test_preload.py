#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Programs that know nothing of the stand-in, over cards that libcardsim simulates.

   test_preload.py LIBRARY PROGRAMS HEAP_CHECK [EMULATOR...]
"""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

LIBRARY, PROGRAMS, HEAP_CHECK, *EMULATOR = sys.argv[1:]
SECTOR = 512
SECTORS = 65536
BANNER = "Wrapper low-level driver for SD card-CardBus adaptor ver.0.1"


class Preload(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="carddev-preload-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.image = self.folder / "card.img"
        self.image.write_bytes(b"".join(i.to_bytes(4, "big") * 128 for i in range(SECTORS)))

    def description(self, *cards, faults=()):
        path = self.folder / "cards.json"
        path.write_text(json.dumps({"cards": [{"image": "card.img", **card} for card in cards],
                                    "faults": list(faults)}))
        return path

    def run_program(self, program, *arguments, config=None):
        environment = {"LD_PRELOAD": LIBRARY}
        if config is not None:
            environment["CARDSIM_CONFIG"] = str(config)
        command = [str(pathlib.Path(PROGRAMS, program)), *arguments]
        if EMULATOR:
            # To the program, not to the emulator.
            named = [word for pair in environment.items() for word in ("-E", "=".join(pair))]
            command = [EMULATOR[0], *named, *EMULATOR[1:], *command]
            environment = {}
        inherited = {name: value for name, value in os.environ.items() if name != "CARDSIM_CONFIG"}
        return subprocess.run(command, env={**inherited, **environment}, capture_output=True,
                              text=True, timeout=120, check=False)

    def succeed(self, program, *arguments, config):
        result = self.run_program(program, *arguments, config=config)
        self.assertEqual((0, ""), (result.returncode, result.stderr), result.stdout)
        banner, _, rest = result.stdout.partition("\n")
        self.assertIn(BANNER, banner)
        return rest

    def on_card(self, first, sectors):
        return self.image.read_bytes()[first * SECTOR : (first + sectors) * SECTOR]


ZEL = {"driver": "zel", "unit": 1}
MIVO = {"driver": "mivo", "unit": 1}
RICOH = {"driver": "ricoh-sd"}
NODES = (("/dev/sdcarda", RICOH), ("/dev/spdb", ZEL), ("/dev/mivosdif1", MIVO))

# What a direct write sends first.
SEQUENTIAL_WRITE = {"/dev/spdb": "0x20007018", "/dev/mivosdif1": "0x8010d32e"}


class Start(Preload):
    """Whatever is wrong, it is said before main runs."""

    def refused(self, config, what):
        before = self.image.read_bytes()
        # Without arguments, main would say how it is used.
        result = self.run_program("open_and_read", config=config)
        self.assertEqual(
            (2, "", f"libcardsim: {what}\nlibcardsim: CARDSIM_CONFIG names a card image, or a "
                    "description of cards (.json)\n"),
            (result.returncode, result.stdout, result.stderr))
        self.assertTrue(before == self.image.read_bytes())

    def test_without_a_configuration(self):
        self.refused(None, "CARDSIM_CONFIG is not set")
        self.refused("", "CARDSIM_CONFIG is not set")

    def test_with_a_wrong_one(self):
        none = self.folder / "none.img"
        self.refused(none, f"cannot open the card image {none}: No such file or directory")
        path = self.description({"driver": 7})
        self.refused(path, f'cannot use {path}: "driver" must be a string, not a number')
        path = self.description(ZEL, ZEL)
        self.refused(path, f"cannot use {path}: there are two cards for /dev/spdb")

    def test_with_a_good_one_main_runs(self):
        result = self.run_program("open_and_read", config=self.image)
        self.assertEqual((2, "usage: open_and_read NODE [SECTOR]\n"),
                         (result.returncode, result.stderr))


class Examples(Preload):
    def test_open_and_read(self):
        for node, card in NODES:
            for program in ("open_and_read", "open_and_read_cpp"):
                with self.subTest(f"{program} {node}"):
                    config = self.description(card)
                    self.assertEqual(f"{SECTORS} sectors, writable\n"
                                     f"sector 258:{' 00 00 01 02' * 4} ...\n",
                                     self.succeed(program, node, "258", config=config))
                    config = self.description({**card, "write_protected": True})
                    self.assertIn("sectors, protected\n",
                                  self.succeed(program, node, config=config))

    def test_open_and_read_an_image(self):
        self.assertIn(f"{SECTORS} sectors, writable\n",
                      self.succeed("open_and_read", "/dev/sdcarda", config=self.image))

    def test_open_and_read_fails(self):
        for node, card in NODES:
            for program in ("open_and_read", "open_and_read_cpp"):
                with self.subTest(f"{program} {node}"):
                    fault = {"call": "read", "node": node, "errno": "EIO"}
                    config = self.description(card, faults=[fault])
                    result = self.run_program(program, node, config=config)
                    self.assertEqual(1, result.returncode)
                    self.assertIn("read", result.stderr)
                    result = self.run_program(program, "/dev/spdf", config=config)
                    self.assertEqual(1, result.returncode)
                    self.assertIn("stat[/dev/spdf] failed : No such file", result.stdout)

    def test_scattered_write(self):
        expected = b"H" * 200 + b"B" * (3 * SECTOR - 200)
        for node, card in NODES[1:]:
            for at, program in ((100, "scattered_write"), (SECTORS - 3, "scattered_write_cpp")):
                with self.subTest(f"{program} {node}"):
                    self.setUp()
                    before = self.on_card(at - 1, 1)
                    self.assertEqual("written in two pieces\nread back in one\n",
                                     self.succeed(program, node, str(at),
                                                  config=self.description(card)))
                    self.assertEqual(before + expected, self.on_card(at - 1, 4))

    def test_scattered_write_is_retried(self):
        for node, card in NODES[1:]:
            for program in ("scattered_write", "scattered_write_cpp"):
                with self.subTest(f"{program} {node}"):
                    fault = {"call": "ioctl", "request": SEQUENTIAL_WRITE[node], "errno": "EIO"}
                    result = self.run_program(program, node, "100",
                                              config=self.description(card, faults=[fault]))
                    self.assertEqual((0, ""), (result.returncode, result.stderr))
                    self.assertIn("written in two pieces, at the second attempt\n", result.stdout)
                    self.assertIn(f":{'Zel' if 'spd' in node else 'Mivo'}_DrctWrite(",
                                  result.stdout)

    def test_scattered_write_is_not_offered(self):
        for program in ("scattered_write", "scattered_write_cpp"):
            result = self.run_program(program, "/dev/sdcarda", "5",
                                      config=self.description(RICOH))
            self.assertEqual(1, result.returncode)
            self.assertIn("write", result.stderr)
            self.assertIn("NOT supported DrctWrite method!", result.stdout)

    def test_survive_eject(self):
        undisturbed = self.succeed("survive_eject", "/dev/spdb", config=self.description(ZEL))
        for node, card in NODES[1:]:
            with self.subTest(node):
                faults = [{"call": "read", "node": node, "first": 700, "eject": node},
                          {"call": "open", "node": node, "first": 5, "insert": node}]
                result = self.run_program("survive_eject", node,
                                          config=self.description(card, faults=faults))
                self.assertEqual((0, ""), (result.returncode, result.stderr), result.stdout)
                self.assertIn("the card has gone at sector 5600\n", result.stdout)
                self.assertIn("the card is back\n", result.stdout)
                self.assertTrue(result.stdout.endswith(undisturbed), result.stdout)

                result = self.run_program("survive_eject", node,
                                          config=self.description(card, faults=faults[:1]))
                self.assertEqual((3, "the card did not come back\n"),
                                 (result.returncode, result.stderr))

    def test_survive_eject_tells_a_failure_from_an_eject(self):
        fault = {"call": "read", "first": 3, "errno": "EIO"}
        result = self.run_program("survive_eject", "/dev/spdb",
                                  config=self.description(ZEL, faults=[fault]))
        self.assertEqual((1, "sector 16 cannot be read\n"), (result.returncode, result.stderr))

    def test_format_plan(self):
        for node, card in NODES:
            with self.subTest(node):
                self.setUp()
                before = self.image.read_bytes()
                config = self.description(card)
                self.assertEqual("FAT12, partition at sector 51, data at sector 96\n",
                                 self.succeed("format_plan", node, config=config))
                self.assertTrue(before == self.image.read_bytes())
                self.succeed("format_plan", node, "--write", config=config)
                after = self.image.read_bytes()
                self.assertTrue(before[SECTOR:] == after[SECTOR:])
                self.assertEqual(b"\x55\xaa", after[510:512])
                self.assertEqual(1, after[450])
                self.assertEqual(51, int.from_bytes(after[454:458], "little"))
                self.assertEqual(SECTORS - 51, int.from_bytes(after[458:462], "little"))


class Memory(Preload):
    def test_is_within_the_drivers_reach(self):
        result = self.run_program(HEAP_CHECK, config=self.image)
        self.assertEqual((0, ""), (result.returncode, result.stderr))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
