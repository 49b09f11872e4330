"""Lets the tests import the report as bench/run does."""

import importlib.machinery
import importlib.util
import pathlib
import sys

BENCH = pathlib.Path(__file__).resolve().parents[2]
ROOT = BENCH.parent
if str(BENCH) not in sys.path:
    sys.path.insert(0, str(BENCH))


def load_script(path):
    """A script without .py, as a module."""
    loader = importlib.machinery.SourceFileLoader(path.name, str(path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(path.name, loader))
    loader.exec_module(module)
    return module


def result(group="g", case="c", number=1, metric="rate", value=1.0, unit="records/s", durability="memory"):
    return {"group": group, "case": case, "round": number, "metric": metric, "unit": unit, "value": value,
            "durability": durability}


def rounds(group, case, metric, values, unit="records/s", durability="memory"):
    return [result(group, case, number, metric, value, unit, durability)
            for number, value in enumerate(values, start=1)]
