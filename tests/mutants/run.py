#!/usr/bin/python3
"""Runs the tests on changed libraries, one small change at a time; scripts/mutate is its command.

A change that no test notices is a survivor. One that is meant, or that nobody can notice, stands in
survivors.txt with its reason.

The changed source alone is compiled, without optimisation, and its library linked again; the
programs of the unit ring are those of build/host. First come those that run the changed line.
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
WORK = ROOT / "build/mutants"
SYSTEM_HEADERS = WORK / "system.h"
SURVIVORS = Path(__file__).with_name("survivors.txt")
PROGRAMS = sorted((ROOT / "build/host/tests/unit").glob("*_test"))
# The longest that a program may take: so many times what it takes on the library as it is, and some.
SLOWER, SECONDS = 5, 5
MEMORY, FILE_SIZE = 2 << 30, 5 << 30  # bytes that a program may have, and write


@dataclass(frozen=True)
class Source:
    path: str  # from the project's root
    library: str
    compiler: list[str]  # with its options, but neither source nor object

    def folder(self, kind: str) -> Path:
        return WORK / kind / f"{self.library}.{Path(self.path).stem}"

    def object(self, kind: str) -> Path:
        return self.folder(kind) / "source.o"

    def compile(self, text: str, folder: Path, *options: str) -> bool:
        """Objects of one text are the same bytes in each folder."""
        source = folder / "source.cpp"
        source.write_text(f'#line 1 "{ROOT / self.path}"\n{text}')
        words = [*self.compiler, *options, "-c", source, "-o", folder / "source.o"]
        return subprocess.run(words, stderr=subprocess.DEVNULL, timeout=120).returncode == 0


def sources_of_libraries() -> list[Source]:
    """The sources with their flags, but for speed and warnings, which are not what is looked for."""
    sources = []
    for entry in json.loads((ROOT / "build/host/compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        library = next((word[2:-8] for word in words if word.endswith("_EXPORTS")), None)
        if library is not None:
            flags = [word for word in words[1:words.index("-o")] if word[:2] in ("-I", "-U", "-f", "-s")]
            path = str(Path(entry["file"]).relative_to(ROOT))
            compiler = [words[0], "-std=gnu++20", "-O0", "-w", *flags]
            sources.append(Source(path, library, [*compiler, "-include", str(SYSTEM_HEADERS)]))
    return sources


def soname(library: str) -> str:
    return f"lib{library}.so.2"


def link(library: str, objects: list[Path], folder: Path, *options: str) -> bool:
    needed = [WORK / "plain" / soname("Tarvik")] if library == "Quellon" else []
    words = ["g++", "-shared", f"-Wl,-soname,{soname(library)}", "-Wl,-z,nodelete",
             f"-Wl,--version-script={ROOT}/packaging/abi/exports.map", *options, "-pthread",
             "-o", folder / soname(library), *objects, *needed]
    return subprocess.run(words, stderr=subprocess.DEVNULL).returncode == 0


class Libraries:
    """The unchanged libraries, and what the tests run of them."""

    def __init__(self, jobs: int):
        self.sources = sources_of_libraries()
        self.precompile()
        for folder, options in (("plain", ()), ("counted", ("--coverage",))):
            self.build(folder, options, jobs)
        with ThreadPoolExecutor(jobs) as pool:
            results = list(pool.map(self.run_counted, PROGRAMS))
        self.seconds = dict(zip(PROGRAMS, (seconds for seconds, _ in results)))
        self.lines = defaultdict(set)  # the programs that run a line
        self.files = defaultdict(set)  # the programs that run some line of a file
        for program, (_, lines) in zip(PROGRAMS, results):
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

    def build(self, kind: str, options: tuple[str, ...], jobs: int):
        texts = [path for pattern in ("base/**/*", "[A-Z]*/**/*") for path in ROOT.glob(pattern)]
        newest = max(path.stat().st_mtime for path in texts)

        def compiled(source: Source) -> bool:
            source.folder(kind).mkdir(parents=True, exist_ok=True)
            if source.object(kind).exists() and source.object(kind).stat().st_mtime > newest:
                return True
            return source.compile((ROOT / source.path).read_text(), source.folder(kind), *options)

        with ThreadPoolExecutor(jobs) as pool:
            built = all(pool.map(compiled, self.sources))
        if not built or not all(link(library, self.objects(library, kind), WORK / kind, *options)
                                for library in LIBRARIES):
            sys.exit("the libraries cannot be built")

    def objects(self, library: str, kind: str = "plain") -> list[Path]:
        return [source.object(kind) for source in self.sources if source.library == library]

    def run_counted(self, program: Path) -> tuple[float, set[tuple[str, int]]]:
        """How long a program takes on the libraries as they are, and which lines it runs."""
        counts = Path(tempfile.mkdtemp(prefix="counts"))
        for source in self.sources:
            (counts / source.folder("counted").name).mkdir()
            note = source.object("counted").with_suffix(".gcno")
            (counts / source.folder("counted").name / note.name).symlink_to(note)
        start = time.monotonic()
        environment = {"GCOV_PREFIX": str(counts),
                       "GCOV_PREFIX_STRIP": str(len((WORK / "counted").parts) - 1)}
        if notices(program, WORK / "counted", counts, 120, environment):
            raise RuntimeError(f"{program.name} fails on the libraries as they are")
        seconds = time.monotonic() - start
        data = sorted(str(path) for path in counts.glob("*/*.gcda"))
        lines = set()
        if data:
            texts = subprocess.run(["gcov", "--json-format", "--stdout", *data], text=True,
                                   cwd=counts, capture_output=True, check=True).stdout
            for file in (file for text in texts.splitlines() for file in json.loads(text)["files"]):
                path = os.path.relpath(ROOT / file["file"], ROOT)
                lines |= {(path, line["line_number"]) for line in file["lines"] if line["count"]}
        shutil.rmtree(counts)
        return seconds, lines

    def programs_for(self, change: Change) -> list[Path]:
        """Those that may notice a change, the likely and quick ones first."""
        likely = self.lines[change.path, change.line]
        return sorted(likely or self.files[change.path], key=self.seconds.__getitem__)


def limit_program():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_SIZE, FILE_SIZE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def notices(program: Path, libraries: Path, folder: Path, seconds: float,
            environment: dict[str, str] = {}) -> bool:
    """Whether a test of the program fails with these libraries. Leaves no process behind."""
    environment = {**os.environ, **environment, "LD_LIBRARY_PATH": str(libraries),
                   "TMPDIR": str(folder)}
    with subprocess.Popen([program, "--gtest_brief=1", "--gtest_fail_fast"], cwd=folder,
                          env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, start_new_session=True,
                          preexec_fn=limit_program) as process:
        try:
            return process.wait(seconds) != 0
        except subprocess.TimeoutExpired:
            return True
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
        noticed = any(self.noticed(program, folder) for program in
                      self.libraries.programs_for(change))
        return "noticed" if noticed else "survived"

    def folder(self) -> Path:
        if not hasattr(self.thread, "folder"):
            self.thread.folder = Path(tempfile.mkdtemp(prefix="mutants"))
            (self.thread.folder / "tmp").mkdir()
        return self.thread.folder

    def rebuilt(self, source: Source, change: Change, folder: Path) -> bool | None:
        """None if the change does not compile, false if it makes no difference."""
        for library in LIBRARIES:
            (folder / soname(library)).unlink(missing_ok=True)
            (folder / soname(library)).symlink_to(WORK / "plain" / soname(library))
        if not source.compile(change.result, folder):
            return None
        result, unchanged = folder / "source.o", source.object("plain")
        if result.read_bytes() == unchanged.read_bytes():
            return False
        (folder / soname(source.library)).unlink()
        objects = [result if part == unchanged else part
                   for part in self.libraries.objects(source.library)]
        return link(source.library, objects, folder) or None

    def noticed(self, program: Path, folder: Path) -> bool:
        seconds = SLOWER * self.libraries.seconds[program] + SECONDS
        result = notices(program, folder, folder / "tmp", seconds)
        shutil.rmtree(folder / "tmp", ignore_errors=True)
        (folder / "tmp").mkdir()
        return result


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
    all_sources = list(dict.fromkeys(source.path for source in sources_of_libraries()))
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
    deadline = time.monotonic() + 60 * options.minutes
    judge = Judge(Libraries(options.jobs), deadline)
    outcomes = Counter()
    with ThreadPoolExecutor(options.jobs) as pool:
        for change, outcome in zip(changes, pool.map(judge, changes)):
            if change.key in known and outcome != "not tried":
                outcome = "survived as expected" if outcome == "survived" else "no survivor"
            outcomes[outcome] += 1
            if outcome in ("survived", "no survivor"):
                show(outcome, change)
    return outcomes


if __name__ == "__main__":
    sys.exit(main())
