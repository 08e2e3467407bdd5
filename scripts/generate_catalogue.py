#!/usr/bin/env python3
"""Makes code and documentation from the message catalogue.

    generate_catalogue.py CATALOGUE --header FILE      writes the C++ header of tags
    generate_catalogue.py CATALOGUE --docs FILE        writes the list for users
    generate_catalogue.py CATALOGUE --check-docs FILE  fails when that list is not the catalogue's

A catalogue that breaks a rule is refused with one line per fault, each naming its entry.
"""
import argparse
import os
import re
import sys
import tomllib
from dataclasses import dataclass

ENTRY_HEADING = re.compile(r'^\s*\[\s*"(?P<component>[^"]*)"\s*\.\s*"?(?P<name>[^\]"]*?)"?\s*\]\s*(#.*)?$')
COMPONENT = re.compile(r"[a-z][A-Za-z0-9]*(:[a-z][A-Za-z0-9]*)*")
NAME = re.compile(r"[A-Z][A-Za-z0-9]*")
HOLE = re.compile(r"\{([0-9]+)\}")
KEYS = {"text", "arguments"}
KEYWORDS = set(
    "alignas alignof and asm auto bitand bitor bool break case catch char class compl concept const constexpr continue "
    "decltype default delete do double else enum explicit export extern false float for friend goto if inline int long "
    "mutable namespace new noexcept not nullptr operator or private protected public register requires return short "
    "signed sizeof static struct switch template this throw true try typedef typeid typename union unsigned using "
    "virtual void volatile while xor std errors".split())


@dataclass(frozen=True)
class Entry:
    component: str
    name: str
    text: str
    arguments: tuple

    @property
    def identifier(self):
        return f"{self.component}:{self.name}"


class CatalogueError(Exception):
    """Carries one line per fault."""


def find_duplicates(source):
    """TOML forbids a second table of one name, but its parser does not say which entry that was."""
    seen, faults = set(), []
    for number, line in enumerate(source.splitlines(), 1):
        heading = ENTRY_HEADING.match(line)
        if heading is None:
            continue
        key = (heading["component"], heading["name"])
        if key in seen:
            faults.append(f"{key[0]}:{key[1]}: duplicate entry (line {number})")
        seen.add(key)
    return faults


def check_names(component, name):
    faults = []
    if not COMPONENT.fullmatch(component) or KEYWORDS.intersection(component.split(":")):
        faults.append(f'bad component name "{component}" (lower camel case words joined by ":")')
    if not NAME.fullmatch(name):
        faults.append(f'bad name "{name}" (one word in upper camel case)')
    return faults


def check_text(text, arguments):
    holes = {int(number) for number in HOLE.findall(text)}
    wanted = set(range(len(arguments)))
    faults = []
    if not text.strip():
        faults.append("the text is empty")
    for number in sorted(holes - wanted):
        faults.append(f"hole {{{number}}} has no argument")
    for number in sorted(wanted - holes):
        faults.append(f'argument {number} ("{arguments[number]}") has no hole')
    if re.search(r"[{}]", HOLE.sub("", text)):
        faults.append("a brace that is not part of a hole")
    return faults


def check_entry(component, name, fields):
    """The entry and its faults; the entry is None when there are any."""
    faults = check_names(component, name)
    if not isinstance(fields, dict):
        return None, faults + ["not a table"]
    faults += [f'unknown key "{key}"' for key in sorted(set(fields) - KEYS)]
    faults += [f'missing key "{key}"' for key in sorted(KEYS - set(fields))]
    text, arguments = fields.get("text", " "), fields.get("arguments", [])
    if not isinstance(text, str):
        faults.append("the text is not a string")
    elif not isinstance(arguments, list) or not all(isinstance(item, str) for item in arguments):
        faults.append("the arguments are not a list of strings")
    elif not KEYS - set(fields):
        faults += check_text(text, arguments)
    return (None if faults else Entry(component, name, text, tuple(arguments))), faults


def parse(source):
    faults = find_duplicates(source)
    if faults:
        raise CatalogueError("\n".join(faults))
    try:
        tables = tomllib.loads(source)
    except tomllib.TOMLDecodeError as error:
        raise CatalogueError(str(error)) from error
    entries = []
    for component, names in tables.items():
        if not isinstance(names, dict):
            faults.append(f"{component}: not a component")
            continue
        for name, fields in names.items():
            entry, found = check_entry(component, name, fields)
            faults += [f"{component}:{name}: {fault}" for fault in found]
            if entry is not None:
                entries.append(entry)
    if faults:
        raise CatalogueError("\n".join(faults))
    return entries


def c_string(text):
    escapes = {"\\": "\\\\", '"': '\\"', "\n": "\\n", "\t": "\\t"}
    return '"' + "".join(escapes.get(c, c if c >= " " else f"\\{ord(c):03o}") for c in text) + '"'


HEADER_TOP = """\
// Made from platform/errors/catalogue.toml by scripts/generate_catalogue.py; edit that file, not this one.
// A tag per identified error, for Exception<Tag> (platform/errors/Exception.h), and a table of them all.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>
"""

HEADER_TABLE = """
namespace errors {{

struct CatalogueEntry {{
  std::string_view component;
  std::string_view name;
  std::string_view text;
  std::size_t argumentCount;
}};

inline constexpr std::array<CatalogueEntry, {count}> kCatalogue{{{{
{rows}
}}}};

}}  // namespace errors
"""


def tag_code(entry):
    namespace = entry.component.replace(":", "::")
    return f"""
namespace {namespace} {{
// {entry.identifier}{"(" + ", ".join(entry.arguments) + ")" if entry.arguments else ""}
struct {entry.name} {{
  static constexpr std::string_view component = {c_string(entry.component)};
  static constexpr std::string_view name = {c_string(entry.name)};
  static constexpr std::string_view text = {c_string(entry.text)};
  static constexpr std::size_t argumentCount = {len(entry.arguments)};
}};
}}  // namespace {namespace}
"""


def table_row(entry):
    tag = f"::{entry.component.replace(':', '::')}::{entry.name}"
    return f"    {{{tag}::component, {tag}::name, {tag}::text, {tag}::argumentCount}},"


def header(entries):
    rows = "\n".join(table_row(entry) for entry in entries)
    return HEADER_TOP + "".join(map(tag_code, entries)) + HEADER_TABLE.format(count=len(entries), rows=rows)


DOCS_TOP = """\
# Identified errors

Every error that the system reports under an identifier of its own, by component. The identifier is the component and
the name joined by a colon, such as `parallel:cluster:ZKSUnreachable`. `{0}`, `{1}`, ... stand for the arguments.

Made from `platform/errors/catalogue.toml`; after a change there run
`scripts/generate_catalogue.py platform/errors/catalogue.toml --docs docs/errors.md`.
"""


def docs(entries):
    parts = [DOCS_TOP]
    for component in dict.fromkeys(entry.component for entry in entries):
        parts.append(f"\n## {component}\n\n| name | text | arguments |\n| --- | --- | --- |\n")
        for entry in entries:
            if entry.component == component:
                cells = [f"`{entry.name}`", entry.text, ", ".join(entry.arguments)]
                parts.append("| " + " | ".join(cell.replace("|", "\\|").replace("\n", "<br>") for cell in cells) + " |\n")
    return "".join(parts)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, content):
    directory = os.path.dirname(path)
    if directory:
        os.makedirs(directory, exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(content)


def main(arguments):
    parser = argparse.ArgumentParser(description="Makes code and documentation from the message catalogue.")
    parser.add_argument("catalogue")
    modes = parser.add_mutually_exclusive_group(required=True)
    modes.add_argument("--header", metavar="FILE")
    modes.add_argument("--docs", metavar="FILE")
    modes.add_argument("--check-docs", metavar="FILE")
    options = parser.parse_args(arguments)
    try:
        entries = parse(read(options.catalogue))
    except CatalogueError as error:
        for line in str(error).splitlines():
            print(f"{options.catalogue}: {line}", file=sys.stderr)
        return 1
    if options.header:
        write(options.header, header(entries))
    elif options.docs:
        write(options.docs, docs(entries))
    elif read(options.check_docs) != docs(entries):
        print(f"{options.check_docs} does not list the catalogue; run: scripts/generate_catalogue.py "
              f"platform/errors/catalogue.toml --docs docs/errors.md", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
