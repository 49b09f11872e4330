import contextlib
import io
import json
import pathlib
import tempfile
import unittest
from unittest import mock

from bench_path import BENCH, load_script

count = load_script(BENCH / "instructions" / "count")

DUMP = """version: 1
creator: callgrind-3.19.0
desc: Trigger: Client Request: intake_memory 2048

positions: line
events: Ir
summary: 0

fn=(1) main
10 5
totals: 4096
"""


class CountTest(unittest.TestCase):
    def test_reads_the_path_its_records_and_their_instructions(self):
        self.assertEqual(count.read_dump(DUMP), ("intake_memory", 2048, 4096))

    def test_takes_nothing_from_the_dump_at_the_end(self):
        self.assertIsNone(count.read_dump(DUMP.replace("Client Request: intake_memory 2048", "Program termination")))

    def test_a_dump_without_a_total_is_an_error(self):
        with self.assertRaises(count.CountError):
            count.read_dump(DUMP.replace("totals", "summary"))

    def counts(self, **changed):
        return {**{path: 1000.0 for path in count.PATHS}, **changed}

    def test_growth_beyond_a_tenth_is_found(self):
        lines, grown = count.compare(self.counts(save=1101, load=1100), self.counts())
        self.assertEqual(grown, ["save"])
        (line,) = [line for line in lines if line.startswith("save")]
        self.assertIn("+10.1%", line)

    def test_what_became_cheaper_is_shown_and_no_growth(self):
        lines, grown = count.compare(self.counts(save=500), self.counts())
        self.assertEqual(grown, [])
        self.assertTrue(any("-50.0%" in line for line in lines))

    def test_a_path_without_a_baseline_is_new(self):
        lines, grown = count.compare(self.counts(), {})
        self.assertEqual(grown, [])
        self.assertTrue(all("new" in line for line in lines[1:]))

    def judge(self, counts, tools, stored=True):
        """The exit status and what is printed, beside a baseline of 1,000 a path that "old" tools counted."""
        with tempfile.TemporaryDirectory() as name:
            baseline = pathlib.Path(name) / "baseline.json"
            if stored:
                baseline.write_text(json.dumps({"toolchain": {"compiler": "old"}, "instructions": self.counts()}))
            printed = io.StringIO()
            with mock.patch.object(count, "BASELINE", baseline), contextlib.redirect_stdout(printed):
                return count.report(counts, tools), printed.getvalue()

    def test_fails_when_a_path_grew(self):
        status, printed = self.judge(self.counts(save=1200), {"compiler": "old"})
        self.assertEqual(status, 1)
        self.assertIn("baseline: save.", printed)

    def test_succeeds_when_none_grew(self):
        self.assertEqual(self.judge(self.counts(save=1050), {"compiler": "old"})[0], 0)

    def test_growth_under_another_compiler_is_told_and_not_judged(self):
        status, printed = self.judge(self.counts(save=1200), {"compiler": "new"})
        self.assertEqual(status, 0)
        self.assertIn("+20.0%", printed)
        self.assertIn("not judged: compiler is new, the baseline's was old", printed)

    def test_without_a_baseline_nothing_is_judged_to_be_well(self):
        with self.assertRaises(count.CountError):
            self.judge(self.counts(), {"compiler": "old"}, stored=False)

    def test_the_baseline_in_the_tree_has_every_path(self):
        stored = json.loads(count.BASELINE.read_text())
        self.assertEqual(set(stored["instructions"]), set(count.PATHS))
        self.assertEqual(set(stored["toolchain"]), {"compiler", "libc", "sqlite", "machine"})


if __name__ == "__main__":
    unittest.main()
