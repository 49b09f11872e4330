import argparse
import json
import pathlib
import tempfile
import unittest
from unittest import mock

from bench_path import BENCH, load_script, result
from report.programs import Program
from report.results import Results

run = load_script(BENCH / "run")


class RunProgramTest(unittest.TestCase):
    """A program of the test's own, in the place of a benchmark."""

    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.build = pathlib.Path(self.directory.name)
        (self.build / "bin").mkdir()
        self.program = Program("fake", ("one", "two"), ())

    def run_fake(self, lines, status=0, only=()):
        path = self.build / "bin" / "fake"
        text = "\n".join(line if isinstance(line, str) else json.dumps(line) for line in lines)
        path.write_text(f"#!/bin/sh\necho \"$@\" > {self.build}/arguments\ncat <<'END'\n{text}\nEND\nexit {status}\n")
        path.chmod(0o755)
        options = argparse.Namespace(build=self.build, quick=True, only=list(only))
        return run.run_program(self.program, options, None)

    def test_takes_the_lines_of_a_program_that_did_its_work(self):
        lines = [result("one"), result("two")]
        self.assertEqual(self.run_fake(lines), (lines, []))
        self.assertEqual((self.build / "arguments").read_text(), "--quick\n")

    def test_asks_for_the_wanted_groups_and_keeps_no_other(self):
        lines, problems = self.run_fake([result("one"), result("two")], only=["two"])
        self.assertEqual((lines, problems), ([result("two")], []))
        self.assertEqual((self.build / "arguments").read_text(), "--quick two\n")

    def test_a_status_other_than_zero_is_a_problem_and_the_figures_stay(self):
        lines, problems = self.run_fake([result("one"), result("two")], status=3)
        self.assertEqual((len(lines), problems), (2, ["ended with 3"]))

    def test_a_program_that_does_not_end_is_ended(self):
        with mock.patch.object(run, "QUICK_PATIENCE", 0.2):
            path = self.build / "bin" / "fake"
            path.write_text("#!/bin/sh\nexec sleep 600\n")
            path.chmod(0o755)
            _, problems = run.run_program(self.program, argparse.Namespace(build=self.build, quick=True, only=[]), None)
        self.assertIn("was ended after 0.2 s", problems)

    def test_a_line_that_is_no_result_is_a_problem(self):
        lines, problems = self.run_fake(["hello", result("one"), result("two")])
        self.assertEqual(len(lines), 2)
        self.assertEqual(len(problems), 1)
        self.assertIn("'hello", problems[0])

    def test_a_group_without_a_result_is_a_problem(self):
        self.assertEqual(self.run_fake([result("one")])[1], ["printed no result of two"])

    def test_a_group_of_another_program_is_a_problem(self):
        lines, problems = self.run_fake([result("one"), result("two"), result("three")])
        self.assertEqual((len(lines), problems), (2, ["printed results of three"]))

    def test_a_part_of_a_group_belongs_to_it(self):
        lines, problems = self.run_fake([result("one_10000"), result("two")])
        self.assertEqual((len(lines), problems), (2, []))
        self.assertFalse(run.is_group_of("one_more", ("one",)))


class KeptLinesTest(unittest.TestCase):
    def test_of_an_earlier_file_what_is_not_measured_again_stays(self):
        earlier = [{"machine": {}}, {"run": {"program": "a", "groups": ["one", "two"]}}, result("one"), result("two"),
                   result("one_10"), {"run": {"program": "b", "groups": ["three"]}}, result("three")]
        with tempfile.TemporaryDirectory() as name:
            file = pathlib.Path(name) / "results.jsonl"
            self.assertEqual(run.kept_lines(file, ["one"]), [])
            file.write_text("".join(json.dumps(line) + "\n" for line in earlier))
            self.assertEqual(run.kept_lines(file, ["one", "three"]),
                             [{"run": {"program": "a", "groups": ["two"]}}, result("two")])

    def test_a_group_that_gave_no_line_is_not_measured_and_keeps_its_figures(self):
        lines = [{"run": {"program": "a"}}, result("one_10"), result("three")]
        self.assertEqual(run.groups_measured(lines, ["one", "two", "three"]), ["one", "three"])


class UnjudgedTest(unittest.TestCase):
    def test_targets_without_figures_are_told_for_the_groups_that_were_asked_for(self):
        self.assertEqual(run.unjudged(Results(), ["log_line_off"]), ["log_line_off level_off ns: not measured"])
        self.assertEqual(run.unjudged(Results(), ["fleet"]), [])
        measured = Results([result("log_line_off", "level_off", 1, "ns", 3.5, "ns")])
        self.assertEqual(run.unjudged(measured, ["log_line_off"]), [])


if __name__ == "__main__":
    unittest.main()
