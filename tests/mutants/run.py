#!/usr/bin/python3
"""Runs the tests on changed libraries, one small change at a time; scripts/mutate is its command.

A change that no test notices is a survivor. One that is meant, or that nobody can notice, stands in
survivors.txt with its reason.

The changed source alone is compiled, and its library linked again. The other objects, the programs
of the unit ring and the lines that these run are those of build/coverage. First come the programs
that run the changed line, then those that run others of its source; one that takes very long is
left out.
"""

import argparse
import json
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter, defaultdict
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from threading import local

sys.path.insert(0, str(Path(__file__).parent))
from changes import Change, changes_of, squeezed

ROOT = Path(__file__).resolve().parents[2]
LIBRARIES = ("Tarvik", "Quellon")
TREE, WORK = ROOT / "build/coverage", ROOT / "build/mutants"
SYSTEM_HEADERS = WORK / "system.h"
SURVIVORS = Path(__file__).with_name("survivors.txt")
VERY_LONG = 20  # seconds of a program, for each change that nothing else notices
# The longest that a program may take: so many times what it takes on the library as it is, and some.
SLOWER, SECONDS = 5, 5
SHOWN = 4000  # characters of what a program said that failed
FILE_SIZE = 5 << 30  # bytes that a program may write
# Fewer pairs of failures and sequences than usual, and the same for each change.
ENVIRONMENT = {"ASAN_OPTIONS": "max_allocation_size_mb=512", "QUELLON_PAIRS": "20",
               "QUELLON_SEQUENCES": "50", "QUELLON_SEED": "1"}
NO_COUNTERS = {"GCOV_PREFIX": "/dev/null"}


@dataclass(frozen=True)
class Source:
    path: str  # from the project's root
    library: str
    object: Path
    compiler: list[str]  # with its options, but neither source nor object

    def compile(self, text: str, folder: Path) -> Path | None:
        """Objects of one text are the same bytes in each folder."""
        source, result = folder / "source.cpp", folder / "source.o"
        source.write_text(f'#line 1 "{ROOT / self.path}"\n{text}')
        words = [*self.compiler, "-c", source, "-o", result]
        done = subprocess.run(words, cwd=folder, stderr=subprocess.DEVNULL, timeout=120)
        return result if done.returncode == 0 else None


def sources_of_libraries() -> list[Source]:
    """The sources with their flags, but for counters and warnings, which are not looked for."""
    sources = []
    for entry in json.loads((TREE / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        library = next((word[2:-8] for word in words if word.endswith("_EXPORTS")), None)
        if library is not None:
            end = words.index("-o")
            flags = [word for word in words[1:end] if word[:2] in ("-D", "-I", "-U", "-f", "-s")]
            flags = [word for word in flags if not word.startswith("-fprofile")]
            compiler = [words[0], "-O0", "-w", *flags, "-include", str(SYSTEM_HEADERS)]
            sources.append(Source(str(Path(entry["file"]).relative_to(ROOT)), library,
                                  TREE / words[end + 1], compiler))
    return sources


def soname(library: str) -> str:
    return f"lib{library}.so.2"


def link(library: str, objects: list[Path], folder: Path) -> bool:
    needed = [TREE / soname("Tarvik")] if library == "Quellon" else []
    words = ["g++", "-shared", f"-Wl,-soname,{soname(library)}", "-Wl,-z,nodelete", "--coverage",
             f"-Wl,--version-script={ROOT}/packaging/abi/exports.map", "-pthread",
             "-fsanitize=address,undefined", "-o", folder / soname(library), *objects, *needed]
    return subprocess.run(words, stderr=subprocess.DEVNULL).returncode == 0


class Libraries:
    """The unchanged libraries, and what the tests run of them."""

    def __init__(self, jobs: int):
        self.sources = sources_of_libraries()
        self.precompile()
        programs = sorted((TREE / "tests/unit").glob("*_test"))
        with ThreadPoolExecutor(jobs) as pool:
            results = list(pool.map(self.measured, programs))
        self.seconds = {}
        self.lines = defaultdict(set)  # the programs that run a line
        self.files = defaultdict(set)  # the programs that run some line of a file
        for program, (seconds, lines) in zip(programs, results):
            self.seconds[program] = seconds
            for path, line in lines:
                self.lines[path, line].add(program)
                self.files[path].add(program)

    def precompile(self):
        """The system's headers take longer than all else; macros may not differ between files."""
        includes = {line for source in self.sources
                    for line in (ROOT / source.path).read_text().split("\n")
                    if re.match(r"#include <", line)}
        SYSTEM_HEADERS.write_text("\n".join(sorted(includes)) + "\n")
        compiler = self.sources[0].compiler[:-2]
        subprocess.run([*compiler, "-x", "c++-header", SYSTEM_HEADERS], check=True)

    def objects(self, library: str) -> list[Path]:
        return [source.object for source in self.sources if source.library == library]

    def measured(self, program: Path) -> tuple[float, list[tuple[str, int]]]:
        """What `counted` says, or said of the same program and libraries before."""
        kept = WORK / f"{program.name}.json"
        parts = [program, *(TREE / soname(library) for library in LIBRARIES)]
        if not kept.exists() or kept.stat().st_mtime < max(map(os.path.getmtime, parts)):
            kept.write_text(json.dumps(self.counted(program)))
        return json.loads(kept.read_text())

    def counted(self, program: Path) -> tuple[float, list[tuple[str, int]]]:
        """How long a program takes on the libraries as they are, and which lines it runs."""
        with tempfile.TemporaryDirectory(prefix="counts") as folder:
            return self.counted_in(Path(folder), program)

    def counted_in(self, counts: Path, program: Path) -> tuple[float, list[tuple[str, int]]]:
        for source in self.sources:
            note = source.object.with_suffix(".gcno")
            beside = counts / note.relative_to(TREE)
            beside.parent.mkdir(parents=True, exist_ok=True)
            beside.symlink_to(note)
        start = time.monotonic()
        environment = {"GCOV_PREFIX": str(counts), "GCOV_PREFIX_STRIP": str(len(TREE.parts) - 1)}
        try:
            with open(counts / "output", "w+", errors="replace") as output:
                if run(program, TREE, counts, VERY_LONG, environment, output) != 0:
                    output.seek(0)
                    raise RuntimeError(f"{program.name} fails on the libraries as they are:\n"
                                       f"{output.read()[-SHOWN:]}")
        except subprocess.TimeoutExpired:
            return VERY_LONG, []
        seconds = time.monotonic() - start
        data = sorted(str(path) for path in counts.rglob("*.gcda")
                      if path.with_suffix(".gcno").exists())  # of the libraries alone
        lines = set()
        if data:
            texts = subprocess.run(["gcov", "--json-format", "--stdout", *data], text=True,
                                   cwd=counts, capture_output=True, check=True).stdout
            for file in (file for text in texts.splitlines() for file in json.loads(text)["files"]):
                path = os.path.relpath(TREE / file["file"], ROOT)
                lines |= {(path, line["line_number"]) for line in file["lines"] if line["count"]}
        return seconds, sorted(lines)

    def programs_for(self, change: Change) -> list[Path]:
        """Those that may notice a change, the likely and quick ones first.

        A process that a program made, and that ended without telling, may run other lines of the
        source as well.
        """
        likely = self.lines[change.path, change.line]
        return sorted(self.files[change.path],
                      key=lambda program: (program not in likely, self.seconds[program]))


def limit_program():
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_SIZE, FILE_SIZE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run(program: Path, libraries: Path, folder: Path, seconds: float,
        environment: dict[str, str], output=subprocess.DEVNULL) -> int:
    """How a program ends with these libraries. Leaves no process behind."""
    environment = {**os.environ, **ENVIRONMENT, **environment, "TMPDIR": str(folder),
                   "LD_LIBRARY_PATH": str(libraries)}
    with subprocess.Popen([program, "--gtest_brief=1", "--gtest_fail_fast"], cwd=folder,
                          env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                          start_new_session=True, preexec_fn=limit_program) as process:
        try:
            return process.wait(seconds)
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


class Judge:
    """Says what comes of changes. Each thread has a folder of its own."""

    def __init__(self, libraries: Libraries, deadline: float):
        self.libraries = libraries
        self.deadline = deadline
        self.thread = local()

    def __call__(self, change: Change) -> str:
        if time.monotonic() > self.deadline:
            return "not tried"
        folder = self.folder()
        for source in self.libraries.sources:
            if source.path == change.path and not (result := self.rebuilt(source, change, folder)):
                return "not compiled" if result is None else "the same"
        for program in self.libraries.programs_for(change):
            if (outcome := self.ends(program, folder)) != "survived":
                return outcome
        return "survived"

    def folder(self) -> Path:
        if not hasattr(self.thread, "folder"):
            self.thread.folder = Path(tempfile.mkdtemp(prefix="mutants"))
            (self.thread.folder / "tmp").mkdir()
            self.thread.unchanged = {}  # objects of sources as they are
        return self.thread.folder

    def rebuilt(self, source: Source, change: Change, folder: Path) -> bool | None:
        """None if the change does not compile, false if it makes no difference."""
        for library in LIBRARIES:
            (folder / soname(library)).unlink(missing_ok=True)
            (folder / soname(library)).symlink_to(TREE / soname(library))
        if source.path not in self.thread.unchanged:
            self.thread.unchanged[source.path] = source.compile(change.source, folder).read_bytes()
        result = source.compile(change.result, folder)
        if result is None:
            return None
        if result.read_bytes() == self.thread.unchanged[source.path]:
            return False
        (folder / soname(source.library)).unlink()
        objects = [result if part == source.object else part
                   for part in self.libraries.objects(source.library)]
        return link(source.library, objects, folder) or None

    def ends(self, program: Path, folder: Path) -> str:
        """What a program says of a change: "too slow" where it hangs, or the machine is too busy."""
        seconds = SLOWER * self.libraries.seconds[program] + SECONDS
        try:
            status = run(program, folder, folder / "tmp", seconds, NO_COUNTERS)
            return "noticed" if status else "survived"
        except subprocess.TimeoutExpired:
            return "too slow"
        finally:
            shutil.rmtree(folder / "tmp", ignore_errors=True)
            (folder / "tmp").mkdir()


def known_survivors() -> dict[tuple[str, str, str], str]:
    """Their keys and reasons. An entry is a file, a line before, one after, and why."""
    known = {}
    for entry in SURVIVORS.read_text().split("\n\n"):
        lines = [line for line in entry.split("\n") if line and not line.startswith("#")]
        if not lines:
            continue
        path, before, after, *reason = lines
        if before[:2] != "- " or after[:2] != "+ " or not reason:
            sys.exit(f"{SURVIVORS.name}: an entry has no reason, or no lines: {lines}")
        known[path, squeezed(before[2:]), squeezed(after[2:])] = " ".join(reason)
    return known


def changed_lines(difference: str) -> dict[str, set[int]]:
    """The lines of each source that are new in what `git diff --unified=0` says."""
    lines, path = defaultdict(set), ""
    for line in difference.splitlines():
        if line.startswith("+++ "):
            path = line[6:]
        elif match := re.match(r"@@ -\S+ \+(\d+)(?:,(\d+))? @@", line):
            first, count = int(match[1]), int(match[2] or 1)
            lines[path] |= set(range(first, first + count))
    return lines


def show(kind: str, change: Change):
    _, before, after = change.key
    print(f"{kind}: {change.path}:{change.line}\n- {before}\n+ {after}\n", flush=True)


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("sources", nargs="*", metavar="FILE")
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--changed", metavar="DIFFERENCE", type=Path)
    parser.add_argument("--minutes", type=float, default=float("inf"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    return parser.parse_args()


def main() -> int:
    options = arguments()
    start = time.monotonic()
    if not (options.sources or options.all or options.changed):
        sys.exit("which changes? See --help")
    all_sources = list(dict.fromkeys(source.path for source in sources_of_libraries()))
    if unknown := set(options.sources) - set(all_sources):
        sys.exit(f"no source of the libraries: {', '.join(sorted(unknown))}")
    lines = changed_lines(options.changed.read_text()) if options.changed else {}
    chosen = [path for path in all_sources
              if options.all or path in options.sources or path in lines]
    known = known_survivors()
    flags = ["-std=gnu++20", f"-I{ROOT}"]
    changes = [change for path in chosen for change in changes_of(path, ROOT, flags)]
    stale = [key for key in known if key[0] not in all_sources or
             key[0] in chosen and key not in {change.key for change in changes}]
    if options.changed:
        changes = [change for change in changes if change.line in lines[change.path]]
    if not options.all:
        changes = [change for change in changes if change.key not in known]
    random.Random(0).shuffle(changes)  # what there is no time for is then anywhere
    outcomes = judged(changes, known, options) if changes else Counter()
    for path, before, after in stale:
        print(f"{SURVIVORS.name}: nothing is changed like this any more: {path}\n- {before}\n+ {after}")
    counts = ", ".join(f"{count} {outcome}" for outcome, count in sorted(outcomes.items()))
    print(f"{len(changes)} changes: {counts or 'none'}; {(time.monotonic() - start) / 60:.1f} minutes")
    if outcomes["survived"] or outcomes["no survivor"] or stale:
        return 1
    if set(outcomes) == {"not tried"}:
        print("skipped: there was no time for any change")
        return 77
    return 0


def judged(changes: list[Change], known: dict, options: argparse.Namespace) -> Counter:
    """What came of the changes. Survivors without a reason, and reasons without one, are shown."""
    libraries = Libraries(options.jobs)
    judge = Judge(libraries, deadline=time.monotonic() + 60 * options.minutes)
    outcomes, slow = Counter(), []

    def note(change: Change, outcome: str):
        if change.key in known and outcome != "not tried":
            outcome = "survived as expected" if outcome == "survived" else "no survivor"
        outcomes[outcome] += 1
        if outcome in ("survived", "no survivor"):
            show(outcome, change)

    with ThreadPoolExecutor(options.jobs) as pool:
        for number, (change, outcome) in enumerate(zip(changes, pool.map(judge, changes)), 1):
            if sys.stderr.isatty():
                print(f"{number} of {len(changes)}", end="\r", file=sys.stderr)
            if outcome == "too slow":
                slow.append(change)
            else:
                note(change, outcome)
    for change in slow:  # once more, alone: others may have kept it waiting
        outcome = judge(change)
        note(change, "hangs" if outcome == "too slow" else outcome)
    return outcomes


if __name__ == "__main__":
    sys.exit(main())
