#!/usr/bin/env python3
"""Prints how many lines and branches of each file the tests reach, and what they do not reach.

  tests/coverage/report.py COUNTS.json EXCEPTIONS.tsv

COUNTS.json is gcovr's. A gap is a line that never runs, or a line that runs while some of its
branches are never taken. Fails when a gap is not among the exceptions, or an exception is no gap.
"""

import collections
import csv
import json
import sys

# Equal lines of a file are told apart by their number among each other, from 1.
Gap = collections.namedtuple("Gap", "file text number what")


def read_exceptions(path):
    with open(path, encoding="utf-8") as lines:
        rows = csv.reader((line for line in lines if line.strip() and line[0] != "#"),
                          delimiter="\t", quoting=csv.QUOTE_NONE)
        exceptions = {Gap(*row[:4]): row[4] for row in rows}
    if not all(reason.strip() for reason in exceptions.values()):
        sys.exit(f"{path}: an exception has no reason")
    return exceptions


class File:
    def __init__(self, counts):
        self.name = counts["file"]
        self.lines = [line for line in counts["lines"]
                      if not line["gcovr/noncode"] and not line["gcovr/excluded"]]
        with open(self.name, encoding="utf-8") as source:
            self.source = [text.strip() for text in source]
        self.branches = [branch["count"] for line in self.lines for branch in line["branches"]]

    def gaps(self):
        """Pairs of a line number and the gap there."""
        for line in self.lines:
            untaken = [str(i) for i, branch in enumerate(line["branches"]) if branch["count"] == 0]
            number = line["line_number"]
            text = self.source[number - 1]
            equal = str(self.source[:number].count(text))
            if line["count"] == 0:
                yield number, Gap(self.name, text, equal, "line")
            elif untaken:
                yield number, Gap(self.name, text, equal, "branch " + " ".join(untaken))


def cells(counts):
    return f"{sum(count > 0 for count in counts):5} of {len(counts):5}"


def print_table(files):
    width = max(len(file.name) for file in files)
    print(f"{'':{width}}  {'lines':>14}  {'branches':>14}")
    for file in files:
        lines = [line["count"] for line in file.lines]
        print(f"{file.name:{width}}  {cells(lines)}  {cells(file.branches)}")
    lines = [line["count"] for file in files for line in file.lines]
    branches = [count for file in files for count in file.branches]
    print(f"{'all':{width}}  {cells(lines)}  {cells(branches)}")


def main(counts_path, exceptions_path):
    with open(counts_path, encoding="utf-8") as counts:
        files = sorted(map(File, json.load(counts)["files"]), key=lambda file: file.name)
    exceptions = read_exceptions(exceptions_path)
    print_table(files)

    gaps = {gap: number for file in files for number, gap in file.gaps()}
    for gap, number in gaps.items():
        if gap not in exceptions:
            print(f"coverage: {gap.file}:{number} is not covered:\n" + "\t".join(gap))
    unneeded = [gap for gap, reason in exceptions.items()
                if gap not in gaps and not reason.startswith("by chance")]
    for gap in unneeded:
        print("coverage: this exception is not needed:\n" + "\t".join(gap))
    print(f"coverage: {len(gaps)} lines with a gap, {len(exceptions)} exceptions")
    return 0 if gaps.keys() <= exceptions.keys() and not unneeded else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
