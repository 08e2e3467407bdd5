"""Tests of count_cases, on reports as ctest and GoogleTest write them."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

COUNT_CASES = pathlib.Path(__file__).with_name("count_cases")


def gtest_report(passed, failed, skipped=0):
    cases = "<testcase/>" * passed + "<testcase><failure/></testcase>" * failed
    cases += "<testcase><skipped/></testcase>" * skipped
    total = passed + failed + skipped
    return f'<testsuites tests="{total}" failures="{failed}" disabled="0" errors="0">{cases}</testsuites>'


class CountCases(unittest.TestCase):
    def counted(self, tests, reports):
        with tempfile.TemporaryDirectory() as name:
            build = pathlib.Path(name)
            (build / "reports").mkdir()
            rows = "".join(f'<testcase name="{test}" status="{status}"/>' for test, status in tests.items())
            (build / "junit.xml").write_text(f"<testsuite>{rows}</testsuite>")
            for test, report in reports.items():
                (build / "reports" / f"{test}.xml").write_text(report)
            done = subprocess.run([sys.executable, COUNT_CASES, build], capture_output=True, text=True, check=True)
        return done.stdout.strip()

    def test_cases_of_suites_and_other_tests_are_added(self):
        tests = {"a.Suite": "run", "b.Typed/0": "run", "python.x": "run", "python.y": "fail"}
        reports = {"a.Suite": gtest_report(3, 0), "b.Typed.0": gtest_report(4, 0)}
        self.assertEqual(self.counted(tests, reports), "8 1")

    def test_failed_and_skipped_cases_are_told_apart(self):
        self.assertEqual(self.counted({"a.S": "fail"}, {"a.S": gtest_report(2, 1, skipped=5)}), "2 1")

    def test_suite_that_crashed_counts_as_a_failure_with_or_without_a_report(self):
        self.assertEqual(self.counted({"a.S": "fail"}, {}), "0 1")
        self.assertEqual(self.counted({"a.S": "fail"}, {"a.S": gtest_report(2, 0)}), "2 1")
        self.assertEqual(self.counted({"a.S": "fail"}, {"a.S": "<testsuites"}), "0 1")

    def test_tests_that_did_not_run_count_for_nothing(self):
        self.assertEqual(self.counted({"a": "notrun", "b": "disabled"}, {}), "0 0")


if __name__ == "__main__":
    unittest.main()
