"""Power cuts from a log of a card's writes: after each, the card as it was is checked and judged.

The log is that of QEMU's blklogwrites, in the format of the kernel's dm-log-writes. What the check
makes of a card depends on its metadata alone, so the cuts between two writes of metadata share one
check; what the writes of contents among them change is looked at write by write.

    python3 -m board.cuts build/board/NAME [--at N [--then M]]   # judges all again, or one cut
    python3 -m board.cuts FOLDER --cached SEED STATES            # of a card with a cache
"""

import argparse
import itertools
import mmap
import random
import re
import struct
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

from board.ext4 import File, FileSystem
from board.image import Image, fill
from board.tools import Failure

SECTOR, PAGE = 512, 4096
MAGIC, FLUSH, FUA, DISCARD = 0x6A736677736872, 1, 2, 4
PARTITION = 1 << 20  # bytes before the card's file system

SIZE, POSITIONS = 100_000, 1024  # bytes of a recording and of its positions
OLD = range(1, 221)  # recordings that were there before
CARD_BYTES = 32 << 20

# A line of text in this sector, which no file system has, tells in the log how far the board was.
MARK = 8
MARKING = f"""
mark() {{
    printf '%-512s' "$1" | dd of=/dev/mmcblk1 bs=512 seek={MARK} conv=notrunc,fsync 2>/dev/null
}}
"""

CONFIRMED = 50  # one in so many cuts is checked although it shares another's check

MOUNTABLE = (0, 1)  # what the check says of a card that comes into service

TEXT = re.compile(rb"(?:[^\n]{0,14}\n)?(?:rec_\d{6}\.(?:dat|gps)\n)+[^\n\0]{0,14}\0*")


@dataclass
class Write:
    sector: int  # of the card, or of the file system where that is said
    data: bytes
    flags: int = 0

    @property
    def mark(self) -> str | None:
        return self.data.decode(errors="replace").strip(" \0") if self.sector == MARK else None


def read_log(path: Path) -> list[Write]:
    """Returns the writes and flushes in their order."""
    log = path.read_bytes()
    magic, version, count, size = struct.unpack_from("<QQQI", log)
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


def recordings_of(image: bytes, writes: list[Write]) -> dict[str, Recording]:
    """Returns what must be on the card: what it had before, and what the marks in the log tell.

    The recorder tells of a deletion afterwards. So what is deleted may be gone since the recording
    before it was complete.
    """
    system = FileSystem(image[PARTITION:])
    recordings = {name: Recording(system.content(file))
                  for name, file in system.folder("cr").items()}
    oldest = sorted({Path(name).stem for name in recordings})
    last = 0
    for cut, write in enumerate(writes, 1):
        mark = write.mark or ""
        if found := re.search(r"Recorded (\S+) (\d+) bytes", mark):
            name = found[1]
            recordings[name] = Recording(content_of(name, int(found[2])), cut)
            if name.endswith(".dat"):
                oldest.append(Path(name).stem)
                last = cut
        elif found := re.search(r"Deleted (\d+)", mark):
            for stem in oldest[:int(found[1])]:
                for extension in (".dat", ".gps"):
                    recordings[stem + extension].deletion = last
            del oldest[:int(found[1])]
    return recordings


@dataclass
class Verdict:
    cut: int
    what: str


@dataclass
class Result:
    cuts: int = 0
    checks: int = 0
    repaired: int = 0
    confirmed: int = 0
    losses: list[Verdict] = field(default_factory=list)

    def add(self, other: "Result"):
        self.cuts += other.cuts
        self.checks += other.checks
        self.repaired += other.repaired
        self.confirmed += other.confirmed
        self.losses += other.losses


def is_content(sector: bytes) -> bool:
    return TEXT.fullmatch(sector) is not None


class Card:
    """A card's file system while writes are applied to it, in memory, with a copy for the check."""

    def __init__(self, image: bytes, folder: str = "/dev/shm"):
        self.now = bytearray(image[PARTITION:])
        self._file = tempfile.NamedTemporaryFile(dir=folder, prefix="cuts-")
        self._file.write(self.now)
        self._file.flush()
        self._copy = mmap.mmap(self._file.fileno(), len(self.now))

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

    def replace(self, writes: list[Write]) -> list[tuple[int, bytes]]:
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
        code = subprocess.run(["e2fsck", "-f", "-y", self._file.name], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
        system = FileSystem(self._copy)
        if not system.clean:
            code |= 8
        files = system.folder("cr")
        contents = {name: system.content(file) for name, file in files.items()}
        self._put_back()
        return code, files, contents

    def _put_back(self):
        """Undoes what the check wrote."""
        step = 1 << 16
        for start in range(0, len(self.now), step):
            if self._copy[start:start + step] != self.now[start:start + step]:
                self._copy[start:start + step] = bytes(self.now[start:start + step])


def judge(code: int, contents: dict[str, bytes], recordings: dict[str, Recording],
          cut: int) -> list[Verdict]:
    if code not in MOUNTABLE:
        return [Verdict(cut, f"the card is refused: the check ends with {code}")]
    verdicts = []
    for name, recording in recordings.items():
        if not recording.complete <= cut < recording.deletion:
            continue
        if name not in contents:
            verdicts.append(Verdict(cut, f"{name} is missing"))
        elif contents[name] != recording.content:
            verdicts.append(Verdict(cut, f"{name} is not intact"))
    return verdicts


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
            result.losses += judge(code, contents, recordings, cut)
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
        return [Verdict(cut, "what the check does depends on contents")]
    return judge(now, contents, recordings, cut)


def overwritten(files: dict[str, File], write: Write, recordings: dict[str, Recording],
                cut: int) -> list[Verdict]:
    """Looks whether a write of contents went into a complete recording and changed it."""
    place = write.sector * SECTOR - PARTITION
    for name, recording in recordings.items():
        if place < 0 or name not in files or not recording.complete <= cut < recording.deletion:
            continue
        start = files[name].place(place)
        if start is not None and start < files[name].size:
            expected = recording.content[start:start + len(write.data)]
            if not write.data.startswith(expected):
                return [Verdict(cut, f"{name} is not intact: it was written over at {start}")]
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


def cached_states(writes: list[Write], chance: random.Random, most: int,
                  tears: bool = True) -> list[list[Write]]:
    """Returns what of these writes may be on a card that had them in its cache when power failed.

    Those are all subsets of their pages, or so many by chance where there are more; of half of
    those that chance made, one page is torn, if the card `tears` them.
    """
    writes = [Write(write.sector + start // SECTOR, write.data[start:start + PAGE])
              for write in writes for start in range(0, len(write.data), PAGE)]
    if 1 << len(writes) <= most:
        return [list(chosen) for n in range(len(writes) + 1)
                for chosen in itertools.combinations(writes, n)]
    states = []
    for number in range(most):
        share = chance.random()
        chosen = [write for write in writes if chance.random() < share]
        if tears and chosen and number % 2:
            torn = chance.randrange(len(chosen))
            write = chosen[torn]
            sectors = chance.randrange(len(write.data) // SECTOR + 1)
            chosen[torn] = Write(write.sector, write.data[:sectors * SECTOR])
        states.append(chosen)
    return states


def judge_caches(run: "Run", seed: int, most: int, part: int, parts: int) -> Result:
    """Judges cuts of a card with a cache, which loses and reorders what follows the last flush.

    Of the times between flushes, this is one part of so many; `most` is how many states of each.
    """
    card, result, done = Card(run.image), Result(), 0
    for number, (first, end) in enumerate(epochs(run.writes)):
        if number % parts != part:
            continue
        for write in run.writes[done:first]:
            card.apply(write)
        done = first
        chance = random.Random(seed * 1_000_003 + number)
        cut = chance.randrange(first + 1, end + 1)
        pending = [write for write in run.writes[first:cut] if write.sector * SECTOR >= PARTITION]
        for state in cached_states(pending, chance, most):
            before = card.replace(state)
            code, _, contents = card.check()
            for place, data in reversed(before):
                card.put(place, data)
            result.cuts += 1
            result.checks += 1
            result.repaired += code == 1
            result.losses += judge(code, contents, run.recordings, cut)
    return result


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
    """What the board did to a card: the card before it, the writes, and what must be there."""

    image: bytes
    writes: list[Write]
    recordings: dict[str, Recording]

    @classmethod
    def of(cls, folder: Path) -> "Run":
        image, writes = (folder / BEFORE).read_bytes(), read_log(folder / LOG)
        return cls(image, writes, recordings_of(image, writes))

    def at(self, cut: int) -> bytes:
        """Returns the card as it was after so many writes."""
        image = bytearray(self.image)
        for write in self.writes[:cut]:
            place = write.sector * SECTOR
            image[place:place + len(write.data)] = write.data
        return bytes(image)

    def required(self, cut: int) -> dict[str, bytes]:
        """Returns what must be on the card after a cut."""
        return {name: recording.content for name, recording in self.recordings.items()
                if recording.complete <= cut < recording.deletion}

    def start_after(self, cut: int, folder: Path) -> "Run":
        """Returns the start that followed a cut; it deleted nothing."""
        kept = {name: Recording(content) for name, content in self.required(cut).items()}
        return Run(self.at(cut), read_log(folder / start_log(cut)), kept)

    def judge(self, every: int = 1, at: int | None = None) -> tuple[Result, str]:
        """Judges the cuts, or one of them, and returns the result with a line that tells it."""
        start = time.monotonic()
        if at is None:
            result = judge_all(self.image, self.writes, self.recordings, every)
        else:
            result = judge_range(self.image, self.writes, self.recordings, at, at + 1)
        seconds = time.monotonic() - start
        return result, (f"{result.cuts} cuts, {result.checks} distinct states, {result.repaired} "
                        f"repaired, {result.confirmed} shared checks repeated, "
                        f"{len(result.losses)} losses, in {seconds:.0f} s")


def start_log(cut: int) -> str:
    return f"start-after-{cut}.log"


def judge_lossy(run: Run, one_in: int, every: int) -> Result:
    """Judges the cuts of a card that loses one in so many writes: there must be losses."""
    kept = [write if number % one_in or write.mark else Write(0, b"")
            for number, write in enumerate(run.writes, 1)]
    return judge_all(run.image, kept, run.recordings, every)


def judge_all_caches(run: Run, seed: int, most: int, workers: int = 2) -> Result:
    """Judges cuts of a card with a cache, `workers` at a time."""
    result, parts = Result(), range(2 * workers)
    with ProcessPoolExecutor(workers) as pool:
        for done in [pool.submit(judge_caches, run, seed, most, part, len(parts))
                     for part in parts]:
            result.add(done.result())
    return result


def flushes(writes: list[Write]) -> str:
    """Tells how often the card was flushed from the first recording to the last."""
    moments = [n for n, write in enumerate(writes) if "Recorded" in (write.mark or "")]
    count = sum(write.flags & FLUSH for write in writes[moments[0]:moments[-1]])
    return f"{count / (len(moments) - 1):.1f} flushes per file recorded"


def wear(writes: list[Write]) -> str:
    """Tells what the log costs the card: the bytes written from the first recording to the last."""
    told, total, written, recorded, files = "", 0, 0, 0, 0
    for write in writes:
        found = re.search(r"Recorded (\S+) (\d+) bytes", write.mark or "")
        if found and found[0] != told:
            told, files = found[0], files + 1
            recorded += int(found[2]) if files > 1 else 0
            total = written
        elif files and write.sector * SECTOR >= PARTITION:
            written += len(write.data)
    return f"{total / max(recorded, 1):.2f} bytes written to the card per byte recorded"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path, help=f"has {BEFORE} and {LOG}")
    parser.add_argument("--at", type=int, metavar="N", help="only the cut after N writes")
    parser.add_argument("--then", type=int, metavar="M",
                        help="the cut after M writes of the start that followed that")
    parser.add_argument("--cached", type=int, nargs=2, metavar=("SEED", "STATES"),
                        help="of a card with a cache: so many states between two flushes")
    options = parser.parse_args()
    run, cut = Run.of(options.folder), options.at
    if options.then is not None:
        run, cut = run.start_after(options.at, options.folder), options.then
    if options.cached:
        result = judge_all_caches(run, *options.cached)
        line = f"{result.cuts} states, {len(result.losses)} losses"
    else:
        result, line = run.judge(at=cut)
    for loss in result.losses:
        print(f"after write {loss.cut}: {loss.what}")
    print(line)
    sys.exit(1 if result.losses else 0)


if __name__ == "__main__":
    main()
