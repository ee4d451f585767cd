"""Power cuts from a log of a card's writes: after each, the card as it was is checked and judged.

The log is that of QEMU's blklogwrites, in the format of the kernel's dm-log-writes. What the check
makes of a card depends on its metadata alone, so the cuts between two writes of metadata share one
check; what the writes of contents among them change is looked at write by write.

A card with a cache loses and reorders what follows the last flush: there any of those writes may be
on it, or a part of one. Where a start after a cut was logged, its writes are cuts, too.

    python3 -m board.cuts FOLDER [--at N [--then M]]     # judges all again, or one cut
    python3 -m board.cuts FOLDER --cached SEED STATES MOMENTS [--at N.K [--then M.J]]

FOLDER has before.img, the card, and writes.log.
"""

import argparse
import contextlib
import itertools
import json
import mmap
import os
import random
import re
import statistics
import struct
import subprocess
import sys
import time
from collections.abc import Iterable, Iterator
from concurrent.futures import ProcessPoolExecutor
from dataclasses import asdict, dataclass, field, replace
from pathlib import Path

from board.ext4 import File, FileSystem
from board.image import Image, fill
from board.tools import Failure, at_least

SECTOR, PAGE = 512, 4096
MAGIC, FLUSH, FUA, DISCARD = 0x6A736677736872, 1, 2, 4
PARTITION = 1 << 20  # bytes before the card's file system

SIZE, POSITIONS = 100_000, 1024  # bytes of a recording and of its positions
OLD = range(1, 221)  # recordings that were there before
CARD_BYTES = 32 << 20
AT_A_TIME = 2  # files that the library deletes before it looks for room again

# A line of text in this sector, which no file system has, tells in the log how far the board was.
MARK = 8
CATALOGUED, MAKING_ROOM, REMOVED = "Catalogue of", "Making room", "Removed "
BUSY = "Something else commits"  # to the card, from here on
MARKING = f"""
mark() {{
    printf '%-512s' "$1" | dd of=/dev/mmcblk1 bs=512 seek={MARK} conv=notrunc,fsync 2>/dev/null
}}
"""

# Limits of what recordings cost the card. On a busy machine the kernel writes some things back more
# than once, so bytes are counted on the board, whose time does not pass meanwhile.
MOST_WEAR = 1.25  # bytes written to the card per byte recorded
MOST_FLUSHES = 2  # of a card with a cache, for most files

CONFIRMED = 50  # one in so many cuts is checked although it shares another's check

# What the check says of a card that comes into service. One that cannot be mounted is checked, too:
# see DiskUtils/CheckUnlessMountable.h.
MOUNTABLE = (0, 1)

TEXT = re.compile(rb"(?:[^\n]{0,14}\n)?(?:rec_\d{6}\.(?:dat|gps)\n)+[^\n\0]{0,14}\0*")


@dataclass
class Write:
    sector: int  # of the card, or of the file system where that is said
    data: bytes
    flags: int = 0

    @property
    def mark(self) -> str | None:
        return self.data.decode(errors="replace").strip(" \0") if self.sector == MARK else None


def content_or_failure(path: Path) -> bytes:
    try:
        return path.read_bytes()
    except OSError as error:
        raise Failure(f"{path}: {error.strerror}") from error


def read_log(path: Path) -> list[Write]:
    """Returns the writes and flushes in their order."""
    log = content_or_failure(path)
    magic, version, _, size = struct.unpack_from("<QQQI", log.ljust(SECTOR, b"\0"))
    if magic != MAGIC or version != 1:
        raise Failure(f"{path} is no log of writes")
    writes, place = [], size
    while place + 32 <= len(log):  # the count in the first sector is not the last one after a cut
        sector, sectors, flags, _ = struct.unpack_from("<QQQQ", log, place)
        if not sectors and not flags:
            break
        place += size
        length = 0 if flags & DISCARD else sectors * size
        writes.append(Write(sector * size // SECTOR, log[place:place + length], flags))
        place += length
    return writes


def entry_of(write: Write) -> bytes:
    head = struct.pack("<QQQQ", write.sector, len(write.data) // SECTOR, write.flags, 0)
    return head.ljust(SECTOR, b"\0") + write.data


def log_of(entries: bytes) -> bytes:
    """Returns a log of these entries, as it is read."""
    return struct.pack("<QQQI", MAGIC, 1, 0, SECTOR).ljust(SECTOR, b"\0") + entries


@dataclass
class Recording:
    """What must be on the card after the cuts from `complete` up to, but not at, `deletion`."""

    content: bytes
    complete: int = 0
    deletion: float = float("inf")


def content_of(name: str, size: int) -> bytes:
    """Returns what the recorder writes into a file: its name, again and again."""
    line = name.encode() + b"\n"
    return (line * (size // len(line) + 1))[:size]


def recordings_of(before: dict[str, "Recording"], writes: list[Write]) -> dict[str, "Recording"]:
    """Returns what must be on the card: what it had before, and what the marks in the log tell.

    A deletion is told of afterwards. So what is deleted may be gone since what was told before: the
    last recording was complete, or room began to be made. One recording needs no more room than is
    made at a time: what else goes is deleted without need, and lost. The first deletion makes room
    for all that was recorded before the catalogue was complete.
    """
    recordings = dict(before)
    oldest = sorted({Path(name).stem for name in recordings})
    last, deletable, meanwhile, catalogued = 0, len(oldest), 0, False
    for cut, write in enumerate(writes, 1):
        mark = write.mark or ""
        deleted = []
        if found := re.search(r"Recorded (\S+) (\d+) bytes", mark):
            name = found[1]
            recordings[name] = Recording(content_of(name, int(found[2])), cut)
            if name.endswith(".dat"):
                oldest.append(Path(name).stem)
                meanwhile = 0 if catalogued else meanwhile + 1
                last, deletable = cut, meanwhile + AT_A_TIME
        elif CATALOGUED in mark:
            catalogued = True
        elif mark == MAKING_ROOM:
            last = cut
        elif found := re.search(r"Deleted (\d+)", mark):
            gone = oldest[:min(int(found[1]), deletable)]
            deleted = [stem + extension for stem in gone for extension in (".dat", ".gps")]
            del oldest[:len(gone)]
            deletable -= len(gone)
        elif mark.startswith(REMOVED):
            deleted = mark.removeprefix(REMOVED).split()
        for name in deleted:
            if name in recordings:
                recordings[name] = replace(recordings[name], deletion=last)
    return recordings


def files_of(image: bytes) -> dict[str, Recording]:
    """Returns what a card has as recordings that were always there."""
    system = FileSystem(image[PARTITION:])
    return {name: Recording(system.content(file)) for name, file in system.folder("cr").items()}


@dataclass(frozen=True)
class State:
    """A card after a cut: the first `flushed` writes are on it, and of the rest what was kept."""

    cut: int  # writes that were begun
    flushed: int
    kept: tuple[Write, ...] = ()
    number: int | None = None  # among the states of that cut

    @property
    def name(self) -> str:
        return f"{self.cut}" if self.number is None else f"{self.cut}.{self.number}"


@dataclass
class Verdict:
    state: str
    what: str
    then: str = ""  # a state of the start after that

    @property
    def place(self) -> str:
        start = f", then write {self.then} of the start after it" if self.then else ""
        return f"write {self.state}{start}"

    @property
    def options(self) -> str:
        return f"--at {self.state}" + (f" --then {self.then}" if self.then else "")


@dataclass
class Result:
    cuts: int = 0
    checks: int = 0
    repaired: int = 0
    confirmed: int = 0
    unfinished: int = 0  # cards with a part of a recording
    starts: int = 0  # of the library itself
    deleted: int = 0  # files, by those starts
    codes: list[int] = field(default_factory=list)  # of the checks by those starts
    then: int = 0  # cuts of those starts
    losses: list[Verdict] = field(default_factory=list)

    def add(self, other: "Result"):
        for name, value in vars(other).items():
            setattr(self, name, getattr(self, name) + value)

    def to_json(self) -> str:
        return json.dumps(asdict(self))

    @classmethod
    def from_json(cls, text: str) -> "Result":
        values = json.loads(text)
        values["losses"] = [Verdict(**loss) for loss in values["losses"]]
        return cls(**values)


def has_parts(contents: dict[str, bytes], promised: dict[str, bytes]) -> bool:
    """Tells whether a part of a recording is on the card. What is promised is judged elsewhere."""
    return any(content != content_of(name, POSITIONS if name.endswith(".gps") else SIZE)
               for name, content in contents.items() if name not in promised)


def is_content(sector: bytes) -> bool:
    return TEXT.fullmatch(sector) is not None


class Card:
    """A card's file system while writes are applied to it, in memory, with a copy for the check."""

    def __init__(self, image: bytes):
        self.now = bytearray(image[PARTITION:])
        self._file = open(os.memfd_create("card"), "r+b")
        self._file.write(self.now)
        self._file.flush()
        self._copy = mmap.mmap(self._file.fileno(), len(self.now))
        self._applied = 0

    @contextlib.contextmanager
    def in_state(self, state: State, writes: list[Write]):
        """Brings the card into a state for the `with` block. The states must come in their order.
        """
        for write in writes[self._applied:state.flushed]:
            self.apply(write)
        self._applied = state.flushed
        before = self._keep(state.kept)
        yield
        for place, data in reversed(before):
            self.put(place, data)

    def apply(self, write: Write) -> bool:
        """Applies a write to the partition and tells whether metadata may have changed."""
        place = write.sector * SECTOR - PARTITION
        if place < 0:
            return False
        changed = False
        for start in range(0, len(write.data), SECTOR):
            old = self.now[place + start:place + start + SECTOR]
            new = write.data[start:start + SECTOR]
            if old != new and not (is_content(new) and (is_content(old) or not any(old))):
                changed = True
        self.put(place, write.data)
        return changed

    def _keep(self, writes: tuple[Write, ...]) -> list[tuple[int, bytes]]:
        """Applies writes of the file system and returns what was in their places before."""
        before = []
        for write in writes:
            place = write.sector * SECTOR - PARTITION
            before.append((place, bytes(self.now[place:place + len(write.data)])))
            self.put(place, write.data)
        return before

    def put(self, place: int, data: bytes):
        self.now[place:place + len(data)] = data
        self._copy[place:place + len(data)] = data

    def check(self) -> tuple[int, dict[str, File], dict[str, bytes]]:
        """Checks the copy as the library would, and returns fsck's code and what the folder has."""
        copy = self._file.fileno()
        code = subprocess.run(["e2fsck", "-f", "-y", f"/dev/fd/{copy}"], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              pass_fds=[copy]).returncode
        system = FileSystem(self._copy)
        if not system.clean:
            code |= 8
        files = system.folder("cr")
        contents = {name: system.content(file) for name, file in files.items()}
        self._copy[:] = self.now  # without what the check wrote
        return code, files, contents


def judge(code: int, contents: dict[str, bytes], recordings: dict[str, Recording],
          state: State) -> list[Verdict]:
    if code not in MOUNTABLE:
        return [Verdict(state.name, f"the card is refused: the check ends with {code}")]
    verdicts = []
    for name, content in required(recordings, state.cut).items():
        if name not in contents:
            verdicts.append(Verdict(state.name, f"{name} is missing"))
        elif contents[name] != content:
            verdicts.append(Verdict(state.name, f"{name} is not intact"))
    return verdicts


def required(recordings: dict[str, Recording], cut: int) -> dict[str, bytes]:
    """Returns what must be on the card after a cut."""
    return {name: recording.content for name, recording in recordings.items()
            if recording.complete <= cut < recording.deletion}


def judge_range(image: bytes, writes: list[Write], recordings: dict[str, Recording], first: int,
                end: int, every: int = 1) -> Result:
    """Judges the cuts after `first` up to `end` writes; of the distinct states, one in `every`."""
    card, result = Card(image), Result()
    for write in writes[:first]:
        card.apply(write)
    moments = {r.complete for r in recordings.values()} | {r.deletion for r in recordings.values()}
    stale, files, states = True, {}, 0
    for cut in range(first, end):
        if cut > first:
            write = writes[cut - 1]
            stale |= card.apply(write) or cut in moments
        if stale:
            states += 1
            chosen = states % every == 0 or every == 1
            stale = False
            if not chosen:
                continue
            code, files, contents = card.check()
            result.checks += 1
            result.repaired += code == 1
            result.losses += judge(code, contents, recordings, State(cut, cut))
        elif chosen:
            result.losses += overwritten(files, writes[cut - 1], recordings, cut)
            if cut % CONFIRMED == 0:
                result.confirmed += 1
                result.losses += confirm(card, code, files, recordings, cut)
        result.cuts += chosen and (cut == 0 or writes[cut - 1].sector * SECTOR >= PARTITION)
    return result


def confirm(card: Card, code: int, files: dict[str, File], recordings: dict[str, Recording],
            cut: int) -> list[Verdict]:
    """Checks a card of which the check is said to find what it found before it had new contents."""
    now, found, contents = card.check()
    if (now, found) != (code, files):
        return [Verdict(str(cut), "what the check does depends on contents")]
    return judge(now, contents, recordings, State(cut, cut))


def overwritten(files: dict[str, File], write: Write, recordings: dict[str, Recording],
                cut: int) -> list[Verdict]:
    """Looks whether a write of contents went into a complete recording and changed it."""
    place = write.sector * SECTOR - PARTITION
    for name, content in required(recordings, cut).items() if place >= 0 else ():
        start = files[name].place(place) if name in files else None
        if start is not None and start < files[name].size:
            expected = content[start:start + len(write.data)]
            if not write.data.startswith(expected):
                return [Verdict(str(cut), f"{name} is not intact: it was written over at {start}")]
    return []


def judge_all(image: bytes, writes: list[Write], recordings: dict[str, Recording],
              every: int = 1, workers: int = 2) -> Result:
    """Judges every cut, `workers` at a time."""
    pieces, result = 2 * workers, Result()
    edges = [len(writes) * n // pieces for n in range(pieces)] + [len(writes) + 1]
    with ProcessPoolExecutor(workers) as pool:
        for done in pool.map(judge_range, *zip(*((image, writes, recordings, a, b, every)
                                                  for a, b in itertools.pairwise(edges)))):
            result.add(done)
    return result


def epochs(writes: list[Write]) -> list[tuple[int, int]]:
    """Returns first and end of the writes between two flushes each."""
    edges = [0] + [n for n, write in enumerate(writes) if write.flags & FLUSH] + [len(writes)]
    return [(a, b) for a, b in itertools.pairwise(edges) if b > a + 1]


def subsets(writes: list[Write], chance: random.Random, most: int,
            tears: bool = True) -> list[tuple[Write, ...]]:
    """Returns what of these writes may be on a card that had them in its cache when power failed.

    Those are all subsets of their pages, or so many by chance where there are more; of half of
    those that chance made, one page is torn, if the card `tears` them.
    """
    writes = [Write(write.sector + start // SECTOR, write.data[start:start + PAGE])
              for write in writes for start in range(0, len(write.data), PAGE)]
    if 1 << len(writes) <= most:
        return [chosen for n in range(len(writes) + 1)
                for chosen in itertools.combinations(writes, n)]
    chosen_ones = []
    for number in range(most):
        share = chance.random()
        chosen = [write for write in writes if chance.random() < share]
        if tears and chosen and number % 2:
            torn = chance.randrange(len(chosen))
            write = chosen[torn]
            sectors = chance.randrange(len(write.data) // SECTOR + 1)
            chosen[torn] = Write(write.sector, write.data[:sectors * SECTOR])
        chosen_ones.append(tuple(chosen))
    return chosen_ones


@dataclass(frozen=True)
class Cache:
    """Which states of a card with a cache are judged: chosen by chance, the same for each seed."""

    seed: int
    states: int  # of a moment, at most
    moments: int  # between two flushes, at most

    def states_of(self, writes: list[Write], part: int = 0, parts: int = 1) -> Iterator[State]:
        """Yields the states; of the times between flushes, those of one part of so many.

        The last moment before a flush is always one: most is promised by then, and least flushed.
        """
        for number, (first, end) in enumerate(epochs(writes)):
            if number % parts != part:
                continue
            chance = random.Random(self.seed * 1_000_003 + number)
            earlier = range(first + 1, end)
            cuts = chance.sample(earlier, min(self.moments - 1, len(earlier)))
            for cut in sorted([*cuts, end]):
                pending = [write for write in writes[first:cut]
                           if write.sector * SECTOR >= PARTITION]
                for index, kept in enumerate(subsets(pending, chance, self.states)):
                    yield State(cut, first, kept, index)


# What is wrong on purpose in starts that must be found out.
IGNORING_FLUSHES = "a card that ignores flushes"
REVERSED = "a library that deletes the newest"  # recovery's, as the next three
UNCHECKED = "a service that does not check what cannot be mounted"
BLIND = "a library that overlooks a file"
GREEDY = "a library that deletes more than it needs"
TORN = "a superblock of which a cut let one sector be written"
DAMAGED = "a count of links that is wrong"
SECRETIVE = "a start that does not tell what it deletes"


@dataclass(frozen=True)
class Starts:
    """Starts of the library after cuts."""

    states: list[str]
    cache: Cache | None  # that of the states; none for a card without one
    then: int = 0  # cuts of each start that are judged, at most
    control: str = ""

    @classmethod
    def from_json(cls, values: dict) -> "Starts":
        cache = values["cache"] and Cache(**values["cache"])
        return cls(**{**values, "cache": cache})


def judge_states(run: "Run", states: Iterable[State]) -> Result:
    card, result = Card(run.image), Result()
    for state in states:
        with card.in_state(state, run.writes):
            code, _, contents = card.check()
        result.cuts += 1
        result.checks += 1
        result.repaired += code == 1
        result.unfinished += has_parts(contents, required(run.recordings, state.cut))
        result.losses += judge(code, contents, run.recordings, state)
    return result


def judge_caches(run: "Run", cache: Cache, part: int, parts: int) -> Result:
    return judge_states(run, cache.states_of(run.writes, part, parts))


def full_card(folder: Path) -> Image:
    """Makes a card that the recorder soon deletes from."""
    files = {}
    for number in OLD:
        for extension, size in (("dat", SIZE), ("gps", POSITIONS)):
            name = f"rec_{number:06}.{extension}"
            files[f"cr/{name}"] = content_of(name, size)
    times = {name: 1_600_000_000 + int(name[7:13]) for name in files}
    image = Image.card(folder / "card.img", fill(folder / "card", files, times), size=CARD_BYTES)
    image.index_folders()
    return image


BEFORE, LOG = "before.img", "writes.log"


@dataclass
class Run:
    """What was done to a card: the card before it, the writes, and what must be there."""

    image: bytes
    writes: list[Write]
    recordings: dict[str, Recording]

    @classmethod
    def of(cls, folder: Path) -> "Run":
        image, writes = content_or_failure(folder / BEFORE), read_log(folder / LOG)
        return cls(image, writes, recordings_of(files_of(image), writes))

    def ignoring_flushes(self) -> "Run":
        """Returns what a card would get that ignores most flushes: it loses recordings."""
        writes = [write for number, write in enumerate(self.writes)
                  if not write.flags & FLUSH or number % 7 == 0]
        return Run(self.image, writes, recordings_of(files_of(self.image), writes))

    def deleting_at_once(self) -> "Run":
        """Returns what a recorder would tell that deletes all of it for its last recording."""
        deletions = [write for write in self.writes if "Deleted" in (write.mark or "")]
        total = sum(int(re.search(r"Deleted (\d+)", write.mark)[1]) for write in deletions)
        at_once = Write(MARK, f"Deleted {total}".encode().ljust(SECTOR))
        writes = [write for write in self.writes if write not in deletions] + [at_once]
        return Run(self.image, writes, recordings_of(files_of(self.image), writes))

    def at(self, state: State) -> bytes:
        """Returns the card in a state."""
        image = bytearray(self.image)
        for write in [*self.writes[:state.flushed], *state.kept]:
            place = write.sector * SECTOR
            image[place:place + len(write.data)] = write.data
        return bytes(image)

    def start_after(self, state: State, log: Path) -> "Run":
        """Returns the start that followed a cut."""
        kept = {name: Recording(content)
                for name, content in required(self.recordings, state.cut).items()}
        writes = read_log(log)
        return Run(self.at(state), writes, recordings_of(kept, writes))

    def distinct(self) -> list[State]:
        """Returns the states between which metadata changed, or what must be on the card."""
        card = Card(self.image)
        moments = {r.complete for r in self.recordings.values()}
        return [State(cut, cut) for cut, write in enumerate(self.writes, 1)
                if card.apply(write) or cut in moments]

    def find(self, name: str, cache: Cache | None) -> State:
        """Returns the state of a name; that of a card with a cache has a dot."""
        if name.isdecimal() and int(name) <= len(self.writes):
            return State(int(name), int(name))
        if cache is not None:
            for state in cache.states_of(self.writes):
                if state.name == name:
                    return state
        raise Failure(f"a log of {len(self.writes)} writes has no state {name}"
                      + (" without a cache" if cache is None and "." in name else ""))

    def describe(self, verdict: Verdict) -> str:
        write = self.writes[int(verdict.state.split(".")[0]) - 1]
        return (f"{verdict.place} ({len(write.data) // SECTOR} sectors at {write.sector}): "
                f"{verdict.what}")

    def judge(self, every: int = 1) -> tuple[Result, str]:
        """Judges the cuts and returns the result with a line that tells it."""
        start = time.monotonic()
        result = judge_all(self.image, self.writes, self.recordings, every)
        return result, (f"{result.cuts} cuts, {result.checks} distinct states, {result.repaired} "
                        f"repaired, {result.confirmed} shared checks repeated, "
                        f"{len(result.losses)} losses, in {time.monotonic() - start:.0f} s")


def start_log(name: str) -> str:
    return f"start-after-{name}.log"


def judge_lossy(run: Run, one_in: int, every: int) -> Result:
    """Judges the cuts of a card that loses one in so many writes: there must be losses."""
    kept = [write if number % one_in or write.mark else Write(0, b"")
            for number, write in enumerate(run.writes, 1)]
    return judge_all(run.image, kept, run.recordings, every)


def judge_all_caches(run: Run, cache: Cache, workers: int = 2) -> Result:
    """Judges cuts of a card with a cache, `workers` at a time."""
    result, parts = Result(), range(2 * workers)
    with ProcessPoolExecutor(workers) as pool:
        for done in [pool.submit(judge_caches, run, cache, part, len(parts)) for part in parts]:
            result.add(done.result())
    return result


def before_busy(writes: list[Write]) -> list[Write]:
    """Returns what the recorder alone had written."""
    return list(itertools.takewhile(lambda write: write.mark != BUSY, writes))


def flushes(writes: list[Write]) -> float:
    """Returns how often the card was flushed for a file, the median from the second file on."""
    counts = [0]
    for write in writes:
        counts[-1] += write.flags & FLUSH
        if "Recorded" in (write.mark or ""):
            counts.append(0)
    return statistics.median(counts[1:-1])


def wear(writes: list[Write]) -> float:
    """Returns the bytes written to the card per byte, from the first recording to the last."""
    told, total, written, recorded, files = "", 0, 0, 0, 0
    for write in writes:
        found = re.search(r"Recorded (\S+) (\d+) bytes", write.mark or "")
        if found and found[0] != told:
            told, files = found[0], files + 1
            recorded += int(found[2]) if files > 1 else 0
            total = written
        elif files and write.sector * SECTOR >= PARTITION:
            written += len(write.data)
    return total / max(recorded, 1)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path, help=f"has {BEFORE} and {LOG}")
    parser.add_argument("--at", metavar="STATE", help="only the cut after that write")
    parser.add_argument("--then", metavar="STATE",
                        help="the cut after that write of the start that followed")
    parser.add_argument("--cached", type=at_least(0), nargs=3,
                        metavar=("SEED", "STATES", "MOMENTS"),
                        help="of a card with a cache: so many states of so many moments between "
                             "two flushes")
    options = parser.parse_args()
    if options.then is not None and options.at is None:
        parser.error("--then goes with --at")
    if options.cached and 0 in options.cached[1:]:
        parser.error("--cached: there must be a state and a moment")
    try:
        sys.exit(judge_as_told(options))
    except Failure as failure:
        sys.exit(f"board.cuts: {failure}")


def judge_as_told(options: argparse.Namespace) -> int:
    run, name = Run.of(options.folder), options.at
    cache = Cache(*options.cached) if options.cached else None
    if options.then is not None:
        run = run.start_after(run.find(options.at, cache), options.folder / start_log(options.at))
        name = options.then
    if name is not None:
        result = judge_states(run, [run.find(name, cache)])
    elif cache is not None:
        result = judge_all_caches(run, cache)
    else:
        result, _ = run.judge()
    for loss in result.losses:
        print(run.describe(loss))
    print(f"{result.cuts} cuts, {result.checks} checks, {len(result.losses)} losses")
    return 1 if result.losses or not result.cuts else 0


if __name__ == "__main__":
    main()
