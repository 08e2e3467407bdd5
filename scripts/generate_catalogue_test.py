#!/usr/bin/env python3
"""What the catalogue's generator refuses, and what it makes of a good catalogue."""
import contextlib
import io
import os
import tempfile
import unittest

import generate_catalogue

GOOD = '["a:b".Good]\ntext = "{0} of {1} \\"x\\""\narguments = ["part", "whole"]\n'


def faults(source):
    try:
        generate_catalogue.parse(source)
    except generate_catalogue.CatalogueError as error:
        return str(error).splitlines()
    return []


def entry(heading='["a:b".C]', text="t", arguments="[]"):
    return f'{heading}\ntext = "{text}"\narguments = {arguments}\n'


class Refusals(unittest.TestCase):
    def test_duplicate_entry(self):
        self.assertEqual(faults(entry() + entry()), ["a:b:C: duplicate entry (line 4)"])

    def test_duplicate_entry_in_another_spelling(self):
        self.assertEqual(faults(entry() + entry('[ "a:b" . "C" ]')), ["a:b:C: duplicate entry (line 4)"])

    def test_hole_without_argument(self):
        self.assertEqual(faults(entry(text="{0}")), ["a:b:C: hole {0} has no argument"])

    def test_argument_without_hole(self):
        self.assertEqual(faults(entry(text="{1}", arguments='["x", "y"]')), ['a:b:C: argument 0 ("x") has no hole'])

    def test_stray_brace(self):
        for text in ("{", "}", "{}", "{x}", "{0 }", "{{0}}"):
            self.assertIn("a:b:C: a brace that is not part of a hole", faults(entry(text=text, arguments="[]")), text)

    def test_bad_component(self):
        for component in ("", "A:b", "a::b", "a:", "a:class", "a b", "a.b", "a:std", "9a"):
            self.assertEqual(faults(entry(f'["{component}".C]')),
                             [f'{component}:C: bad component name "{component}" '
                              '(lower camel case words joined by ":")'])

    def test_bad_name(self):
        for name in ("c", "C-D", "C_d"):
            self.assertEqual(faults(entry(f'["a:b".{name}]')),
                             [f'a:b:{name}: bad name "{name}" (one word in upper camel case)'])

    def test_missing_and_unknown_keys(self):
        self.assertEqual(faults('["a:b".C]\ntext = "t"\n'), ['a:b:C: missing key "arguments"'])
        self.assertEqual(faults('["a:b".C]\narguments = []\n'), ['a:b:C: missing key "text"'])
        self.assertEqual(faults(entry() + 'more = 1\n'), ['a:b:C: unknown key "more"'])

    def test_wrong_types(self):
        self.assertEqual(faults('["a:b".C]\ntext = 1\narguments = []\n'), ["a:b:C: the text is not a string"])
        self.assertEqual(faults(entry(arguments="[1]")), ["a:b:C: the arguments are not a list of strings"])
        self.assertEqual(faults('["a:b"]\nC = 1\n'), ["a:b:C: not a table"])
        self.assertEqual(faults("a = 1\n"), ["a: not a component"])

    def test_empty_text(self):
        self.assertEqual(faults(entry(text=" ")), ["a:b:C: the text is empty"])

    def test_every_fault_is_told(self):
        self.assertEqual(len(faults(entry(text="{0}") + entry('["a:b".D]', text="{1}"))), 2)

    def test_not_toml(self):
        self.assertEqual(len(faults('["a:b".C')), 1)


class Output(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.catalogue = self.put(folder.name, "catalogue.toml", GOOD)
        self.docs = os.path.join(folder.name, "deep", "errors.md")

    @staticmethod
    def put(folder, name, content):
        path = os.path.join(folder, name)
        generate_catalogue.write(path, content)
        return path

    def run_main(self, *arguments):
        errors = io.StringIO()
        with contextlib.redirect_stderr(errors):
            return generate_catalogue.main([self.catalogue, *arguments]), errors.getvalue()

    def test_header_holds_the_tag_and_the_row(self):
        header = generate_catalogue.header(generate_catalogue.parse(GOOD))
        for line in ("namespace a::b {", "struct Good {", 'text = "{0} of {1} \\"x\\"";', "argumentCount = 2;",
                     "std::array<CatalogueEntry, 1>"):
            self.assertIn(line, header)

    def test_strings_are_escaped(self):
        self.assertEqual(generate_catalogue.c_string('a"\\\n\x01'), '"a\\"\\\\\\n\\001"')

    def test_docs_are_checked_against_the_catalogue(self):
        self.assertEqual(self.run_main("--docs", self.docs), (0, ""))
        self.assertEqual(self.run_main("--check-docs", self.docs), (0, ""))
        with open(self.docs, "a", encoding="utf-8") as file:
            file.write("more\n")
        code, errors = self.run_main("--check-docs", self.docs)
        self.assertEqual(code, 1)
        self.assertIn("does not list the catalogue", errors)

    def test_refusal_names_file_and_entry_on_one_line(self):
        generate_catalogue.write(self.catalogue, entry(text="{0}"))
        code, errors = self.run_main("--header", self.docs)
        self.assertEqual((code, errors), (1, f"{self.catalogue}: a:b:C: hole {{0}} has no argument\n"))
        self.assertFalse(os.path.exists(self.docs))


if __name__ == "__main__":
    unittest.main()
