import unittest

from bench_path import rounds
from report import labels, programs, targets
from report.results import Results
from report.targets import MET, MISSED, NOT_COMPARABLE, NOT_MEASURED, Target


def target(relation="≥", value=0.9, base="bare", durability="memory"):
    return Target("what", "against", "g", "c", "rate", base, relation, value, durability=durability)


def results(values, bases=(100, 100, 100), durability="memory"):
    return Results(rounds("g", "c", "rate", values, durability=durability) + rounds("g", "bare", "rate", bases))


class VerdictTest(unittest.TestCase):
    def test_each_relation_at_above_and_below_its_value(self):
        for relation, expected in {"≥": (MISSED, MET, MET), "≤": (MET, MET, MISSED), ">": (MISSED, MISSED, MET),
                                   "<": (MET, MISSED, MISSED)}.items():
            for figure, verdict in zip((50, 90, 130), expected):
                with self.subTest(relation=relation, figure=figure):
                    self.assertEqual(target(relation, 0.9).verdict(results([figure] * 3)), verdict)

    def test_the_median_round_decides(self):
        self.assertEqual(target().verdict(results([10, 95, 96])), MET)
        self.assertEqual(target().verdict(results([10, 20, 200])), MISSED)

    def test_a_target_without_a_base_is_about_the_figure_itself(self):
        self.assertEqual(target("<", 20, base="").verdict(results([19, 19, 19])), MET)
        self.assertEqual(target("<", 20, base="").verdict(results([21, 21, 21])), MISSED)

    def test_missing_figures_are_not_measured_and_never_met(self):
        for relation in targets.RELATIONS:
            self.assertEqual(target(relation).verdict(Results()), NOT_MEASURED)
            self.assertEqual(target(relation).verdict(Results(rounds("g", "c", "rate", [1]))), NOT_MEASURED)
            self.assertEqual(target(relation, base="").verdict(Results()), NOT_MEASURED)

    def test_figures_of_another_durability_are_not_comparable(self):
        self.assertEqual(target(durability="power cut").verdict(results([200] * 3)), NOT_COMPARABLE)
        self.assertEqual(target().verdict(results([200] * 3, durability="process")), NOT_COMPARABLE)
        lax = Results(rounds("g", "c", "rate", [200], durability="power cut") + rounds("g", "bare", "rate", [100]))
        self.assertEqual(target(durability="power cut").verdict(lax), NOT_COMPARABLE)


class TargetListTest(unittest.TestCase):
    def test_every_target_can_be_judged(self):
        for each in targets.TARGETS:
            with self.subTest(what=each.what):
                self.assertIn(each.relation, targets.RELATIONS)
                self.assertIn(each.durability, ("memory", "process", "power cut"))
                self.assertIn(each.group, programs.GROUPS)

    def test_no_target_stands_twice(self):
        keys = [(each.group, each.case, each.metric, each.base) for each in targets.TARGETS]
        self.assertEqual(len(keys), len(set(keys)))

    def test_every_group_but_those_without_a_target_has_one(self):
        without = {"storage_drain", "link_rate", "link_outage", "fleet", "instructions"}  # told, not bounded
        self.assertEqual({each.group for each in targets.TARGETS}, set(programs.GROUPS) - without)

    def test_words_of_groups_are_of_groups_that_exist(self):
        self.assertLessEqual(set(labels.CASES), set(programs.GROUPS))


if __name__ == "__main__":
    unittest.main()
