"""What a build's compile_commands.json says of a source file, as clang is to be told it."""

import json
import os
import pathlib
import shlex
import sys

OPTIONS_FOR_GCC = ("-Wno-tsan", "-Wno-maybe-uninitialized", "-Wno-subobject-linkage")


class Entry:
    """One source file of a build: file (absolute), directory (where it is compiled), target, options."""

    def __init__(self, entry):
        words = shlex.split(entry["command"])
        while not pathlib.Path(words[0]).name.startswith(("c++", "g++", "clang++")):
            words.pop(0)  # a compiler cache
        output = words.index("-o")
        self.file = entry["file"]
        self.directory = entry["directory"]
        self.target = words[output + 1].split(".dir/")[0]
        self.options = [word for word in words[1:output] if word not in OPTIONS_FOR_GCC]


def read(build):
    """The entries of a build by their paths in the tree; of a file that is compiled twice, the last one."""
    text = (pathlib.Path(build) / "compile_commands.json").read_text(encoding="utf-8")
    entries = [Entry(entry) for entry in json.loads(text)]
    return {os.path.relpath(entry.file): entry for entry in entries}


def select(build, names):
    """The entries of these files. Those that the build does not compile are passed over, and counted on stderr."""
    entries = read(build)
    known = [entries[name] for name in names if name in entries]
    if len(known) < len(names):
        print(f"{len(names) - len(known)} files are not part of {build}", file=sys.stderr)
    return known
