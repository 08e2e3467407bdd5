#!/usr/bin/env python3
"""Compares what the shared library exports with the checked-in list, and looks that it stands on the platform alone.

Usage: exported_symbols_test.py LIBRARY LIST [--update]

Left out are instantiations of the templates of the standard library, Boost and protobuf: those namespaces are public
whatever we say, and which of their functions a compiler keeps is its own business.
"""

import re
import subprocess
import sys

# The first name of a mangled one, behind what says that it is a vtable, a typeinfo, a guard or a local static.
FOREIGN = re.compile(r"_Z(T[A-Za-z]|GV)?Z*N?K?(S[tabsiod]|9__gnu_cxx|5boost|6google)")


def run(*command: str, given: str = "") -> str:
    return subprocess.run(command, input=given, check=True, capture_output=True, text=True).stdout


def exported(library: str) -> list[str]:
    names = [line.split()[-1] for line in run("nm", "-D", "--defined-only", library).splitlines()]
    ours = [name for name in names if not FOREIGN.match(name)]
    return sorted(set(run("c++filt", given="\n".join(ours)).splitlines()))


def needed(library: str) -> list[str]:
    return re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-d", library))


def main() -> int:
    library, list_path = sys.argv[1:3]
    found = exported(library)
    if "--update" in sys.argv[3:]:
        with open(list_path, "w", encoding="utf-8") as file:
            file.write("\n".join(found) + "\n")
        return 0

    with open(list_path, encoding="utf-8") as file:
        listed = file.read().splitlines()
    leaked = sorted(set(found) - set(listed))
    missing = sorted(set(listed) - set(found))
    for name in leaked:
        print(f"exported, but not in the list: {name}")
    for name in missing:
        print(f"in the list, but not exported: {name}")
    strangers = [name for name in needed(library) if re.match(r"lib(grpc|gpr|boost|cbor)", name)]
    for name in strangers:
        print(f"needed directly, which only the platform may: {name}")
    if not any(name.startswith("libzksplatform.so") for name in needed(library)):
        print("the platform's shared object is not needed: is the platform inside?")
        return 1
    if not listed or listed != sorted(set(listed)):
        print("the list is empty, unsorted, or names something twice")
        return 1
    return 1 if leaked or missing or strangers else 0


if __name__ == "__main__":
    sys.exit(main())
