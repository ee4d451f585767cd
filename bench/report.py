"""Makes the table, the plots and the page of a benchmark run from the results in a folder.

Usage: report.py RESULTS   (scripts/bench fills the folder and calls this)
Exits with 1 when a target is missed.
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
COUNTS = (2000, 6000, 20000)
THREADS = (1, 2, 4, 8)
LIMIT_OF_SIZE = 200  # KiB
LINEAR = 1.2  # caches hold less of a long catalogue; what is worse than linear grows far more


class Times:
    """Nanoseconds of each benchmark of one program: those of its fastest repetition."""

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

    def __getitem__(self, name):
        return self.fastest[name]

    def ratio(self, name, peer):
        return self[name] / self[peer]


class Table:
    """Rows of work, what it is compared with, target and figure."""

    def __init__(self):
        self.rows = []
        self.missed = 0

    def add(self, work, peer, target, figure, text=None):
        met = target is None or figure <= target
        self.missed += not met
        verdict = "reported" if target is None else "met" if met else "**missed**"
        goal = "" if target is None else f"at most {target:g}"
        self.rows.append((work, peer, goal, text or f"{figure:.2f}", verdict))

    def markdown(self):
        lines = ["| work | compared with | target | seen | |", "|---|---|---|---|---|"]
        return "\n".join(lines + [f"| {' | '.join(row)} |" for row in self.rows])

    def text(self):
        widths = [max(len(row[i]) for row in self.rows) for i in range(4)]
        form = "  ".join(f"{{:{width}}}" for width in widths) + "  {}"
        return "\n".join(form.format(*row) for row in self.rows).replace("**", "")


def lines(table, log, together):
    table.add("one log line to both sinks", "two bare write(2)", 1.25,
              log.ratio("Library", "SystemCalls"))
    table.add("the same", "spdlog, two sinks, flushed every line", 0.75,
              log.ratio("Library", "Spdlog"))
    for threads in (2, 8):
        table.add(f"{threads} threads logging", "spdlog, the same", 1.0,
                  together.ratio(f"LibraryThreads/{threads}", f"SpdlogThreads/{threads}"))


def loads(table, load, paused):
    table.add("loading 1,000 entries, pauses included", "as many bare pauses of 1 ms", 1.02,
              paused.ratio("LibraryLoadsWithPauses", "Pauses"))
    for count in (2000, 20000):
        table.add(f"loading {count:,} entries, without pauses", "readdir and lstat alone", 2.0,
                  load.ratio(f"LibraryLoads/{count}", f"SystemCalls/{count}"))
    growth = [load[f"LibraryLoads/{count}"] / load[f"SystemCalls/{count}"] for count in COUNTS]
    table.add("that ratio at 20,000 entries", "itself at 2,000", LINEAR, growth[-1] / growth[0])
    for count in (2000, 20000):
        table.add(f"loading and sorting {count:,} entries",
                  "std::filesystem into records, stable sort", 0.75,
                  load.ratio(f"LibraryLoadsAndSorts/{count}", f"StandardLibrary/{count}"))


def room(table, make):
    ratios = {}
    for count in (2000, 20000):
        ratios[count] = make.ratio(f"Library/{count}", f"SystemCalls/{count}")
        table.add(f"MakeRoom, per deleted file, {count:,} recordings",
                  "statvfs, access and unlink alone", 1.15, ratios[count])
    table.add("that ratio at 20,000 recordings", "itself at 2,000", LINEAR,
              ratios[20000] / ratios[2000])
    among = make["LibraryAmongProtectedFiles/2000"]
    ratio = among / make["Library/2000"]
    table.add("MakeRoom behind 10,000 protected files, per deleted file", "itself without them",
              None, ratio, f"{ratio:.0f} ({among / 1e3:.0f} microseconds)")


def health(table, summary):
    table.add("health summary to text and back", "nlohmann::json", 0.5,
              summary.ratio("Library", "Nlohmann"))
    table.add("the same", "RapidJSON", 1.2, summary.ratio("Library", "RapidJson"))


def memory(table, results):
    for machine in ("host", "armhf"):
        figures = json.loads((results / f"memory-{machine}.json").read_text())
        ratio = figures["bytes"] / figures["fixed"]
        table.add(f"memory per catalogued file, {machine}", f"{figures['fixed']} bytes fixed",
                  1.15, ratio, f"{ratio:.2f} ({figures['bytes']:.0f} bytes)")


def size(table, sizes):
    kibibytes = sizes["stripped"] / 1024
    table.add("both libraries for armhf, stripped, in KiB", "", LIMIT_OF_SIZE, kibibytes,
              f"{kibibytes:.1f}")


def start(table, results):
    path = results / "start_up.json"
    if not path.exists() or not path.read_text():
        table.rows.append(("start-up of a good card", "a shell script", "at most 1.03", "skipped",
                           "no private root here"))
        return
    seconds = json.loads(path.read_text())
    table.add("start-up of a good card", "a shell script with the same commands and pauses", 1.03,
              median(seconds["library"]) / median(seconds["script"]))


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


def board_instructions(counts):
    rows = []
    for work in (name for name in counts if not name.startswith("bare_")):
        own, bare = counts[work], counts[f"bare_{work}"]
        rows.append(f"| {work.replace('_', ' ')} | {own:,} | {bare:,} | {own / bare:.2f} |")
    return "\n".join(["| work | library | system calls alone | ratio |", "|---|---|---|---|"] + rows)


def instructions():
    rows = []
    for line in (ROOT / "bench/instructions.txt").read_text().splitlines():
        if not line.startswith("#"):
            work, count = line.split()
            rows.append(f"| {work.replace('_', ' ')} | {int(count):,} |")
    return "\n".join(["| work | instructions |", "|---|---|"] + rows)


def main():
    results = Path(sys.argv[1])
    log = Times(results / "log.json", "cpu_time")
    together = Times(results / "log.json", "real_time")
    load = Times(results / "catalogue.json", "cpu_time")
    paused = Times(results / "catalogue.json", "real_time")
    make = Times(results / "make_room.json", "real_time")
    sizes = json.loads((results / "sizes.json").read_text())

    table = Table()
    lines(table, log, together)
    loads(table, load, paused)
    room(table, make)
    health(table, Times(results / "health_json.json", "cpu_time"))
    memory(table, results)
    size(table, sizes)
    start(table, results)
    print(table.text())

    plots(together, load, make)
    page = Template((ROOT / "bench/performance.md.in").read_text())
    PAGE.write_text(page.substitute(
        table=table.markdown(), components=component_table(sizes), instructions=instructions(),
        board_instructions=board_instructions(json.loads((results / "board.json").read_text())),
        machine=(results / "machine.txt").read_text().strip()))
    if table.missed:
        print(f"{table.missed} targets missed")
    return 1 if table.missed else 0


if __name__ == "__main__":
    sys.exit(main())
