import json
import unittest

from bench_path import result, rounds
from report.results import Figure, ResultError, Results, parse_result


class ParseTest(unittest.TestCase):
    def test_takes_what_a_program_prints(self):
        line = ('{"group":"storage_insert","case":"component_full","round":1,"metric":"rate","unit":"records/s",'
                '"value":1234.5,"durability":"power cut"}')
        self.assertEqual(parse_result(line)["value"], 1234.5)

    def test_refuses_what_is_no_result(self):
        good = result()
        for bad in ("", "no JSON", "[]", "1", json.dumps({**good, "more": 1}), json.dumps({**good, "round": "1"}),
                    json.dumps({**good, "round": True}), json.dumps({**good, "value": "fast"}),
                    json.dumps({**good, "value": None}), json.dumps({**good, "value": float("nan")}),
                    json.dumps({**good, "value": float("inf")}), json.dumps({**good, "durability": "forever"}),
                    json.dumps({key: value for key, value in good.items() if key != "unit"})):
            with self.subTest(line=bad), self.assertRaises(ResultError):
                parse_result(bad)


class ResultsTest(unittest.TestCase):
    def test_a_figure_is_the_median_with_its_bounds(self):
        results = Results(rounds("g", "c", "rate", [5, 1, 9]))
        self.assertEqual(results.figure("g", "c", "rate"), Figure(5, 1, 9, 3))

    def test_an_even_number_of_rounds_has_the_mean_of_the_middle_two(self):
        self.assertEqual(Results(rounds("g", "c", "rate", [1, 2, 4, 100])).figure("g", "c", "rate").median, 3)

    def test_a_ratio_is_taken_round_by_round_and_not_of_the_medians(self):
        results = Results(rounds("g", "base", "rate", [100, 10, 1000]) + rounds("g", "c", "rate", [50, 20, 500]))
        self.assertEqual(results.ratio("g", "c", "rate", "base"), Figure(0.5, 0.5, 2, 3))

    def test_a_ratio_counts_the_rounds_that_both_have(self):
        results = Results(rounds("g", "base", "rate", [10, 10]) + rounds("g", "c", "rate", [20, 30, 999]))
        self.assertEqual(results.ratio("g", "c", "rate", "base"), Figure(2.5, 2, 3, 2))

    def test_what_was_not_measured_has_no_figure(self):
        results = Results(rounds("g", "c", "rate", [1]))
        self.assertIsNone(results.figure("g", "other", "rate"))
        self.assertIsNone(results.figure("g", "c", "ns"))
        self.assertIsNone(results.ratio("g", "c", "rate", "other"))
        self.assertIsNone(results.ratio("g", "other", "rate", "c"))
        self.assertIsNone(results.durability("g", "other"))

    def test_a_base_of_zero_has_no_ratio(self):
        results = Results(rounds("g", "base", "rate", [1, 0]) + rounds("g", "c", "rate", [1, 1]))
        self.assertIsNone(results.ratio("g", "c", "rate", "base"))

    def test_refuses_a_round_that_stands_twice(self):
        with self.assertRaises(ResultError):
            Results([result(), result()])

    def test_refuses_two_units_of_a_metric(self):
        with self.assertRaises(ResultError):
            Results([result(), result(case="d", unit="records/min")])

    def test_refuses_two_durabilities_of_a_case(self):
        with self.assertRaises(ResultError):
            Results([result(), result(number=2, durability="process")])

    def test_reads_a_file_with_its_machine_and_runs(self):
        lines = [json.dumps({"machine": {"processors": "2"}}), json.dumps({"run": {"program": "p"}}), "",
                 json.dumps(result(value=3))]
        results = Results.read(lines)
        self.assertEqual(results.machine, {"processors": "2"})
        self.assertEqual(results.runs, [{"program": "p"}])
        self.assertEqual(results.figure("g", "c", "rate").median, 3)
        self.assertEqual(results.groups(), ["g"])
        self.assertEqual(results.cases("g"), ["c"])


if __name__ == "__main__":
    unittest.main()
