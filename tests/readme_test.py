#!/usr/bin/env python3
"""readme_test.py TREE: the programs in README.md are the examples, which are compiled and run, to the letter."""

import pathlib
import re
import sys

tree = pathlib.Path(sys.argv[1])
shown = re.findall(r"^```\w+\n(.*?)^```$", (tree / "README.md").read_text(), re.MULTILINE | re.DOTALL)
examples = [(tree / "examples" / name).read_text() for name in ("session.py", "echo_array.cpp")]
if [text.strip() for text in shown] != [text.strip() for text in examples]:
    sys.exit("README.md does not show examples/session.py and examples/echo_array.cpp as they are")
