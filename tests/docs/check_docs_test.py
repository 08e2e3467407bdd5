#!/usr/bin/env python3
"""check_docs and check_modules find each kind of mistake in a small tree, and none where there is none."""

import pathlib
import tempfile
import unittest

import check_docs
import check_modules

TREE = {
    "README.md": "[The map](docs/overview.md).\n",
    "docs/overview.md": "# Overview\n\n[One](one.md), [its end](one.md#the-end), ![a box](figures/box.svg)\n",
    "docs/one.md": "# One\n\n`platform/Wheel.h`, `Wheel.h`, `platform/`, `*.h`, `Foo.h`.\n\n## The end\n",
    "docs/figures/box.svg": '<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 1 1"/>',
    "platform/Wheel.h": "// Turns. See docs/one.md.\n",
}


class CheckDocs(unittest.TestCase):
    def complaints(self, changes=None):
        with tempfile.TemporaryDirectory() as folder:
            for name, text in {**TREE, **(changes or {})}.items():
                path = pathlib.Path(folder, name)
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text)
            return check_docs.complaints(pathlib.Path(folder))

    def test_a_tree_without_mistakes_passes(self):
        self.assertEqual(self.complaints(), [])

    def test_a_link_to_nothing(self):
        found = self.complaints({"README.md": "[x](docs/two.md)"})
        self.assertEqual(found, ["README.md links to docs/two.md, which does not exist"])

    def test_a_link_to_a_missing_heading(self):
        found = self.complaints({"README.md": "[x](docs/one.md#middle)"})
        self.assertEqual(found, ["README.md links to docs/one.md#middle, and that page has no such heading"])

    def test_a_page_that_nothing_leads_to(self):
        found = self.complaints({"docs/two.md": "# Two\n"})
        self.assertEqual(found, ["docs/two.md is not reached from docs/overview.md"])

    def test_a_figure_that_no_page_shows(self):
        found = self.complaints({"docs/figures/disc.svg": TREE["docs/figures/box.svg"]})
        self.assertEqual(found, ["docs/figures/disc.svg is shown on no page"])

    def test_a_figure_that_is_no_picture(self):
        self.assertRegex(self.complaints({"docs/figures/box.svg": "<svg>"})[0], "box.svg is not well-formed")

    def test_a_file_that_is_not_there(self):
        found = self.complaints({"README.md": "`platform/Axle.h` and `Axle.h`"})
        missing = [f"README.md names `{name}`, which does not exist" for name in ("platform/Axle.h", "Axle.h")]
        self.assertEqual(found, missing)

    def test_a_file_that_the_page_has_its_reader_save(self):
        self.assertEqual(self.complaints({"README.md": "Save this as `first.py`:"}), [])

    def test_an_include_of_a_missing_header(self):
        found = self.complaints({"README.md": '```cpp\n#include "platform/Axle.h"\n```\n'})
        self.assertEqual(found, ['README.md includes "platform/Axle.h", which does not exist'])

    def test_a_source_that_names_a_missing_page(self):
        found = self.complaints({"platform/Wheel.h": "// docs/wheels.md"})
        self.assertEqual(found, ["platform/Wheel.h names docs/wheels.md, which does not exist"])


def box(x, y, name):
    return (
        f'<rect class="platform" x="{x}" y="{y}" width="100" height="40" rx="6"/>'
        f'<text class="name" x="{x + 50}" y="{y + 20}">{name}</text>'
    )


class CheckModules(unittest.TestCase):
    # One above the other, and one to the right of the upper one.
    FIGURE = box(0, 0, "bell") + box(200, 0, "horn") + box(0, 100, "wheel")

    def complaints(self, file, header):
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder)
            figure = f'<svg xmlns="http://www.w3.org/2000/svg">{self.FIGURE}</svg>'
            for name, text in {check_modules.FIGURE: figure, file: f'#include "{header}"\n'}.items():
                (tree / name).parent.mkdir(parents=True, exist_ok=True)
                (tree / name).write_text(text)
            return list(check_modules.complaints(tree))

    def test_what_stands_below_or_to_the_right_may_be_included(self):
        self.assertEqual(self.complaints("platform/bell/Bell.h", "platform/wheel/Wheel.h"), [])
        self.assertEqual(self.complaints("platform/bell/Bell.h", "platform/horn/Horn.h"), [])
        self.assertEqual(self.complaints("platform/bell/Bell.h", "platform/bell/Clapper.h"), [])

    def test_what_stands_above_or_to_the_left_may_not(self):
        self.assertEqual(len(self.complaints("platform/wheel/Wheel.h", "platform/bell/Bell.h")), 1)
        self.assertEqual(len(self.complaints("platform/horn/Horn.cpp", "platform/bell/Bell.h")), 1)

    def test_tests_may_include_what_they_like(self):
        self.assertEqual(self.complaints("platform/wheel/Wheel_test.cpp", "platform/bell/Bell.h"), [])

    def test_module_that_the_figure_lacks(self):
        self.assertEqual(len(self.complaints("platform/axle/Axle.h", "platform/wheel/Wheel.h")), 1)


unittest.main()
