"""The targets: what is compared with what, and what it has to reach. Messages have 400 bytes."""

import dataclasses
import operator

RELATIONS = {"≥": operator.ge, "≤": operator.le, ">": operator.gt, "<": operator.lt}

MET = "met"
MISSED = "missed"
NOT_MEASURED = "not measured"
# The programs say that the figure survives something else than the target is about.
NOT_COMPARABLE = "not comparable"
VERDICTS = (MET, MISSED, NOT_COMPARABLE, NOT_MEASURED)


@dataclasses.dataclass(frozen=True)
class Target:
    what: str  # words for the table
    against: str  # likewise; empty where the figure itself is the target
    group: str
    case: str
    metric: str
    base: str  # the case that the ratio is taken against; empty: the figure itself counts
    relation: str
    value: float
    unit: str = "times"
    durability: str = "memory"

    def figure(self, results):
        if self.base:
            return results.ratio(self.group, self.case, self.metric, self.base)
        return results.figure(self.group, self.case, self.metric)

    def verdict(self, results):
        figure = self.figure(results)
        if figure is None:
            return NOT_MEASURED
        if any(results.durability(self.group, case) != self.durability for case in (self.case, self.base) if case):
            return NOT_COMPARABLE
        return MET if RELATIONS[self.relation](figure.median, self.value) else MISSED


DURABILITIES = {"full": "power cut", "normal": "process"}


def _storage(group, what):
    """The whole component from reception to row, and its classes for a cache file alone."""
    return [
        Target(f"`dataflowflag` 0, one sender, sync {sync}: {what}{part}",
               "bare open, execute, close with the same settings", group, f"{case}_{sync}", "rate", f"bare_{sync}", "≥",
               0.90, durability=durability)
        for sync, durability in DURABILITIES.items()
        for case, part in (("whole", ""), ("component", ", the cache file's classes alone"))
    ]


def _cost(case, held):
    return Target(f"cost of a record with {held} held", "1,000 held", "cost_per_record", case, "ns", "held_1000", "≤",
                  1.3)


TARGETS = [
    Target("component in memory (`dataflowflag` 2)", "a bare pipeline", "memory_pipeline", "component", "rate", "bare",
           "≥", 0.8),
    Target("the same with `dataflowflag` 1", "`dataflowflag` 2", "memory_pipeline", "component_flow1", "rate",
           "component", "≥", 0.95),
    Target("end to end in memory", "rsyslog", "end_to_end_memory", "qmlogcache", "rate", "rsyslog", ">", 1.0),
    Target("end to end in memory", "syslog-ng", "end_to_end_memory", "qmlogcache", "rate", "syslog_ng", ">", 1.0),
    *_storage("storage_insert", "insert"),
    *_storage("storage_insert_delete", "insert and delete"),
    Target("`dataflowflag` 0, sync full, end to end", "rsyslog's disk queue, a sync per message", "end_to_end_disk",
           "qmlogcache", "rate", "rsyslog", ">", 1.0, durability="power cut"),
    Target("4 senders at once, sync full, inserts", "one sender", "storage_senders", "senders_4", "rate", "senders_1",
           "≥", 1.7, durability="power cut"),
    *(Target(f"save of 100,000 records at a stop, sync {sync}", "bare inserts of 500 rows", "storage_save",
             f"component_{sync}", "rate", f"bare_{sync}", "≥", 0.80, durability=durability)
      for sync, durability in DURABILITIES.items()),
    Target("load of 100,000 records at a start", "a bare select into structs", "storage_load", "component", "rate",
           "bare", "≥", 0.40, durability="power cut"),
    Target("memory with 500,000 records held", "the bytes of their tagged texts", "memory_held", "component_500000",
           "ratio", "", "≤", 1.3),
    Target("resident size of the host with 500,000 records held", "rsyslog", "memory_backlog", "qmlogcache", "rss_mib",
           "rsyslog", "<", 1.0),
    Target("resident size of the host with 500,000 records held", "syslog-ng", "memory_backlog", "qmlogcache",
           "rss_mib", "syslog_ng", "<", 1.0),
    _cost("held_1", "1"),
    _cost("held_100000", "100,000"),
    _cost("held_500000", "500,000"),
    Target("intake at the count limit, overwriting", "intake below the limit", "intake_at_limit", "at_limit", "ns",
           "below_limit", "≤", 1.5),
    Target("the same with 100,000 marked records", "intake below the limit", "intake_at_limit",
           "at_limit_after_100000_marked", "ns", "below_limit", "≤", 1.5),
    Target("the same with 100,000 marked records", "none marked (flat)", "intake_at_limit",
           "at_limit_after_100000_marked", "ns", "at_limit", "≤", 1.3),
    Target("records sent before a real-time one, behind 100,000 low ones", "", "latency", "realtime_behind_100000_low",
           "position", "", "≤", 0, unit="records"),
    Target("a log line with its level off", "", "log_line_off", "level_off", "ns", "", "<", 20, unit="ns"),
]
