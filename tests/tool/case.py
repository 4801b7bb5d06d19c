# SPDX-License-Identifier: MIT
"""What the tests of cardtool from outside share: a card, the tool, and how it ends.

The environment variable CARDTOOL holds the command to test, with an emulator in
front of it where one is needed.
"""

import json
import os
import pathlib
import shlex
import subprocess
import tempfile
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


class DocumentTest(CardtoolTest):
    """One valid document on standard output, whatever happens."""

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
