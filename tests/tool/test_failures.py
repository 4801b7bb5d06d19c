#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What cardtool says of each call of its that fails."""

import unittest

from case import DEVICE, DocumentTest, INPUT_OUTPUT, NO_DEVICE, OK, PERMISSION, SECTOR


class FailureTest(DocumentTest):
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


if __name__ == "__main__":
    unittest.main()
