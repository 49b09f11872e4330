import unittest

from bench_path import rounds
from report import plots
from report.results import Results


class PlotTest(unittest.TestCase):
    def test_without_figures_no_plot_is_drawn(self):
        for name, script_of in plots.PLOTS.items():
            self.assertIsNone(script_of(Results()), name)

    def test_a_bar_has_its_median_and_its_bounds(self):
        results = Results(rounds("memory_pipeline", "bare", "rate", [100, 300, 200]))
        script = plots.PLOTS["memory_pipeline"](results)
        self.assertIn("$series0 << EOD\n0 200 100 300\nEOD\n", script)
        self.assertIn('set xtics scale 0 ("bare pipeline" 0)', script)

    def test_a_case_that_one_series_lacks_leaves_a_gap(self):
        results = Results(rounds("storage_insert", "bare_full", "rate", [1])
                          + rounds("storage_insert_delete", "bare_full", "rate", [2])
                          + rounds("storage_insert_delete", "bare_without_vacuum_full", "rate", [3]))
        script = plots.PLOTS["storage_rates"](results)
        self.assertIn("$series0 << EOD\n0 1 1 1\nEOD\n", script)
        self.assertIn("$series1 << EOD\n0 2 2 2\n1 3 3 3\nEOD\n", script)

    def test_large_numbers_are_told_in_thousands_and_millions(self):
        self.assertEqual(plots.scaled(9999, "records/s"), (1, "records/s"))
        self.assertEqual(plots.scaled(10_000, "records/s"), (1000, "thousand records/s"))
        self.assertEqual(plots.scaled(2_000_000, "records/s"), (1_000_000, "million records/s"))

    def test_the_backlog_goes_by_the_number_of_records(self):
        results = Results(rounds("cost_per_record", "held_100000", "ns", [7], unit="ns/record")
                          + rounds("cost_per_record", "held_1", "ns", [5], unit="ns/record"))
        script = plots.PLOTS["cost_per_record"](results)
        self.assertIn("1 5 5 5\n100000 7 7 7\n", script)
        self.assertIn("set logscale x", script)

    def test_texts_cannot_end_a_quoted_text(self):
        self.assertEqual(plots.quoted("it's `a_b` {c}"), "'it''s a b c'")
        self.assertEqual(plots.label("it's \"a\", b"), '"it\'s a\\nb"')


if __name__ == "__main__":
    unittest.main()
