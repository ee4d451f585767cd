"""Makes the table, the plots and the page of a benchmark from the results of its runs in a folder.

Usage: report.py RESULTS   (scripts/bench fills the folder and calls this)
A target is met when the worst of at least five runs meets it. Exits with 1 when one is not.
"""

import json
import subprocess
import sys
from collections import defaultdict
from pathlib import Path
from statistics import median
from string import Template

ROOT = Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/performance.md"
FIGURES = ROOT / "docs/performance"
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
ENOUGH_RUNS = 5  # fewer tell nothing of how far they spread
COUNTS = (2000, 6000, 20000)
THREADS = (1, 2, 4, 8)
LIMIT_OF_SIZE = 200  # KiB
LINEAR = 1.2  # caches hold less of a long catalogue; what is worse than linear grows far more


class Run:
    """Nanoseconds of each benchmark in a run of a program: those of its fastest repetition."""

    def __init__(self, path, field):
        runs = defaultdict(list)
        for run in json.loads(path.read_text())["benchmarks"]:
            if run["run_type"] != "iteration":
                continue
            if run.get("error_occurred"):
                sys.exit(f"{path.name}: {run['name']}: {run['error_message']}")
            name = run["name"].split("/iterations:")[0]
            runs[name].append(run[field] * NANOSECONDS[run["time_unit"]])
        self.fastest = {name: min(times) for name, times in runs.items()}


class Times:
    """All runs of one program."""

    def __init__(self, folders, area, field):
        self.runs = [Run(folder / f"{area}.json", field) for folder in folders]

    def __getitem__(self, name):
        return median(run.fastest[name] for run in self.runs)

    def ratios(self, name, peer):
        return [run.fastest[name] / run.fastest[peer] for run in self.runs]


class Table:
    """Rows of work, what it is compared with, target and figure."""

    def __init__(self):
        self.rows = []
        self.missed = 0

    def add(self, work, peer, target, figures, text=None):
        """`figures` has one of each run; what is the same in all runs is added by `add_exact`."""
        if target is not None and len(figures) < ENOUGH_RUNS:
            self._append(work, peer, target, text or spread(figures), "**too few runs**")
        else:
            self._judge(work, peer, target, max(figures), text or spread(figures))

    def add_exact(self, work, peer, target, figure, text):
        self._judge(work, peer, target, figure, text)

    def _judge(self, work, peer, target, worst, text):
        met = target is None or worst <= target
        verdict = "reported" if target is None else "met" if met else "**missed**"
        self._append(work, peer, target, text, verdict)

    def _append(self, work, peer, target, text, verdict):
        self.missed += verdict.startswith("**")
        goal = "" if target is None else f"at most {target:g}"
        self.rows.append((work, peer, goal, text, verdict))

    def markdown(self):
        lines = ["| work | compared with | target | seen | |", "|---|---|---|---|---|"]
        return "\n".join(lines + [f"| {' | '.join(row)} |" for row in self.rows])

    def text(self):
        widths = [max(len(row[i]) for row in self.rows) for i in range(4)]
        form = "  ".join(f"{{:{width}}}" for width in widths) + "  {}"
        return "\n".join(form.format(*row) for row in self.rows).replace("**", "")


def spread(figures):
    """The best and the worst of the runs, or one figure where they look the same."""
    return " to ".join(dict.fromkeys(f"{figure:.2f}" for figure in (min(figures), max(figures))))


def divided(dividends, divisors):
    """The quotients, run by run."""
    return [dividend / divisor for dividend, divisor in zip(dividends, divisors, strict=True)]


def lines(table, log, together):
    table.add("one log line to both sinks", "two bare write(2)", 1.1,
              log.ratios("Library", "SystemCalls"))
    table.add("the same", "spdlog, two sinks, flushed every line", 0.75,
              log.ratios("Library", "Spdlog"))
    for threads in (2, 8):
        table.add(f"{threads} threads logging", "spdlog, the same", 1.0,
                  together.ratios(f"LibraryThreads/{threads}", f"SpdlogThreads/{threads}"))


def loads(table, load, paused):
    table.add("loading 1,000 entries, pauses included", "as many bare pauses of 1 ms", 1.02,
              paused.ratios("LibraryLoadsWithPauses", "Pauses"))
    for count in (2000, 20000):
        table.add(f"loading {count:,} entries, without pauses", "readdir and lstat alone", 2.0,
                  load.ratios(f"LibraryLoads/{count}", f"SystemCalls/{count}"))
    few, many = (load.ratios(f"LibraryLoads/{count}", f"SystemCalls/{count}")
                 for count in (COUNTS[0], COUNTS[-1]))
    table.add("that ratio at 20,000 entries", "itself at 2,000", LINEAR, divided(many, few))
    for count in (2000, 20000):
        table.add(f"loading and sorting {count:,} entries",
                  "std::filesystem into records, stable sort", 0.75,
                  load.ratios(f"LibraryLoadsAndSorts/{count}", f"StandardLibrary/{count}"))


def room(table, make):
    ratios = {}
    for count in (2000, 20000):
        ratios[count] = make.ratios(f"Library/{count}", f"SystemCalls/{count}")
        table.add(f"MakeRoom, per deleted file, {count:,} recordings",
                  "statvfs, access and unlink alone", 1.15, ratios[count])
    table.add("that ratio at 20,000 recordings", "itself at 2,000", LINEAR,
              divided(ratios[20000], ratios[2000]))
    among = make["LibraryAmongProtectedFiles/2000"]
    behind = make.ratios("LibraryAmongProtectedFiles/2000", "Library/2000")
    table.add("MakeRoom behind 10,000 protected files, per deleted file", "itself without them",
              None, behind, f"{median(behind):.0f} ({among / 1e3:.0f} microseconds)")


def health(table, summary):
    table.add("health summary to text and back", "nlohmann::json", 0.5,
              summary.ratios("Library", "Nlohmann"))
    table.add("the same", "RapidJSON", 1.2, summary.ratios("Library", "RapidJson"))


def memory(table, results):
    for machine in ("host", "armhf"):
        figures = json.loads((results / f"memory-{machine}.json").read_text())
        ratio = figures["bytes"] / figures["fixed"]
        table.add_exact(f"memory per catalogued file, {machine}",
                        f"{figures['fixed']} bytes fixed", 1.15, ratio,
                        f"{ratio:.2f} ({figures['bytes']:.0f} bytes)")


def size(table, sizes):
    kibibytes = sizes["stripped"] / 1024
    table.add_exact("both libraries for armhf, stripped, in KiB", "", LIMIT_OF_SIZE, kibibytes,
                    f"{kibibytes:.1f}")


def start(table, results):
    path = results / "start_up.json"
    if not path.exists() or not path.read_text():
        table.rows.append(("start-up of a good card", "a shell script", "at most 1.03", "skipped",
                           "no private root here"))
        return
    seconds = json.loads(path.read_text())
    table.add("start-up of a good card", "a shell script with the same commands and pauses", 1.03,
              divided(seconds["library"], seconds["script"]))


def component_table(sizes):
    rows = [f"| `{name}/` | {count:,} |" for name, count in sorted(sizes["components"].items())]
    return "\n".join(["| component | bytes of code and data |", "|---|---|"] + rows)


def plot(name, title, axes, curves, key, logarithmic=False):
    """One SVG: `curves` maps a label to (x, y) pairs; `key` says where no curve is."""
    commands = [
        "set terminal svg size 640,400 background '#ffffff' font 'sans,12'",
        f"set output '{FIGURES / name}.svg'",
        f"set title '{title}'", f"set xlabel '{axes[0]}'", f"set ylabel '{axes[1]}'",
        f"set key {key}", "set grid", "set yrange [0:*]",
    ]
    if logarithmic:
        commands.append("set logscale x 2")
    labels = list(curves)
    xs = [x for x, _ in curves[labels[0]]]
    commands.append("set xtics (" + ", ".join(f"'{x:,}' {x}" for x in xs) + ")")
    commands.append("plot " + ", ".join(
        f"'-' with linespoints linewidth 2 title '{label}'" for label in labels))
    for label in labels:
        commands += [f"{x} {y}" for x, y in curves[label]] + ["e"]
    subprocess.run(["gnuplot"], input="\n".join(commands) + "\n", text=True, check=True)


def plots(together, load, make):
    FIGURES.mkdir(parents=True, exist_ok=True)

    def curve(times, name, arguments, unit):
        return [(argument, times[f"{name}/{argument}"] / unit) for argument in arguments]

    plot("log", "One log line to a file and the console", ("threads", "microseconds a line"), {
        "the library": curve(together, "LibraryThreads", THREADS, 1e3),
        "spdlog": curve(together, "SpdlogThreads", THREADS, 1e3),
    }, "left bottom", logarithmic=True)
    plot("load", "Loading and sorting a catalogue, without pauses", ("files", "milliseconds"), {
        "the library": curve(load, "LibraryLoadsAndSorts", COUNTS, 1e6),
        "std::filesystem, stable sort": curve(load, "StandardLibrary", COUNTS, 1e6),
        "readdir and lstat alone": curve(load, "SystemCalls", COUNTS, 1e6),
    }, "left top")
    plot("reclaim", "Making room", ("recordings in the catalogue", "microseconds a deleted file"), {
        "the library": curve(make, "Library", COUNTS, 1e3),
        "statvfs, access and unlink alone": curve(make, "SystemCalls", COUNTS, 1e3),
    }, "right bottom")


class Board:
    """Instructions on the board, of all runs."""

    TARGETS = {"log_line": 1.35, "catalogued_file": 2.0, "deleted_file": 1.08}

    def __init__(self, folders):
        self.runs = [json.loads((folder / "board.json").read_text()) for folder in folders]

    def ratios(self, work):
        return [run[work] / run[f"bare_{work}"] for run in self.runs]

    def judge(self, table):
        for work, target in self.TARGETS.items():
            table.add(f"{work.replace('_', ' ')} on the board, in instructions",
                      "the system calls alone", target, self.ratios(work))

    def markdown(self):
        rows = []
        for work in self.TARGETS:
            own, bare = (median(run[name] for run in self.runs) for name in (work, f"bare_{work}"))
            rows.append(f"| {work.replace('_', ' ')} | {own:,.0f} | {bare:,.0f} | "
                        f"{spread(self.ratios(work))} |")
        return "\n".join(
            ["| work | library | system calls alone | ratio |", "|---|---|---|---|"] + rows)


def instructions():
    rows = []
    for line in (ROOT / "bench/instructions.txt").read_text().splitlines():
        if not line.startswith("#"):
            work, count = line.split()
            rows.append(f"| {work.replace('_', ' ')} | {int(count):,} |")
    return "\n".join(["| work | instructions |", "|---|---|"] + rows)


def main():
    results = Path(sys.argv[1])
    runs = sorted(results.glob("run-*"))
    log = Times(runs, "log", "cpu_time")
    together = Times(runs, "log", "real_time")
    load = Times(runs, "catalogue", "cpu_time")
    paused = Times(runs, "catalogue", "real_time")
    make = Times(runs, "make_room", "real_time")
    board = Board(runs)
    sizes = json.loads((results / "sizes.json").read_text())

    table = Table()
    lines(table, log, together)
    loads(table, load, paused)
    room(table, make)
    health(table, Times(runs, "health_json", "cpu_time"))
    board.judge(table)
    memory(table, results)
    size(table, sizes)
    start(table, results)
    print(table.text())

    plots(together, load, make)
    page = Template((ROOT / "bench/performance.md.in").read_text())
    PAGE.write_text(page.substitute(
        table=table.markdown(), components=component_table(sizes), instructions=instructions(),
        board_instructions=board.markdown(), runs=len(runs),
        machine=(results / "machine.txt").read_text().strip()))
    if table.missed:
        print(f"{table.missed} targets missed")
    return 1 if table.missed else 0


if __name__ == "__main__":
    sys.exit(main())
