#!/usr/bin/env python3
"""check_docs.py TREE: what the pages name is there: pages, headings, figures, files, folders and headers.

Also: every page is reached from docs/overview.md, every figure is shown, and sources name only pages that exist.
"""

import fnmatch
import os
import pathlib
import re
import sys
import xml.etree.ElementTree

SKIPPED = {".git", "build", "__pycache__"}
# What code spans name files by. Foo stands for any name.
ENDINGS = r"(?:h|cpp|cmake|json|md|npz|proto|py|sh|svg|toml|yml)"
FILE = re.compile(rf"^(?!.*\bFoo)[\w*/.-]+\.{ENDINGS}$")
GENERATED = ["platform/errors/catalogue.h", "*.pb.h", "*_pb2.py", "*_pb2_grpc.py"]
LINK = re.compile(r"!?\[[^\]]*\]\(([^)\s]+)\)")


def files_of(tree):
    for folder, folders, names in os.walk(tree):
        folders[:] = [name for name in folders if name not in SKIPPED]
        for name in names:
            yield pathlib.Path(folder, name).relative_to(tree).as_posix()


def without_blocks(text):
    return re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)


def anchors_of(text):
    headings = re.findall(r"^#+ (.*)$", without_blocks(text), re.MULTILINE)
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


class Pages:
    def __init__(self, tree):
        self.tree = tree
        self.files = set(files_of(tree))
        self.folders = {parent.as_posix() for file in self.files for parent in pathlib.PurePath(file).parents}
        names = sorted(name for name in self.files if re.fullmatch(r"[A-Z]+\.md|docs/[\w-]+\.md", name))
        self.texts = {name: (tree / name).read_text(encoding="utf-8") for name in names}

    def links(self, page):
        for target in LINK.findall(without_blocks(self.texts[page])):
            if not re.match(r"https?:", target):
                file, _, anchor = target.partition("#")
                at = os.path.normpath(pathlib.PurePath(page).parent / file).replace(os.sep, "/") if file else page
                yield target, at, anchor

    def broken_links(self):
        for page in self.texts:
            for target, file, anchor in self.links(page):
                if file not in self.files and file not in self.folders:
                    yield f"{page} links to {target}, which does not exist"
                elif anchor and anchor not in anchors_of((self.tree / file).read_text(encoding="utf-8")):
                    yield f"{page} links to {target}, and that page has no such heading"

    def unreached(self):
        reached, ahead = set(), ["docs/overview.md"]
        while ahead:
            page = ahead.pop()
            if page not in reached:
                reached.add(page)
                ahead += [file for _, file, _ in self.links(page) if file in self.texts]
        shown = {file for page in reached for _, file, _ in self.links(page)}
        for page in self.texts:
            if page.startswith("docs/") and page not in reached:
                yield f"{page} is not reached from docs/overview.md"
        for figure in self.files:
            if figure.startswith("docs/figures/") and figure not in shown:
                yield f"{figure} is shown on no page"

    def is_there(self, name):
        if "*" in name:
            return any(fnmatch.fnmatch(file, name) or fnmatch.fnmatch(file, "*/" + name) for file in self.files)
        return name in self.files or any(file.endswith("/" + name) for file in self.files)

    def missing_files(self):
        tops = "|".join(sorted(folder for folder in self.folders if "/" not in folder and folder != "."))
        path = re.compile(rf"^(?:{tops})/[\w*/.-]*$")
        for page, text in self.texts.items():
            saved_by_the_reader = re.findall(r"(?:[Ss]ave this|copy the program there) as `([^`]+)`", text)
            for name in re.findall(r"`([^`\n]+)`", without_blocks(text)):
                if name in saved_by_the_reader:
                    continue
                if FILE.match(name) or path.match(name):
                    known = self.is_there(name) or name.rstrip("/") in self.folders
                    known = known or any(fnmatch.fnmatch(name, generated) for generated in GENERATED)
                    if not known:
                        yield f"{page} names `{name}`, which does not exist"
            for header in re.findall(r'#include "([^"]+)"', text):
                if header not in self.files and not any(fnmatch.fnmatch(header, name) for name in GENERATED):
                    yield f'{page} includes "{header}", which does not exist'

    def pages_that_sources_name(self):
        for file in sorted(self.files):
            is_source = re.search(r"\.(h|cpp|py|proto|toml|cmake)$|CMakeLists\.txt$|^scripts/", file)
            if is_source and not file.startswith("tests/docs/"):
                text = (self.tree / file).read_text(encoding="utf-8", errors="replace")
                for page in sorted(set(re.findall(r"\bdocs/[\w/-]+\.(?:md|svg)", text))):
                    if page not in self.files:
                        yield f"{file} names {page}, which does not exist"

    def broken_figures(self):
        for figure in sorted(self.files):
            if figure.startswith("docs/figures/"):
                try:
                    root = xml.etree.ElementTree.parse(self.tree / figure).getroot()
                    if not root.tag.endswith("}svg") or "viewBox" not in root.attrib:
                        yield f"{figure} is not an SVG picture with a viewBox"
                except xml.etree.ElementTree.ParseError as error:
                    yield f"{figure} is not well-formed: {error}"


def complaints(tree):
    pages = Pages(tree)
    if "docs/overview.md" not in pages.texts:
        return [f"{tree} has no docs/overview.md"]
    checks = [
        pages.broken_links,
        pages.unreached,
        pages.missing_files,
        pages.pages_that_sources_name,
        pages.broken_figures,
    ]
    return [complaint for check in checks for complaint in check()]


if __name__ == "__main__":
    sys.exit("\n".join(complaints(pathlib.Path(sys.argv[1]))) or 0)
