#!/usr/bin/env python3
"""tutorial_test.py TUTORIAL: does what the page tells its reader to do, and compares what it shows with what comes out.

Reads console blocks: after "$ " a command, below it what it prints. A line that ends in "..." may go on in any way.
zksd is started as in a terminal of its own. "Save this as `NAME`:" makes the next block a file. PATH and PYTHONPATH are
the caller's; the page's folder stands for the one that the test makes.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile

THE_READERS_FOLDER = "/home/ada/first"
SAVED = r"(?:[Ss]ave this as `(?P<file>[\w.]+)`:\n\n)?"
BLOCK = re.compile(SAVED + r"```(?P<kind>\w+)\n(?P<text>.*?)^```$", re.DOTALL | re.MULTILINE)


class Reader:
    def __init__(self, folder):
        self.folder = folder
        self.service = None

    def do(self, block):
        if block["file"]:
            pathlib.Path(self.folder, block["file"]).write_text(block["text"], encoding="utf-8")
        elif block["kind"] == "console":
            for step in re.split(r"^\$ ", block["text"], flags=re.MULTILINE)[1:]:
                command, _, shown = step.partition("\n")
                self.compare(command, shown.replace(THE_READERS_FOLDER, self.folder), self.output_of(command))

    def output_of(self, command):
        if command.startswith("zksd "):
            self.service = subprocess.Popen(command.split(), cwd=self.folder, stdout=subprocess.PIPE, text=True)
            return self.service.stdout.readline()
        shell = subprocess.run(["sh", "-c", command], cwd=self.folder, timeout=100, text=True, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        return shell.stdout

    def compare(self, command, shown, found):
        lines = [re.escape(line[:-3]) + ".*" if line.endswith("...") else re.escape(line) for line in shown.split("\n")]
        if not re.fullmatch("\n".join(lines), found):
            sys.exit(f"The page shows for: {command}\n{shown}But it prints:\n{found}")

    def end(self):
        if self.service:
            self.service.terminate()
            self.service.wait(60)
            self.service.stdout.close()


page = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
blocks = list(BLOCK.finditer(page))
if sum(block["kind"] == "console" for block in blocks) < 5:
    sys.exit("The page has lost its console blocks.")
with tempfile.TemporaryDirectory() as work:
    reader = Reader(os.path.realpath(work))
    try:
        for one in blocks:
            reader.do(one)
    finally:
        reader.end()
