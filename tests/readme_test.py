#!/usr/bin/env python3
"""readme_test.py TREE: the programs shown in the documents are the examples, which are compiled and run, to the letter."""

import pathlib
import re
import sys

SHOWN = {
    "README.md": ["session.py", "echo_array.cpp"],
    "docs/foreign-clients.md": ["foreign_client.py"],
}

tree = pathlib.Path(sys.argv[1])
for page, names in SHOWN.items():
    shown = re.findall(r"^```\w+\n(.*?)^```$", (tree / page).read_text(), re.MULTILINE | re.DOTALL)
    examples = [(tree / "examples" / name).read_text() for name in names]
    if [text.strip() for text in shown] != [text.strip() for text in examples]:
        sys.exit(f"{page} does not show {' and '.join('examples/' + name for name in names)} as they are")
