#!/usr/bin/env python3
"""coverage_report.py COVERAGE.json BRANCHES.txt: gcovr's figures per folder, and the places that were not reached."""

import collections
import json
import sys

Count = collections.namedtuple("Count", "lines lines_hit branches branches_hit")


def counted(line):
    return not line.get("gcovr/noncode")


def count_of(lines):
    branches = [branch for line in lines for branch in line["branches"]]
    return Count(
        len(lines), sum(line["count"] > 0 for line in lines), len(branches), sum(branch["count"] > 0 for branch in branches)
    )


def folder_of(path):
    return path.rsplit("/", 1)[0]


def percent(hit, of):
    return f"{100 * hit / of:5.1f} %" if of else "      -"


def print_folders(files):
    folders = collections.defaultdict(list)
    for file in files:
        folders[folder_of(file["file"])] += filter(counted, file["lines"])
    rows = {name: count_of(lines) for name, lines in sorted(folders.items())}
    rows["all"] = Count(*(sum(column) for column in zip(*rows.values())))
    width = max(map(len, rows))
    print(f"{'':{width}}  {'lines':>16}  {'branches':>16}")
    for name, count in rows.items():
        lines = f"{count.lines:8} {percent(count.lines_hit, count.lines)}"
        print(f"{name:{width}}  {lines}  {count.branches:8} {percent(count.branches_hit, count.branches)}")


def write_misses(files, path):
    with open(path, "w", encoding="utf-8") as out:
        for file in sorted(files, key=lambda file: file["file"]):
            source = open(file["file"], encoding="utf-8").read().splitlines()
            for line in filter(counted, file["lines"]):
                missed = sum(branch["count"] == 0 for branch in line["branches"])
                if line["count"] == 0 or missed:
                    what = f"{missed} of {len(line['branches'])} branches" if line["count"] else "never run"
                    text = source[line["line_number"] - 1].strip()
                    out.write(f"{file['file']}:{line['line_number']}: {what}: {text}\n")


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        files = json.load(file)["files"]
    print_folders(files)
    write_misses(files, sys.argv[2])


main()
