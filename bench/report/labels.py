"""Words for the names that the programs use, in the order in which tables show them."""


def _storage_cases(*settings, vacuum=False):
    words = {}
    for setting in settings:
        words[f"whole_{setting}"] = f"component, sync {setting}"
        words[f"component_{setting}"] = f"its cache file alone, sync {setting}"
        words[f"bare_{setting}"] = f"bare SQLite, sync {setting}"
        if vacuum:
            words[f"bare_without_vacuum_{setting}"] = f"bare SQLite, no compaction, sync {setting}"
    return words


CASES = {
    "memory_pipeline": {
        "bare": "bare pipeline",
        "component": "component, `dataflowflag` 2",
        "component_flow1": "component, `dataflowflag` 1",
    },
    "cost_per_record": {
        "held_1": "1",
        "held_1000": "1,000",
        "held_100000": "100,000",
        "held_500000": "500,000",
    },
    "memory_held": {"component_500000": "500,000"},
    "intake_at_limit": {
        "below_limit": "below the limit",
        "at_limit": "at the limit, overwriting",
        "at_limit_after_100000_marked": "the same, 100,000 marked before",
    },
    "latency": {
        "one_at_a_time": "one record at a time",
        "bursts_of_100": "bursts of 100",
        "realtime_behind_100000_low": "real-time behind 100,000 low",
    },
    "log_line_off": {"level_off": "a line of ten fields, level off"},
    "storage_insert": {
        **_storage_cases("full", "normal"),
        "sqlite_default": "SQLite's default",
    },
    "storage_insert_delete": {
        **_storage_cases("full", "normal", vacuum=True),
        "sqlite_default": "SQLite's default",
    },
    "storage_drain": {
        "component_full": "the component's cache file alone, sync full",
        "bare_full": "bare SQLite, sync full",
        "bare_without_vacuum_full": "bare SQLite, no compaction, sync full",
    },
    "storage_senders": {"senders_1": "1", "senders_2": "2", "senders_4": "4"},
    "end_to_end_memory": {"qmlogcache": "qmsend, qmhost", "rsyslog": "rsyslog", "syslog_ng": "syslog-ng"},
    "end_to_end_disk": {
        "qmlogcache": "qmsend, qmhost",
        "rsyslog": "rsyslog, queue state synced for each message",
        "rsyslog_batched": "rsyslog, queue state synced for each read of the socket",
    },
    "memory_backlog": {"qmlogcache": "qmhost", "rsyslog": "rsyslog", "syslog_ng": "syslog-ng"},
    "link_rate": {f"{link}_rtt_{milliseconds}": f"`{link}`, {milliseconds} ms"
                  for link in ("http", "nats") for milliseconds in (0, 10, 100)},
    "link_outage": {f"{link}_after_{seconds}": f"`{link}`, after {seconds} s"
                    for link in ("http", "nats") for seconds in (10, 600)},
    "fleet": {f"agents_{agents}_outage_{seconds}{suffix}": f"{agents:,} agents, {seconds} s away{words}"
              for agents in (200, 100_000) for seconds in (2, 10, 600)
              for suffix, words in (("", ""), ("_no_jitter", ", no jitter"))},
    # In the order of a record's road.
    "instructions": {
        "host_intake": "a message frame from the producer's socket to the component, and its answer back",
        "intake_memory": "reception and intake, memory only",
        "dispatch_memory": "dispatch, memory only",
        "settlement_memory": "settlement, memory only",
        "link_line": "file link: tagged text to a line of JSON",
        "intake_row": "reception and intake with a row written",
        "dispatch_row": "dispatch of a record with a row",
        "settlement_row": "settlement, its row deleted, and a hundredth of a compaction",
        "save": "save in batches",
        "load": "load",
    },
}

# Names of cases that are made of parts, as in component_full.
PARTS = {
    "component": "component",
    "bare": "bare SQLite",
    "bare_without_vacuum": "bare SQLite, no compaction",
}
SUFFIXES = {"_full": "sync full", "_normal": "sync normal", "_off": "sync off"}


def case_words(group, case):
    words = CASES.get(group, {}).get(case) or PARTS.get(case)
    if words:
        return words
    for suffix, setting in SUFFIXES.items():
        part = case.removesuffix(suffix)
        if part != case:
            return f"{PARTS.get(part, part.replace('_', ' '))}, {setting}"
    return case.replace("_", " ")


def in_order(group, cases):
    """The measured cases: the known ones in their order, then the others as they were measured."""
    known = [case for case in CASES.get(group, {}) if case in cases]
    return known + [case for case in cases if case not in known]
