"""The tables of docs/performance.md, as Markdown. A figure that is missing is said to be missing."""

import dataclasses

from . import labels, targets

SURVIVES = {"memory": "nothing", "process": "a kill", "power cut": "a power cut"}
MISSING = "not measured"


def number(value):
    """Three digits that count, or all of a large number."""
    if value == 0:
        return "0"
    size = abs(value)
    if size >= 100:
        return f"{value:,.0f}"
    if size >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}" if size >= 1 else f"{value:.3g}"


def times(value):
    return f"{value:.2f}"


def percent(value):
    return f"{value:.0%}"


def mebibytes(value):
    return number(value / 2**20)


def spread(figure, form=number):
    """The median, with the lowest and highest round where there are several."""
    if figure is None:
        return MISSING
    low, median, high = form(figure.low), form(figure.median), form(figure.high)
    return median if low == high else f"{median} ({low}–{high})"


@dataclasses.dataclass(frozen=True)
class Column:
    """One metric's figures. base: the case of the same group that a ratio is taken against."""

    heading: str
    metric: str
    form: object = number
    base: str = ""

    def cell(self, results, group, case):
        if not self.base:
            return spread(results.figure(group, case, self.metric), self.form)
        base = self.base
        for suffix in labels.SUFFIXES:  # bare_full for component_full
            if case.endswith(suffix) and f"{self.base}{suffix}" in results.cases(group):
                base = f"{self.base}{suffix}"
        if case == base:
            return "1"
        ratio = results.ratio(group, case, self.metric, base)
        return "" if ratio is None else spread(ratio, times)


def markdown(headings, rows):
    lines = ["| " + " | ".join(headings) + " |", "|" + "---|" * len(headings)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def group_table(results, group, first_heading, columns, durability=True):
    cases = labels.in_order(group, results.cases(group))
    rows = []
    for case in cases:
        cells = [column.cell(results, group, case) for column in columns]
        if set(cells) <= {MISSING, ""}:
            continue  # a case of other metrics
        row = [labels.case_words(group, case), *[cell if cell != MISSING else "" for cell in cells]]
        rows.append(row + ([SURVIVES[results.durability(group, case)]] if durability else []))
    if not rows:
        return f"Not measured yet (`bench/run --only {group}`)."
    headings = [first_heading, *[column.heading for column in columns]]
    return markdown(headings + (["survives"] if durability else []), rows)


def target_table(results):
    rows = []
    for target in targets.TARGETS:
        figure = target.figure(results)
        form = times if target.base or target.unit == "times" else number
        verdict = target.verdict(results)
        rows.append([
            target.what, target.against, f"{target.relation} {target.value:g} {target.unit}",
            form(figure.median) if figure else "",
            f"{form(figure.low)}–{form(figure.high)}" if figure and figure.rounds > 1 else "",
            SURVIVES[target.durability], verdict if verdict == targets.MET else f"**{verdict}**",
        ])
    return markdown(["what", "against", "target", "median", "rounds", "survives", ""], rows)


def verdict_counts(results):
    """Words for the end of a run: how many targets were met, missed and not measured."""
    verdicts = [target.verdict(results) for target in targets.TARGETS]
    return ", ".join(f"{verdicts.count(verdict)} {verdict}" for verdict in targets.VERDICTS if verdict in verdicts)


def machine_table(results):
    rows = [[key, str(value)] for key, value in results.machine.items()]
    return markdown(["", ""], rows) if rows else "Not measured yet (`bench/run`)."


def run_table(results):
    if not results.runs:
        return "Not measured yet (`bench/run`)."
    rows = [[f"`{run['program']}`", ", ".join(run["groups"]), run["mode"], run["commit"] + (" and changes" if run["changed"] else ""),
             run["started"], f"{run['seconds']:.0f} s", f"{run['load']:.2f}",
             f"{run['busy']:.0%}" + (" (**busy**)" if run["warned"] else "")] for run in results.runs]
    return markdown(["program", "groups", "run", "commit", "begun", "took", "load average before", "processors in use before"],
                    rows)


RATE = Column("records/s", "rate")


def _of(group, heading, *columns, durability=True):
    return lambda results: group_table(results, group, heading, columns, durability)


SYNCS = (Column("file syncs a record", "file_syncs"), Column("directory syncs a record", "directory_syncs"))
PEER_COLUMNS = (Column("messages/s", "rate"), Column("ratio to ours", "rate", base="qmlogcache"),
                Column("CPU µs a message", "cpu_us_per_message"),
                Column("bytes written a message", "bytes_written_per_message"))


def drain_table(results):
    """Files of several sizes: a group for each, storage_drain_ROWS."""
    columns = (Column("seconds", "duration"), RATE, Column("of it VACUUM", "vacuum_share", percent))
    rows = []
    for group in sorted(results.groups(), key=lambda name: (len(name), name)):
        size = group.removeprefix("storage_drain_")
        if not size.isdigit():
            continue
        for case in results.cases(group):
            cells = [column.cell(results, group, case) for column in columns]
            rows.append([f"{int(size):,}", labels.case_words("storage_drain", case),
                         *["" if cell == MISSING else cell for cell in cells],
                         SURVIVES[results.durability(group, case)]])
    if not rows:
        return "Not measured yet (`bench/run --only storage_drain`)."
    return markdown(["rows", "", *[column.heading for column in columns], "survives"], rows)


TABLES = {
    "targets": target_table,
    "machine": machine_table,
    "runs": run_table,
    "memory_pipeline": _of("memory_pipeline", "", RATE, Column("ratio", "rate", base="bare")),
    "cost_per_record": _of("cost_per_record", "records held", Column("ns a record", "ns"),
                           Column("ratio", "ns", base="held_1000")),
    "memory_held": _of("memory_held", "records held", Column("resident MiB", "rss_bytes", mebibytes),
                       Column("MiB of tagged texts", "text_bytes", mebibytes), Column("ratio", "ratio", times)),
    "intake_at_limit": _of("intake_at_limit", "", Column("ns a record", "ns"),
                           Column("ratio", "ns", base="below_limit")),
    "latency": _of("latency", "", Column("p50 µs", "p50_us"), Column("p99 µs", "p99_us"), Column("p99.9 µs", "p999_us"),
                   Column("records sent before it", "position")),
    "log_line_off": _of("log_line_off", "", Column("ns", "ns"), durability=False),
    "end_to_end_memory": _of("end_to_end_memory", "", *PEER_COLUMNS),
    "end_to_end_disk": _of("end_to_end_disk", "", *PEER_COLUMNS),
    "memory_backlog": _of("memory_backlog", "", Column("resident MiB", "rss_mib"),
                          Column("without a backlog", "baseline_mib"),
                          Column("ratio to ours", "rss_mib", base="qmlogcache"),
                          Column("ratio to the tagged texts", "text_ratio", times)),
    "storage_insert": _of("storage_insert", "", Column("inserts/s", "rate"), Column("ratio", "rate", base="bare"),
                          *SYNCS),
    "storage_insert_delete": _of("storage_insert_delete", "", RATE, Column("ratio", "rate", base="bare"), *SYNCS),
    "storage_senders": _of("storage_senders", "senders", Column("inserts/s", "rate"),
                           Column("ratio", "rate", base="senders_1")),
    "storage_save": _of("storage_save", "", RATE, Column("ratio", "rate", base="bare")),
    "storage_load": _of("storage_load", "", RATE, Column("ratio", "rate", base="bare")),
    "storage_drain": drain_table,
    "link_rate": _of("link_rate", "", RATE, Column("window / round trip", "window_bound"),
                     Column("share", "window_share", percent), Column("ms a round trip", "round_trip")),
    "link_outage": _of("link_outage", "", Column("seconds to the first record", "seconds")),
    "fleet": _of("fleet", "", Column("attempts/s, last minute away", "away_rate"),
                 Column("most in a second away", "away_most"), Column("most back in a second", "back_most"),
                 Column("half are back, s", "back_50"), Column("90 %", "back_90"), Column("all", "back_100"),
                 durability=False),
    "instructions": _of("instructions", "path", Column("instructions a record", "instructions"), durability=False),
}


def render_all(results):
    return {name: render(results) for name, render in TABLES.items()}
