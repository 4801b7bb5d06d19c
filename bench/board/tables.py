#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Make tables of what the bench measured on the board, and judge the bounds."""

import argparse
import csv
import sys

BEGIN = "<!-- measured: begin -->"
END = "<!-- measured: end -->"

# The least share of the bare calls' rate that a direct transfer must reach.
LEAST_RATE = {4096: 97.0, 65536: 99.7}

# Instructions that a figure may be off by because the clock moves in steps.
NEAR = 3

SLOTS = {"zel0": "Zel", "mivo0": "Mivo", "ricoh": "Ricoh SD", "": ""}


def load(path):
    with open(path, newline="", encoding="ascii") as file:
        rows = list(csv.DictReader(file))
    if not rows:
        sys.exit(f"{path}: no figures")
    for row in rows:
        for key in ("chunks", "bytes", "library", "bare", "difference", "loop"):
            row[key] = int(row[key]) if row[key] else None
    return rows


def number(value):
    return "" if value is None else f"{value:,}"


def ratio(over, under):
    return f"{over / under:.3f}" if over is not None and under else ""


def size(count):
    if count % 1048576 == 0:
        return f"{count // 1048576} MiB"
    return f"{count // 1024} KiB" if count % 1024 == 0 else f"{count:,}"


def table(heads, lines):
    """A Markdown table; columns of numbers are set to the right."""
    right = [all(line[i].replace(",", "").replace(".", "").lstrip("-").isdigit() or not line[i]
                 for line in lines) for i in range(len(heads))]
    widths = [max(3, *(len(line[i]) for line in [heads, *lines])) for i in range(len(heads))]

    def put(cells):
        fitted = [cell.rjust(width) if at_right else cell.ljust(width)
                  for cell, width, at_right in zip(cells, widths, right)]
        return "| " + " | ".join(fitted) + " |"

    rule = ["-" * (width - 1) + ":" if at_right else "-" * width
            for width, at_right in zip(widths, right)]
    return [put(heads), "| " + " | ".join(rule) + " |", *map(put, lines), ""]


def select(rows, group, linked="shared"):
    return [row for row in rows if row["group"] == group and row["linked"] == linked]


def slot(row):
    return SLOTS.get(row["device"], row["device"])


def compared(row):
    return [number(row["library"]), number(row["bare"]), number(row["difference"]),
            ratio(row["library"], row["bare"])]


COMPARED = ["library", "bare calls", "difference", "ratio"]


# --- bounds -------------------------------------------------------------------


def judge(rows):
    """Lines of the two tables of bounds, and whether all of them hold."""
    rates, loops, holds = [], [], True
    for row in select(rows, "ready", "static"):
        least = LEAST_RATE.get(row["bytes"])
        if least is None:
            continue
        rate = 100 * row["bare"] / row["library"]
        passed = rate >= least
        holds &= passed
        rates.append([slot(row), row["operation"], size(row["bytes"]), row["variant"],
                      number(row["library"]), number(row["bare"]), f"{rate:.2f}",
                      f"{least:.1f}", "pass" if passed else "FAIL"])
    for row in select(rows, "loop", "static"):
        passed = row["library"] < row["loop"]
        holds &= passed
        loops.append([row["operation"], number(row["chunks"]), row["variant"],
                      number(row["library"]), number(row["loop"]),
                      ratio(row["library"], row["loop"]), "pass" if passed else "FAIL"])
    if not rates or not loops:
        sys.exit("there are no figures to judge")
    return rates, loops, holds


def bounds(rows):
    rates, loops, _ = judge(rows)
    text = ["### Bounds", "",
            "The rate of a direct transfer, in per cent of the rate of the bare calls with a",
            "table that is ready and the same lock; the library is linked statically.", ""]
    text += table(["slot", "operation", "size", "eject check", "library", "bare calls",
                   "rate %", "at least", ""], rates)
    text += ["Direct transfers of 64 KiB of a Zel slot against a `pread` or `pwrite` of its block",
             "node for each piece of memory: faster.", ""]
    text += table(["operation", "pieces", "loop", "library", "its cost", "ratio", ""], loops)
    return text


# --- the other tables -----------------------------------------------------------


def baselines(rows):
    return ["### The machine itself", ""] + table(
        ["", "bytes", "instructions"],
        [[row["operation"], number(row["bytes"] or None), number(row["bare"])]
         for row in select(rows, "baseline")])


def calls(rows):
    lines = [[slot(row), row["operation"], row["variant"], *compared(row)]
             for group in ("life", "call") for row in select(rows, group)]
    return ["### Life, queries and requests", ""] + table(
        ["slot", "operation", "eject check", *COMPARED], lines)


def plain(rows):
    lines = [[slot(row), row["operation"], row["variant"], size(row["bytes"]), *compared(row),
              number(row["loop"])] for row in select(rows, "plain")]
    return ["### Plain transfers", ""] + table(
        ["slot", "operation", "eject check", "size", *COMPARED, "pread / pwrite"], lines)


def direct(rows):
    lines = [[slot(row), row["operation"], number(row["chunks"]), row["variant"],
              size(row["bytes"]), *compared(row), number(row["loop"])]
             for group in ("size", "chunks", "array") for row in select(rows, group)]
    return ["### Direct transfers", ""] + table(
        ["slot", "operation", "pieces", "layout", "size", *COMPARED, "loop"], lines)


def element_writes(rows):
    lines = [[slot(row), row["operation"], number(row["chunks"]), size(row["bytes"]),
              *compared(row)] for group in ("elements", "command") for row in select(rows, group)]
    return ["### Lists of runs, and writes by card command", ""] + table(
        ["slot", "operation", "elements", "size", *COMPARED], lines)


def by_link(rows):
    """The same transfers in both programs: what the mapping registers do."""
    lines = []
    by_size = sorted(select(rows, "ready"), key=lambda row: (slot(row), row["variant"],
                                                             row["bytes"]))
    for shared in by_size:
        static = next(row for row in select(rows, "ready", "static")
                      if all(row[key] == shared[key]
                             for key in ("device", "operation", "variant", "bytes")))
        lines.append([slot(shared), shared["operation"], size(shared["bytes"]), shared["variant"],
                      number(static["difference"]), number(shared["difference"])])
    return ["### Static and shared library", "",
            "What the library takes on top of the bare calls with a ready table.", ""] + table(
        ["slot", "operation", "size", "eject check", "static", "shared"], lines)


def slope(points):
    """Instructions for each further unit: least squares through (units, instructions)."""
    middle_x = sum(x for x, _ in points) / len(points)
    middle_y = sum(y for _, y in points) / len(points)
    return (sum((x - middle_x) * (y - middle_y) for x, y in points) /
            sum((x - middle_x) ** 2 for x, _ in points))


def growth(rows):
    per_what = [("size", "sector, contiguous", lambda row: row["bytes"] // 512),
                ("growth", "scattered piece of a sector", lambda row: row["chunks"]),
                ("elements", "list element of a sector", lambda row: row["chunks"])]
    lines = []
    for group, unit, measure in per_what:
        found = select(rows, group)
        for key in dict.fromkeys((row["device"], row["operation"]) for row in found):
            own = [row for row in found if (row["device"], row["operation"]) == key]
            if len(own) < 2:
                continue
            slopes = [slope([(measure(row), row[column]) for row in own])
                      for column in ("library", "bare")]
            lines.append([slot(own[0]), key[1], unit, f"{slopes[0]:.1f}", f"{slopes[1]:.1f}",
                          f"{slopes[0] - slopes[1]:.1f}"])
    text = ["### Growth", "", "Instructions for each further unit, over all sizes measured.", ""]
    text += table(["slot", "operation", "for each", "library", "bare calls", "difference"], lines)
    text += ["With the units that are open: 4 KiB on the last unit opened, all before it open.", ""]
    return text + table(["unit", "operation", *COMPARED],
                        [[row["device"], row["operation"], *compared(row)]
                         for row in select(rows, "units")])


def repeatability(rows, again):
    if len(rows) != len(again):
        sys.exit("the two runs measured different things")
    apart = []
    for first, second in zip(rows, again):
        for key in ("library", "bare", "loop"):
            if first[key] is not None:
                difference = abs(first[key] - second[key])
                apart.append((difference / max(first[key], 1), difference, first, first[key]))
    near = sum(0 < difference <= NEAR for _, difference, _, _ in apart)
    far = [entry for entry in apart if entry[1] > NEAR]
    text = [f"Of {len(apart):,} figures of two runs, {len(apart) - near - len(far):,} are the same, "
            f"{near:,} are at most {NEAR}",
            f"instructions apart, which is about one step of the clock, and {len(far):,} more."]
    if far:
        share, difference, row, value = max(far, key=lambda entry: entry[0])
        text.append(f"The furthest apart for its size: {difference:,} of {value:,} "
                    f"({100 * share:.2f} %), {slot(row)} {row['operation']}, "
                    f"{number(row['chunks'])} pieces, {number(row['bytes'])} bytes.")
    judged = [entry[1] for entry in apart
              if entry[2]["group"] in ("ready", "loop") and entry[2]["linked"] == "static"]
    text.append(f"The figures that are judged are at most {max(judged)} apart.")
    return ["### Repeatability", "", *text, ""]


def everything(rows):
    text = bounds(rows)
    for part in (by_link, baselines, calls, plain, direct, element_writes, growth):
        text += part(rows)
    return text


def replace_between_markers(path, text):
    with open(path, encoding="utf-8") as file:
        document = file.read()
    if document.count(BEGIN) != 1 or document.count(END) != 1:
        sys.exit(f"{path}: the markers are missing")
    head, rest = document.split(BEGIN)
    tail = rest.split(END)[1]
    with open(path, "w", encoding="utf-8") as file:
        file.write(head + BEGIN + "\n\n" + "\n".join(text) + "\n" + END + tail)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("figures", help="what the bench wrote")
    parser.add_argument("--bounds", action="store_true",
                        help="the bounds alone; exit status 1 when one does not hold")
    parser.add_argument("--again", help="the figures of a second run")
    parser.add_argument("--into", help="replace the tables in this document")
    options = parser.parse_args()
    rows = load(options.figures)
    if options.bounds:
        print("\n".join(bounds(rows)))
        return 0 if judge(rows)[2] else 1
    text = everything(rows)
    if options.again:
        text = repeatability(rows, load(options.again)) + text
    if options.into:
        replace_between_markers(options.into, text)
    else:
        print("\n".join(text))
    return 0


if __name__ == "__main__":
    sys.exit(main())
