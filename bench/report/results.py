"""What the benchmark programs measured: reading, medians, ratios.

A result line is one JSON object: group, case, round, metric, unit, value, durability. In a file of results the lines of
a program follow a line {"run": {...}} that tells how it was run, and the file begins with {"machine": {...}}.
"""

import dataclasses
import json
import math
import statistics

FIELDS = {"group": str, "case": str, "round": int, "metric": str, "unit": str, "value": (int, float), "durability": str}
DURABILITIES = ("memory", "process", "power cut")


class ResultError(Exception):
    """A line that is no result, or one that contradicts another."""


@dataclasses.dataclass(frozen=True)
class Figure:
    """The median of some rounds, with the lowest and the highest of them."""

    median: float
    low: float
    high: float
    rounds: int


def figure_of(values):
    """None for no values."""
    return Figure(statistics.median(values), min(values), max(values), len(values)) if values else None


def parse_result(line):
    """The result in a line of a program's output. Raises ResultError."""
    try:
        result = json.loads(line)
    except ValueError as error:
        raise ResultError(f"not JSON ({error}): {line!r}") from error
    if not isinstance(result, dict) or set(result) != set(FIELDS):
        raise ResultError(f"not the fields of a result: {line!r}")
    for field, kind in FIELDS.items():
        if not isinstance(result[field], kind) or isinstance(result[field], bool):
            raise ResultError(f"{field} is {result[field]!r}: {line!r}")
    if not math.isfinite(result["value"]):
        raise ResultError(f"no finite value: {line!r}")
    if result["durability"] not in DURABILITIES:
        raise ResultError(f"unknown durability: {line!r}")
    return result


def _head_of(line):
    """The line as an object; an empty one when it is none."""
    try:
        parsed = json.loads(line)
    except ValueError:
        return {}
    return parsed if isinstance(parsed, dict) else {}


class Results:
    """The figures of one file. Medians are over rounds; a ratio is taken round by round, then its median."""

    def __init__(self, results=(), runs=(), machine=None):
        self.runs = list(runs)
        self.machine = machine or {}
        self._rounds = {}
        self._units = {}
        self._durability = {}
        for result in results:
            self.add(result)

    @classmethod
    def read(cls, lines):
        read = cls()
        for line in lines:
            if not line.strip():
                continue
            head = _head_of(line)
            if "machine" in head:
                read.machine = head["machine"]
            elif "run" in head:
                read.runs.append(head["run"])
            else:
                read.add(parse_result(line))
        return read

    def add(self, result):
        key = result["group"], result["case"], result["metric"]
        rounds = self._rounds.setdefault(key, {})
        if result["round"] in rounds:
            raise ResultError(f"round {result['round']} of {' '.join(key)} stands twice")
        if self._units.setdefault((key[0], key[2]), result["unit"]) != result["unit"]:
            raise ResultError(f"{key[0]} {key[2]} is in {result['unit']} and in {self._units[key[0], key[2]]}")
        if self._durability.setdefault(key[:2], result["durability"]) != result["durability"]:
            raise ResultError(f"{key[0]} {key[1]} has two durabilities")
        rounds[result["round"]] = result["value"]

    def groups(self):
        return sorted({group for group, _, _ in self._rounds})

    def cases(self, group):
        """In the order in which they were measured."""
        return list(dict.fromkeys(case for found, case, _ in self._rounds if found == group))

    def metrics(self, group, case):
        return [metric for found, name, metric in self._rounds if (found, name) == (group, case)]

    def durability(self, group, case):
        return self._durability.get((group, case))

    def unit(self, group, metric):
        return self._units.get((group, metric))

    def figure(self, group, case, metric):
        """None when it was not measured."""
        return figure_of(list(self._rounds.get((group, case, metric), {}).values()))

    def ratio(self, group, case, metric, base):
        """Against the case base in the rounds that both have; None when there is none, or the base is 0 in one."""
        rounds = self._rounds.get((group, case, metric), {})
        bases = self._rounds.get((group, base, metric), {})
        common = sorted(set(rounds) & set(bases))
        if any(bases[number] == 0 for number in common):
            return None
        return figure_of([rounds[number] / bases[number] for number in common])
