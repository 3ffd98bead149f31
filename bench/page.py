#!/usr/bin/env python3
"""Writes the page of measured figures and its charts from the stored results of the benchmarks.

  bench/page.py [RESULTS [PAGE]]      default: build/bench/results docs/performance.md

RESULTS holds one file per family:
  FAMILY.json   what Google Benchmark wrote; a case is "operation/contestant", its figure the
                counter "ns" or else the real time
  FAMILY.tsv    lines of operation, contestant, ns per request (families measured by a script),
                with FAMILY.txt, the script's own table

bench/targets.tsv says what is aimed at, bench/notes/FAMILY.md what bounds the figures, and the
comment at the top of bench/FAMILY_bench.cpp what they mean. Charts go to PAGE without ".md".
"""

import collections
import fnmatch
import json
import math
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BENCH = ROOT / "bench"
TITLES = {
    "queue": "Queues between processes",
    "heap": "Heap in shared memory",
    "table": "Table in shared memory",
    "log": "Log",
    "config": "Configuration: XML",
    "ini": "Configuration: INI",
    "runtime": "State machines and timers",
    "delay_stat": "Latency statistics",
    "socket": "Sockets",
    "process": "Processes",
    "long_action": "Long actions: serialised form",
    "aio": "Asynchronous file input and output",
    "mysql": "Database",
    "kv": "The example server",
}

Figure = collections.namedtuple("Figure", "median low high runs extra")
Target = collections.namedtuple("Target", "operation peer at_least")


def is_ours(contestant):
    return contestant == "zelk" or contestant.startswith("zelk-")


def is_limit(contestant):
    return contestant == "limit" or contestant.startswith("limit-")


class Family:
    """The figures of one family: operation -> contestant -> Figure."""

    def __init__(self, name, results):
        self.name = name
        self.title = TITLES.get(name, name)
        self.operations = {}
        self.text = ""
        self.state = ""
        if (results / f"{name}.json").exists():
            self.read_json(results / f"{name}.json")
        else:
            self.read_tsv(results / f"{name}.tsv", results / f"{name}.txt")

    def read_json(self, path):
        content = json.loads(path.read_text())
        samples = collections.defaultdict(list)
        for run in content["benchmarks"]:
            if run["run_type"] == "iteration" and not run.get("error_occurred"):
                samples[tuple(run["name"].split("/")[:2])].append(run)
        # As registered; repetitions came at random.
        for (operation, contestant), runs in sorted(
                samples.items(), key=lambda item: item[1][0]["family_index"]):
            self.operations.setdefault(operation, {})[contestant] = figure_of(runs)
        context = content["context"]
        load = ", ".join(f"{value:.2f}" for value in context["load_avg"])
        self.state = f"{context['date'][:16].replace('T', ' ')}, load before it {load}"
        if context["load_avg"][0] > context["num_cpus"] / 2:
            self.state += " (**the machine was busy: repeat it**)"

    def read_tsv(self, path, text):
        for line in path.read_text().splitlines():
            operation, contestant, nanoseconds = line.split("\t")
            value = float(nanoseconds)
            figure = Figure(value, value, value, 1, "")
            self.operations.setdefault(operation, {})[contestant] = figure
        self.text = text.read_text() if text.exists() else ""
        self.state = time.strftime("%Y-%m-%d %H:%M", time.localtime(path.stat().st_mtime))

    def repetitions(self):
        runs = {f.runs for contestants in self.operations.values() for f in contestants.values()}
        return max(runs, default=0)


def figure_of(runs):
    units = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    values = [run.get("ns", run["real_time"] * units[run["time_unit"]]) for run in runs]
    known = {"real_time", "cpu_time", "iterations", "threads", "repetitions", "repetition_index",
             "family_index", "per_family_instance_index", "ns"}
    extra = [
        f"{name} {format_number(statistics.median(run[name] for run in runs))}"
        for name, value in runs[0].items()
        if name not in known and isinstance(value, (int, float))
    ]
    return Figure(statistics.median(values), min(values), max(values), len(values),
                  ", ".join(extra))


def format_number(value):
    """Three significant digits, but never fewer than the whole part."""
    if value == 0 or not math.isfinite(value):
        return f"{value:g}"
    return f"{value:,.{max(0, 2 - math.floor(math.log10(abs(value))))}f}"


def format_time(nanoseconds):
    for unit, factor in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= factor:
            return f"{format_number(nanoseconds / factor)} {unit}"
    return f"{format_number(nanoseconds)} ns"


def format_ratio(ratio):
    return f"{ratio:,.{2 if ratio < 10 else 1 if ratio < 100 else 0}f}"


def table(head, rows):
    lines = [head, ["---"] * len(head)] + rows
    return "".join("| " + " | ".join(cells) + " |\n" for cells in lines)


def read_targets():
    targets = collections.defaultdict(list)
    for line in (BENCH / "targets.tsv").read_text().splitlines():
        if line and not line.startswith("#"):
            family, operation, peer, at_least = line.split("\t")
            targets[family].append(Target(operation, peer, float(at_least)))
    return targets


def fastest(contestants, wanted):
    """The name of the fastest contestant among those wanted, None when there is none."""
    names = [name for name in contestants if wanted(name)]
    return min(names, key=lambda name: contestants[name].median, default=None)


def rival_of(contestants, peer):
    """The contestant whom a target means: "best", or the fastest of "pattern|pattern"."""
    if peer == "best":
        return fastest(contestants, lambda name: not is_ours(name) and not is_limit(name))
    patterns = peer.split("|")
    return fastest(contestants, lambda name: any(fnmatch.fnmatchcase(name, p) for p in patterns))


class Verdict:
    """One target beside the figure that was measured."""

    def __init__(self, target, operation, ours, contestants):
        self.target = target
        self.operation = operation
        self.rival = rival_of(contestants, target.peer)
        self.ratio = contestants[self.rival].median / contestants[ours].median
        self.reached = self.ratio >= target.at_least

    def measured(self):
        """The ratio, never rounded to the other side of its target."""
        for digits in (2, 3, 4):
            text = f"{self.ratio:.{digits}f}"
            if (float(text) >= self.target.at_least) == self.reached:
                break
        return text

    def __str__(self):
        mark = "✓" if self.reached else "**missed**"
        return f"≥ {self.target.at_least:g} {self.rival}: {self.measured()} {mark}"


def verdicts_of(family, targets):
    """(operation, ours) -> its verdicts, and the targets for which nothing was measured."""
    verdicts = collections.defaultdict(list)
    unmeasured = []
    for target in targets:
        found = False
        for operation in fnmatch.filter(family.operations, target.operation):
            contestants = family.operations[operation]
            for ours in filter(is_ours, contestants):
                if rival_of(contestants, target.peer):
                    verdicts[operation, ours].append(
                        Verdict(target, operation, ours, contestants))
                    found = True
        if not found:
            unmeasured.append(target)
    return verdicts, unmeasured


def against(contestants, ours, rival):
    """Cells for a rival: its name and time, and the ratio."""
    if rival is None:
        return ["", ""]
    figure = contestants[rival]
    return [f"{rival} {format_time(figure.median)}",
            format_ratio(figure.median / contestants[ours].median)]


def summary(family, verdicts):
    rows = []
    for operation, contestants in family.operations.items():
        for ours in filter(is_ours, contestants):
            name = operation if ours == "zelk" else f"{operation}, {ours}"
            rows.append(
                [name, format_time(contestants[ours].median)]
                + against(contestants, ours, rival_of(contestants, "best"))
                + against(contestants, ours, fastest(contestants, is_limit))
                + ["<br>".join(map(str, verdicts.get((operation, ours), [])))])
    head = ["operation", "ours", "best peer", "ratio", "limit", "ratio", "target: measured"]
    return table(head, rows) if rows else ""


def comparison(family):
    """The operations in which we have no part: one column per contestant."""
    alone = {o: c for o, c in family.operations.items() if not any(map(is_ours, c))}
    names = list(dict.fromkeys(name for contestants in alone.values() for name in contestants))
    rows = [[operation] + [format_time(c[n].median) if n in c else "" for n in names]
            for operation, c in alone.items()]
    return table(["operation"] + names, rows) if rows else ""


def all_figures(family):
    rows = []
    for operation, contestants in family.operations.items():
        ours = fastest(contestants, is_ours)
        for name, figure in sorted(contestants.items(), key=lambda item: item[1].median):
            ratio = format_ratio(figure.median / contestants[ours].median) if ours else ""
            spread = f"{format_time(figure.low)} – {format_time(figure.high)}"
            if figure.runs == 1:
                spread = ""
            rows.append([operation, name, format_time(figure.median), spread, ratio, figure.extra])
    head = ["operation", "contestant", "median", "range", "ratio", "beside it"]
    return f"<details><summary>All figures</summary>\n\n{table(head, rows)}\n</details>\n"


def program_of(name):
    """The source of a family, None when there is none any more."""
    paths = [BENCH / f"{name}_bench.cpp", BENCH / name]
    return next(filter(pathlib.Path.exists, paths), None)


def top_comment(name):
    lines = []
    for line in program_of(name).read_text().splitlines():
        if not lines and line.startswith("#!"):
            continue
        if not line.startswith(("//", "#")):
            break
        lines.append(re.sub(r"^(//|#) ?", "", line))
    return "\n".join(lines)


# The charts. One bar per contestant: its time divided by ours, the ratio of the tables.

THEMES = {
    # Orange and blue of one brightness scale stay apart for every kind of colour vision.
    "light": {"back": "#ffffff", "text": "#1f2328", "faint": "#d1d9e0", "ours": "#d55e00",
              "peer": "#5b9bd5", "limit": "#a0a7ae"},
    "dark": {"back": "#0d1117", "text": "#e6edf3", "faint": "#30363d", "ours": "#ff9e45",
             "peer": "#3d78b3", "limit": "#6e7681"},
}
ROW = 16           # pixels
NAMES_WIDTH = 190  # of the contestants' names
BAR_WIDTH = 240
CLIP = 3.0         # the longest bar; a slower contestant ends there and says so
FIGURE_WIDTH = 110
COLUMN = NAMES_WIDTH + BAR_WIDTH + FIGURE_WIDTH
TOP = 52
ONE_COLUMN = 36  # rows up to which one column is enough


def chart_groups(family, verdicts):
    """Those with a target, or all if there is none: (operation, [(name, figure, ratio)])."""
    wanted = {operation for operation, _ in verdicts}
    groups = []
    for operation, contestants in family.operations.items():
        ours = fastest(contestants, is_ours)
        if ours is None or len(contestants) == 1 or (wanted and operation not in wanted):
            continue
        order = sorted(contestants.items(),
                       key=lambda c: (not is_ours(c[0]), is_limit(c[0]), c[1].median))
        groups.append((operation, [(name, figure, figure.median / contestants[ours].median)
                                   for name, figure in order]))
    return groups


def columns_of(groups):
    rows = sum(len(bars) + 2 for _, bars in groups)
    columns = [[]]
    used = 0
    for group in groups:
        size = len(group[1]) + 2
        if rows > ONE_COLUMN and len(columns) == 1 and used + size / 2 > rows / 2:
            columns.append([])
        columns[-1].append(group)
        used += size
    return columns


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def column_commands(groups, left, theme):
    """gnuplot's commands for one column, in pixels from the top left, and its bottom."""
    zero = left + NAMES_WIDTH
    unit = BAR_WIDTH / CLIP
    commands = []
    y = TOP

    def label(text, x, align, weight=""):
        commands.append(f"set label {quoted(text)} at {x:.0f},{y:.0f} {align} "
                        f"tc rgb '{theme['text']}'{weight}")

    for operation, bars in groups:
        y += ROW
        label(operation, left + 10, "left", " font ',13'")
        top = y + ROW * 0.6
        for name, figure, ratio in bars:
            y += ROW
            kind = "ours" if is_ours(name) else "limit" if is_limit(name) else "peer"
            end = zero + min(ratio, CLIP) * unit
            commands.append(
                f"set object rectangle from {zero},{y - ROW * 0.38:.1f} to "
                f"{end:.1f},{y + ROW * 0.38:.1f} fc rgb '{theme[kind]}' fs solid 1 noborder")
            label(name, zero - 6, "right")
            more = " »" if ratio > CLIP else ""
            label(f"{format_ratio(ratio)}{more}  {format_time(figure.median)}",
                  max(end, zero + unit) + 6, "left")
        commands.append(f"set arrow from {zero + unit:.1f},{top:.1f} to {zero + unit:.1f},"
                        f"{y + ROW * 0.6:.1f} nohead front lw 1 dt 3 lc rgb '{theme['text']}'")
        commands.append(f"set arrow from {zero},{top:.1f} to {zero},{y + ROW * 0.6:.1f} "
                        f"nohead lw 1 lc rgb '{theme['faint']}'")
        y += ROW * 0.8
    return commands, y


def draw(family, groups, path, theme):
    commands = []
    bottom = 0
    columns = columns_of(groups)
    for i, column in enumerate(columns):
        more, y = column_commands(column, i * COLUMN, theme)
        commands += more
        bottom = max(bottom, y)
    width = len(columns) * COLUMN + 20
    height = bottom + ROW
    script = "\n".join([
        f"set terminal svg noenhanced size {width},{height:.0f} font 'sans-serif,12' "
        f"background '{theme['back']}'",
        f"set output {quoted(str(path))}",
        "unset border; unset tics; unset key",
        "set lmargin at screen 0; set rmargin at screen 1",
        "set tmargin at screen 1; set bmargin at screen 0",
        f"set xrange [0:{width}]; set yrange [{height:.0f}:0]",
        f"set label {quoted(family.title)} at 10,18 left tc rgb '{theme['text']}' font ',15'",
        f"set label 'time divided by ours, and the median: shorter is faster' at 10,36 left "
        f"tc rgb '{theme['text']}'",
        *commands, "plot NaN", ""])
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def chart(family, verdicts, page):
    groups = chart_groups(family, verdicts)
    if not groups:
        return ""
    directory = page.with_suffix("")
    directory.mkdir(parents=True, exist_ok=True)
    for theme, colours in THEMES.items():
        draw(family, groups, directory / f"{family.name}-{theme}.svg", colours)
    base = f"{directory.name}/{family.name}"
    return (f'<picture>\n<source media="(prefers-color-scheme: dark)" srcset="{base}-dark.svg">\n'
            f'<img alt="Bars: {family.title}" src="{base}-light.svg">\n</picture>\n')


def section(family, verdicts, unmeasured, page):
    notes = BENCH / "notes" / f"{family.name}.md"
    repetitions = family.repetitions()
    how = f", medians of {repetitions} interleaved repetitions" if repetitions > 1 else ""
    parts = [
        f"## {family.title}\n",
        f"`script/bench {family.name}`, {family.state}{how}.\n",
        notes.read_text() if notes.exists() else "",
        chart(family, verdicts, page),
        summary(family, verdicts),
        comparison(family),
        "".join(f"- Not measured: {t.operation} against {t.peer}, target {t.at_least:g}\n"
                for t in unmeasured),
        f"```text\n{family.text.rstrip()}\n```\n" if family.text else "",
        f"<details><summary>What is measured</summary>\n\n```text\n{top_comment(family.name)}\n"
        "```\n\n</details>\n",
        all_figures(family),
    ]
    return "\n".join(part for part in parts if part)


def machine():
    model = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    cache = (ROOT / "build/bench/CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M).group(1)
    version = subprocess.run([compiler, "--version"], capture_output=True, text=True, check=True)
    return (f"{os.cpu_count()} × {model.group(1) if model else platform.machine()}, "
            f"Linux {platform.release()}, {version.stdout.splitlines()[0]}, Release")


def intro(verdicts):
    missed = [(f, v) for f, v in verdicts if not v.reached]
    lines = "".join(f"- [{f.title}](#{anchor(f.title)}), {v.operation}: {v.measured()} against "
                    f"{v.rival}, target {v.target.at_least:g}\n" for f, v in missed)
    return f"""# Measured

Written by `script/bench`: do not edit.

Each family of operations is measured beside what a user would pick instead, in one run, with the
same work for each contestant. A figure is the median of repetitions that are interleaved at random,
so that a drift of the machine falls on all alike. A ratio is the contestant's time by ours: above 1
ours is faster. "limit" is what the machine itself takes for the least that has to be done.

Machine: {machine()}.

Ratios travel to other machines better than times do, and a virtual machine is noisy: repeat a
figure before you lean on it.

Targets reached: {len(verdicts) - len(missed)} of {len(verdicts)}.{' Missed:' if missed else ''}

{lines}"""


def anchor(title):
    return re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-")


def main():
    results = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build/bench/results")
    page = pathlib.Path(sys.argv[2] if len(sys.argv) > 2 else ROOT / "docs/performance.md")
    names = {path.stem for path in results.iterdir()
             if path.suffix in (".json", ".tsv") and program_of(path.stem)}
    order = [name for name in TITLES if name in names] + sorted(names - TITLES.keys())
    targets = read_targets()
    all_verdicts = []
    sections = []
    for name in order:
        family = Family(name, results)
        verdicts, unmeasured = verdicts_of(family, targets[name])
        all_verdicts += [(family, v) for group in verdicts.values() for v in group]
        sections.append(section(family, verdicts, unmeasured, page))
    absent = sorted(set(targets) - names)
    if absent:
        sections.append(f"Families without a stored result: {', '.join(absent)}.\n")
    page.write_text("\n".join([intro(all_verdicts)] + sections))


if __name__ == "__main__":
    main()
