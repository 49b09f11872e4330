import unittest

from bench_path import ROOT, result, rounds
from report import document, labels, plots, tables, targets
from report.results import Figure, Results


class NumberTest(unittest.TestCase):
    def test_shows_the_digits_that_count(self):
        for value, text in ((0, "0"), (0.01234, "0.0123"), (0.5, "0.5"), (1.234, "1.23"), (12.34, "12.3"),
                            (123.4, "123"), (1234567, "1,234,567")):
            self.assertEqual(tables.number(value), text)

    def test_a_single_round_has_no_spread(self):
        self.assertEqual(tables.spread(Figure(5, 5, 5, 1)), "5.00")
        self.assertEqual(tables.spread(Figure(5, 5, 5.001, 3)), "5.00")
        self.assertEqual(tables.spread(Figure(5, 4, 6, 3)), "5.00 (4.00–6.00)")
        self.assertEqual(tables.spread(None), tables.MISSING)


class TargetTableTest(unittest.TestCase):
    def test_without_results_every_target_is_there_and_not_measured(self):
        lines = tables.target_table(Results()).splitlines()
        self.assertEqual(len(lines), 2 + len(targets.TARGETS))
        for line in lines[2:]:
            self.assertIn("**not measured**", line)

    def test_a_missed_target_is_shown_with_its_figure(self):
        results = Results(rounds("log_line_off", "level_off", "ns", [41, 42, 43], unit="ns/line"))
        (line,) = [line for line in tables.target_table(results).splitlines() if "**missed**" in line]
        self.assertIn("a log line with its level off", line)
        self.assertIn("| 42.0 | 41.0–43.0 |", line)

    def test_a_met_target_is_shown_with_its_ratio(self):
        results = Results(rounds("memory_pipeline", "bare", "rate", [100, 100, 100])
                          + rounds("memory_pipeline", "component", "rate", [90, 80, 95]))
        self.assertIn("| ≥ 0.8 times | 0.90 | 0.80–0.95 | nothing | met |", tables.target_table(results))

    def test_the_counts_add_up_to_all_targets(self):
        results = Results(rounds("log_line_off", "level_off", "ns", [42], unit="ns/line"))
        self.assertEqual(tables.verdict_counts(results), f"1 missed, {len(targets.TARGETS) - 1} not measured")


class GroupTableTest(unittest.TestCase):
    def test_shows_figures_ratios_and_durability_in_the_known_order(self):
        results = Results(rounds("memory_pipeline", "component", "rate", [50, 60, 70])
                          + rounds("memory_pipeline", "bare", "rate", [100, 100, 100]))
        self.assertEqual(tables.TABLES["memory_pipeline"](results).splitlines()[2:], [
            "| bare pipeline | 100 | 1 | nothing |",
            "| component, `dataflowflag` 2 | 60.0 (50.0–70.0) | 0.60 (0.50–0.70) | nothing |"])

    def test_the_base_of_a_setting_is_that_of_the_same_setting(self):
        results = Results(
            rounds("storage_insert", "bare_full", "rate", [10], durability="power cut")
            + rounds("storage_insert", "bare_normal", "rate", [100], durability="process")
            + rounds("storage_insert", "component_full", "rate", [9], durability="power cut")
            + rounds("storage_insert", "component_normal", "rate", [80], durability="process"))
        rows = tables.TABLES["storage_insert"](results).splitlines()[2:]
        self.assertIn("| its cache file alone, sync full | 9.00 | 0.90 |", rows[0])
        self.assertIn("| its cache file alone, sync normal | 80.0 | 0.80 |", rows[2])
        self.assertTrue(rows[2].endswith("| a kill |"))

    def test_a_group_without_results_says_so(self):
        for name, render in tables.TABLES.items():
            if name != "targets":
                self.assertIn("Not measured yet", render(Results()), name)

    def test_a_case_nobody_has_words_for_is_shown(self):
        results = Results([result("memory_pipeline", "some_new_case", 1, value=7)])
        self.assertIn("| some new case | 7.00 |", tables.TABLES["memory_pipeline"](results))

    def test_the_drain_tells_rows_time_and_share(self):
        results = Results([
            result("storage_drain_100000", "component_full", 1, "duration", 120.0, "s", "power cut"),
            result("storage_drain_10000", "component_full", 1, "duration", 12.0, "s", "power cut"),
            result("storage_drain_10000", "component_full", 1, "vacuum_share", 0.75, "1", "power cut")])
        self.assertEqual(tables.TABLES["storage_drain"](results).splitlines()[2:], [
            "| 10,000 | the component's cache file alone, sync full | 12.0 |  | 75% | a power cut |",
            "| 100,000 | the component's cache file alone, sync full | 120 |  |  | a power cut |"])

    def test_a_link_tells_its_share_of_the_window_where_there_is_a_round_trip(self):
        results = Results([
            result("link_rate", "http_rtt_100", 1, "rate", 960.0),
            result("link_rate", "http_rtt_100", 1, "window_bound", 1280.0),
            result("link_rate", "http_rtt_100", 1, "window_share", 0.75, ""),
            result("link_rate", "http_rtt_0", 1, "rate", 30000.0)])
        self.assertEqual(tables.TABLES["link_rate"](results).splitlines()[2:], [
            "| `http`, 0 ms | 30,000 |  |  |  | nothing |",
            "| `http`, 100 ms | 960 | 1,280 | 75% |  | nothing |"])

    def test_a_fleet_is_shown_with_and_without_jitter(self):
        results = Results([result("fleet", case, 1, metric, value, unit) for case, value in
                           (("agents_100000_outage_600_no_jitter", 100000.0), ("agents_100000_outage_600", 3400.0))
                           for metric, unit in (("back_most", "agents/s"), ("back_100", "s"))])
        rows = tables.TABLES["fleet"](results).splitlines()[2:]
        self.assertEqual(rows[0], "| 100,000 agents, 600 s away |  |  | 3,400 |  |  | 3,400 |")
        self.assertTrue(rows[1].startswith("| 100,000 agents, 600 s away, no jitter |"))

    def test_words_of_a_setting_are_made_of_its_parts(self):
        self.assertEqual(labels.case_words("storage_save", "bare_full"), "bare SQLite, sync full")
        self.assertEqual(labels.case_words("storage_insert", "new_thing_off"), "new thing, sync off")


class DocumentTest(unittest.TestCase):
    def test_fills_what_stands_between_the_markers_and_nothing_else(self):
        text = "a\n<!-- table:x -->\nold\n<!-- end -->\nb\n"
        filled = document.fill(text, {"x": "new"})
        self.assertEqual(filled, "a\n<!-- table:x -->\nnew\n<!-- end -->\nb\n")
        self.assertEqual(document.fill(filled, {"x": "new"}), filled)

    def test_refuses_tables_and_places_that_do_not_fit(self):
        place = "<!-- table:x -->\n<!-- end -->\n"
        for text, names in ((place, "y"), (place, "xy"), ("<!-- table:x -->\n", "x"), ("", "x"),
                            ("<!-- table:x -->\n" + place, "x")):
            with self.subTest(text=text, names=names), self.assertRaises(document.DocumentError):
                document.fill(text, {name: "t" for name in names})

    def test_the_page_has_a_place_for_every_table(self):
        page = (ROOT / "docs" / "performance.md").read_text()
        document.fill(page, tables.render_all(Results()))

    def test_the_page_shows_every_plot(self):
        page = (ROOT / "docs" / "performance.md").read_text()
        for name in plots.PLOTS:
            self.assertIn(f"](performance/{name}.svg)", page)


if __name__ == "__main__":
    unittest.main()
