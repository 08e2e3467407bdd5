#!/usr/bin/env python3
"""check_modules.py TREE: sources include only modules that stand below their own in docs/figures/modules.svg, or to its
right in the same row, and every module stands in the figure.
"""

import pathlib
import re
import sys
import xml.etree.ElementTree

FIGURE = "docs/figures/modules.svg"
SVG = "{http://www.w3.org/2000/svg}"
TESTS = re.compile(r"_(test|bench|fuzz)\.cpp$|Test\.h$|/testing/|/conformance/|/bench/|/tests/")
# Stands above the module in whose folder it is: it takes a payload.
EXCEPT = {"transport/streams/createByteStream.h", "transport/streams/createByteStream.cpp"}
TOPS = ("cli", "execution", "platform", "programs", "python", "scheduler", "toolbox", "transport")


def modules_of(figure):
    """Each module's folder, and its place as (row, column): greater stands further below, or further to the right."""
    root = xml.etree.ElementTree.parse(figure).getroot()
    texts = [text for text in root.iter(SVG + "text") if text.get("class") == "name"]
    names = [(float(text.get("x")), float(text.get("y")), text.text) for text in texts]
    places = {}
    for box in root.iter(SVG + "rect"):
        if box.get("rx") == "6":
            left, top, width, height = (float(box.get(key)) for key in ("x", "y", "width", "height"))
            name = next(name for x, y, name in names if left < x < left + width and top < y < top + height)
            folder = name.split(",")[0]
            places[f"platform/{folder}" if box.get("class") == "platform" else folder] = (top, left)
    return places


def complaints(tree):
    places = modules_of(tree / FIGURE)

    def module_of(path):
        return max((folder for folder in places if path.startswith(folder + "/")), key=len, default=None)

    for top in TOPS:
        for file in sorted((tree / top).rglob("*")):
            name = file.relative_to(tree).as_posix()
            if file.suffix not in (".h", ".cpp") or TESTS.search("/" + name) or name in EXCEPT:
                continue
            module = module_of(name)
            if module is None:
                if name.count("/") > 1:
                    yield f"{name} belongs to no module of {FIGURE}"
                continue
            for header in re.findall(r'^#include "([^"]+)"', file.read_text(encoding="utf-8"), re.MULTILINE):
                other = module_of(header)
                if other and other != module and places[other] <= places[module]:
                    yield f"{name} includes {header}, but {other} does not stand below {module} in {FIGURE}"


if __name__ == "__main__":
    sys.exit("\n".join(complaints(pathlib.Path(sys.argv[1]))) or 0)
