"""The plots of docs/performance.md, drawn by gnuplot as SVG. A plot whose figures are missing is not drawn."""

import re
import subprocess
import textwrap

from . import labels

LABEL_WIDTH = 15
COLOURS = ("#3b6ea5", "#c8781e", "#5a8f4e", "#8a5a9e")
LOOK = """set terminal svg size {width},{height} font "Helvetica,Arial,sans-serif,13" background "#ffffff" enhanced
set output {output}
set border 3 linecolor "#606060"
set tics nomirror out textcolor "#303030"
set grid ytics linecolor "#dddddd" linewidth 1
set label {title} at screen 0.02, screen 0.95 left font ",15" textcolor "#202020"
set key at screen 0.98, screen 0.95 right top horizontal samplen 1.5 textcolor "#303030"
set tmargin 3.5
set style fill solid 0.95 noborder
set bars 0.4
set ylabel {axis} textcolor "#303030"
"""


def quoted(text):
    """A text for gnuplot; single quotes are doubled, and the marks of its enhanced mode and of Markdown go."""
    return "'" + re.sub(r"[`{}^@&~\\]", "", text).replace("_", " ").replace("'", "''") + "'"


def label(text):
    """A case's words under its bar, a line for each part and no line too long."""
    lines = [line for part in quoted(text)[1:-1].replace("''", "'").replace('"', "").split(", ")
             for line in textwrap.wrap(part, LABEL_WIDTH)]
    return '"' + "\\n".join(lines) + '"'


def plain(value):
    return "NaN" if value is None else f"{value:.6g}"


def scaled(highest, unit):
    """What to divide by so that an axis has short numbers, and the words for it."""
    for divisor, word in ((1e6, "million "), (1e4, "thousand ")):
        if highest >= divisor:
            return (1e6, word + unit) if divisor == 1e6 else (1e3, word + unit)
    return 1, unit


def _data(name, rows):
    return f"${name} << EOD\n" + "\n".join(" ".join(str(cell) for cell in row) for row in rows) + "\nEOD\n"


def _bounds(figure, divisor=1):
    return [plain(value / divisor) for value in (figure.median, figure.low, figure.high)]


def bar_chart(title, unit, series, cases, words, logarithmic=False):
    """A script for clustered bars with the lowest and highest round. series: [(name, {case: Figure})]."""
    cases = [case for case in cases if any(figures.get(case) for _, figures in series)]
    if not cases:
        return None
    highest = max(figure.high for _, figures in series for figure in figures.values())
    divisor, axis = (1, unit) if logarithmic else scaled(highest, unit)
    width = 0.8 / len(series)
    data, parts = "", []
    for index, (name, figures) in enumerate(series):
        place = f"($1 + {(index - (len(series) - 1) / 2) * width:.4f})"
        data += _data(f"series{index}", [(number, *_bounds(figures[case], divisor))
                                         for number, case in enumerate(cases) if figures.get(case)])
        named = f"title {quoted(name)}" if len(series) > 1 else "notitle"
        parts.append(f"$series{index} using {place}:2:({width * 0.92:.4f}) with boxes linecolor rgb "
                     f"'{COLOURS[index % len(COLOURS)]}' {named}")
        parts.append(f"$series{index} using {place}:2:3:4 with yerrorbars pointtype -1 linecolor rgb '#404040' notitle")
    labels_below = [label(words(case)) for case in cases]
    return (
        LOOK.format(width=max(560, 110 + 115 * len(cases)), height=380, title=quoted(title), axis=quoted(axis),
                    output="{output}")
        + f"set bmargin {1.5 + 1.2 * max(text.count(chr(92)) + 1 for text in labels_below):.1f}\n"
        + ("set logscale y\n" if logarithmic else "set yrange [0:*]\n")
        + "set xtics scale 0 (" + ", ".join(f"{text} {number}" for number, text in enumerate(labels_below)) + ")\n"
        + f"set xrange [-0.6:{len(cases) - 0.4:.1f}]\n" + data + "plot " + ", \\\n     ".join(parts) + "\n"
    )


def _figures(results, group, metric):
    figures = {}
    for case in results.cases(group):
        figure = results.figure(group, case, metric)
        if figure is not None:
            figures[case] = figure
    return figures


def _rate_chart(group, title, unit):
    def script(results):
        figures = _figures(results, group, "rate")
        return bar_chart(title, unit, [("", figures)], labels.in_order(group, list(figures)),
                         lambda case: labels.case_words(group, case))
    return script


def cost_chart(results):
    """Cost of a record by how many are held."""
    points = []
    for case in labels.in_order("cost_per_record", results.cases("cost_per_record")):
        held = case.removeprefix("held_")
        figure = results.figure("cost_per_record", case, "ns")
        if held.isdigit() and figure is not None:
            points.append((int(held), *_bounds(figure)))
    if not points:
        return None
    return (
        LOOK.format(width=600, height=360, title=quoted("Cost of a record by backlog"), axis="'ns a record'",
                    output="{output}")
        + "set xlabel 'records held' textcolor '#303030'\nset logscale x\nset format x '%.0s%c'\n"
        + "set yrange [0:*]\nset xrange [0.6:1000000]\nset key off\n" + _data("points", sorted(points))
        + f"plot $points using 1:2:3:4 with yerrorbars pointtype 7 linecolor rgb '{COLOURS[0]}', "
        + f"$points using 1:2 with lines linewidth 2 linecolor rgb '{COLOURS[0]}'\n"
    )


def storage_chart(results):
    """Rates by setting, of inserts and of inserts with their deletes."""
    groups = (("storage_insert", "insert"), ("storage_insert_delete", "insert and delete"))
    series = [(name, _figures(results, group, "rate")) for group, name in groups]
    cases = list(dict.fromkeys(case for _, figures in series for case in figures))
    return bar_chart("One record a connection, by setting", "records/s", series, cases,
                     lambda case: labels.case_words("storage_insert", case))


def latency_chart(results):
    series = [(name, _figures(results, "latency", metric))
              for name, metric in (("p50", "p50_us"), ("p99", "p99_us"), ("p99.9", "p999_us"))]
    return bar_chart("From reception to send", "µs", series, labels.in_order("latency", results.cases("latency")),
                     lambda case: labels.case_words("latency", case), logarithmic=True)


PLOTS = {
    "memory_pipeline": _rate_chart("memory_pipeline", "Through the component, in memory", "records/s"),
    "end_to_end_memory": _rate_chart("end_to_end_memory", "End to end in memory, file on tmpfs", "messages/s"),
    "cost_per_record": cost_chart,
    "storage_rates": storage_chart,
    "latency": latency_chart,
}


def draw(script, file):
    """Runs gnuplot. Raises OSError where it is not installed, subprocess.SubprocessError where it fails."""
    finished = subprocess.run(["gnuplot"], input=script.replace("{output}", quoted_path(file)), text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60, check=False)
    if finished.returncode != 0:
        raise subprocess.SubprocessError(f"gnuplot cannot draw {file.name}:\n{finished.stdout}")


def quoted_path(file):
    return "'" + str(file).replace("'", "''") + "'"


def draw_all(results, directory):
    """Draws what can be drawn into directory; the names of the plots whose figures are missing."""
    directory.mkdir(parents=True, exist_ok=True)
    missing = []
    for name, script_of in PLOTS.items():
        script = script_of(results)
        if script is None:
            missing.append(name)
        else:
            draw(script, directory / f"{name}.svg")
    return missing
