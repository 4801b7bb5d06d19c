#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The manual pages against the header, and against mandoc's idea of a page.

   check_man.py HEADER FOLDER DATE [MANDOC]
"""
import pathlib
import re
import subprocess
import sys
import unittest

HEADER, FOLDER, DATE, *MANDOC = sys.argv[1:]
PAGES = sorted(pathlib.Path(FOLDER).glob("*.[0-9]"))
OVERVIEWS = {"carddev", "cardsim"}  # the pages that are no function's


def squeezed(text):
    return re.sub(r"\s*\*\s*", " *", re.sub(r"\s+", " ", text)).strip()


def declared():
    """{function: (result, [parameters])} of the header."""
    with open(HEADER, encoding="utf-8") as file:
        text = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.S)
    found = {}
    for result, name, parameters in re.findall(
            r"^(\w[\w ]*[ *])((?:Dev|CARD_|Calc)\w+)\(([^)]*)\);", text, flags=re.M):
        found[name] = (squeezed(result), [squeezed(word) for word in parameters.split(",")])
    return found


def names(page):
    """What the page is about: the names of its NAME section."""
    section = page.read_text(encoding="utf-8").split(".Sh NAME\n")[1].split(".Sh ")[0]
    return re.findall(r"^\.Nm (\w+)", section, flags=re.M)


def synopsis(page):
    """{function: (result, [parameters])} of the SYNOPSIS section."""
    section = page.read_text(encoding="utf-8").split(".Sh SYNOPSIS\n")[1].split(".Sh ")[0]
    found = {}
    for result, name, parameters in re.findall(
            r"^\.Ft (.*)\n\.Fo (\w+)\n((?:\.Fa .*\n)*)\.Fc$", section, flags=re.M):
        found[name] = (squeezed(result), [squeezed(word) for word in
                                          re.findall(r'^\.Fa "(.*)"$', parameters, flags=re.M)])
    return found


class Pages(unittest.TestCase):
    def test_header_has_functions(self):
        self.assertIn("CARD_GetR1Status", declared())
        self.assertEqual(("int32_t", ["uint32_t capacity", "SdFormatParams *params"]),
                         declared()["CalcSdParams"])
        self.assertGreaterEqual(len(declared()), 28)

    def test_every_function_has_one_page(self):
        described = [name for page in PAGES for name in names(page)]
        self.assertEqual(sorted([*declared(), *OVERVIEWS]), sorted(described))

    def test_synopses_are_the_headers(self):
        written = {}
        for page in PAGES:
            functions = synopsis(page)
            if page.stem not in OVERVIEWS:
                self.assertEqual(set(names(page)), set(functions), page)
                written |= functions
        self.assertEqual(declared(), written)

    def test_pages_are_named_after_what_they_describe(self):
        for page in PAGES:
            self.assertIn(page.stem, names(page))
            title = re.search(r"^\.Dt (\S+) (\d)$", page.read_text(encoding="utf-8"), flags=re.M)
            self.assertEqual((page.stem.upper(), page.suffix[1:]), title.groups())

    def test_functions_and_pages_that_are_named_exist(self):
        pages = {(name, page.suffix[1:]) for page in PAGES for name in names(page)}
        for page in PAGES:
            text = page.read_text(encoding="utf-8")
            for name in re.findall(r"^\.Fn (\w+)", text, flags=re.M):
                self.assertIn(name, {*declared(), "main"}, page)
            for name, section in re.findall(r"^\.(?:It )?Xr (\w+) (\d)", text, flags=re.M):
                if section != "2":  # the system's own
                    self.assertIn((name, section), pages, page)

    def test_pages_have_their_sections(self):
        for page in PAGES:
            if page.stem not in OVERVIEWS:
                sections = re.findall(r"^\.Sh (.*)$", page.read_text(encoding="utf-8"), flags=re.M)
                for section in ("NAME", "LIBRARY", "SYNOPSIS", "DESCRIPTION", "RETURN VALUES",
                                "ERRORS", "SEE ALSO"):
                    self.assertIn(section, sections, page)

    def test_pages_have_the_projects_date(self):
        for page in PAGES:
            found = re.findall(r"^\.Dd (.*)$", page.read_text(encoding="utf-8"), flags=re.M)
            self.assertEqual([DATE], found, page)

    def test_mandoc_finds_no_fault(self):
        # Which other pages there are is looked up above: mandoc asks the machine for them.
        result = subprocess.run([MANDOC[0], "-T", "lint", *map(str, PAGES)], check=False,
                                capture_output=True, text=True)
        found = [line for line in result.stdout.splitlines()
                 if "STYLE: referenced manual not found:" not in line]
        self.assertEqual([], found)
        # That it looked at all: it is told of a fault.
        wrong = subprocess.run([MANDOC[0], "-T", "lint"], input=".Dd today\n.Sh NAME\n",
                               check=False, capture_output=True, text=True)
        self.assertIn("WARNING", wrong.stdout)


if __name__ == "__main__":
    if not PAGES or not MANDOC:
        sys.exit("no pages, or no mandoc")
    unittest.main(argv=sys.argv[:1])
