#!/usr/bin/env python3
"""Starts the library on cards as cuts left them, one after the other, in a private root.

    private_root --writable FOLDER start_after_cuts.py FOLDER RECOVERY < STARTS

FOLDER has before.img and writes.log. STARTS is the JSON of a list of `Starts`. The last lines of
the output are the JSON of a `Result` for each. Where that is asked for, and the kernel lets it, the
writes of each start are logged and are cuts, too; the log of a start with a loss is kept in FOLDER.
"""

import json
import math
import os
import random
import shutil
import subprocess
import sys
from collections import deque
from collections.abc import Iterable
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent.parent), str(HERE)]
sys.dont_write_bytecode = True

from board.cuts import (AT_A_TIME, BLIND, DAMAGED, GREEDY, IGNORING_FLUSHES, MAKING_ROOM, REMOVED,
                        REVERSED, SECRETIVE, SECTOR, TORN, UNCHECKED, Card, Result, Run, Starts,
                        State, Verdict, files_of, judge, judge_states, start_log)
from board.image import Image
from slot import LoggedFile, PlainFile, Slot, require_private_root, why_nothing_is_logged

FOLDER = Path("/mnt/sdcard/cr")
ROOM = 250_000  # bytes, more than two recordings have
RESERVE = 0.055  # of a card, which is not counted as free
NEVER_DELETED = (".gps", ".log")
SUPERBLOCK = 1024 + 44  # the time of the last mount, in the first of two sectors


class Recovery:
    """The library's own start; it goes on when it is told to."""

    def __init__(self, program: str, control: str):
        mistakes = {REVERSED: ["reversed"], BLIND: ["blind"], GREEDY: ["greedy"],
                    UNCHECKED: ["unchecked"]}
        command = [program, str(ROOM), *mistakes.get(control, [])]
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, text=True,
                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.last = deque(maxlen=10)
        self.codes = []  # of the checks

    def catalogue(self, step: str) -> list[str] | None:
        """Returns the catalogue told before a step's end; None if the program ends before that."""
        names = []
        for line in self._process.stdout:
            self.last.append(line.strip())
            if line.startswith("file "):
                names.append(line.split()[1])
            if line.startswith("checked "):
                self.codes.append(int(line.split()[1]))
            if line.strip() == step:
                return names
        return None

    def go_on(self):
        self._process.stdin.write("\n")
        self._process.stdin.flush()

    def end(self) -> bool:
        """Returns whether it ends well."""
        self._process.stdout.read()
        return self._process.wait() == 0

    def __enter__(self) -> "Recovery":
        return self

    def __exit__(self, *unused):
        self._process.__exit__(*unused)  # after a failure it gets no further line, and ends


def oldest_went(before: list[str], files: dict[str, os.stat_result], after: list[str]) -> bool:
    """Tells whether files are gone, and those are the oldest of what may be deleted."""
    deleted = set(before) - set(after)
    kept = [files[name].st_mtime for name in after if not name.endswith(NEVER_DELETED)]
    return (bool(deleted) and not any(name.endswith(NEVER_DELETED) for name in deleted)
            and max(files[name].st_mtime for name in deleted) <= min(kept, default=math.inf))


def most_to_delete(before: list[str], files: dict[str, os.stat_result]) -> int:
    """Returns how many of the files, from the oldest on, make room on the card as it is now."""
    card = os.statvfs(FOLDER)
    missing = ROOM + max(card.f_blocks * RESERVE - card.f_bfree, 0) * card.f_frsize
    needed = 0
    for name in before:
        if missing < 0:
            break
        if not name.endswith(NEVER_DELETED):
            missing -= files[name].st_blocks * SECTOR
            needed += 1
    return -(-needed // AT_A_TIME) * AT_A_TIME


def damaged(content: bytes) -> bytes:
    """Returns a card that mounts, and has something that the check repairs."""
    image = Image(Path("/tmp/damaged.img"), 0)
    image.path.write_bytes(content)
    image.debugfs("set_inode_field cr links_count 9", write=True)
    return image.path.read_bytes()


def forget_start():
    """Makes the root what a start finds, whatever the one before did to it: a refused card has the
    root unmounted and counted in a file.
    """
    subprocess.run(["mount", "-o", "remount,rw", "/"], check=True)
    subprocess.run(["umount", "-q", FOLDER.parent])
    Path("/root/system.dat").unlink(missing_ok=True)


def start(recovery: Recovery, run: Run, state: State, mark) -> tuple[int, list[str]]:
    """Lets the library start on the card in the slot, and returns how many files it deleted and
    what is wrong.
    """
    before = recovery.catalogue("loaded")
    if before is None:
        return 0, ["the library refuses the card: " + " | ".join(recovery.last)]
    files = {file.name: file.stat() for file in FOLDER.iterdir()}
    contents = {name: (FOLDER / name).read_bytes() for name in files}
    wrong = [verdict.what for verdict in judge(0, contents, run.recordings, state)]
    if differing := set(before) ^ set(files):
        wrong.append(f"the catalogue is not what the directory holds: {differing}")
    most = most_to_delete(before, files)
    mark(MAKING_ROOM)
    recovery.go_on()
    after = recovery.catalogue("room")
    if after is None:
        return 0, [*wrong, "no room is made: " + " | ".join(recovery.last)]
    if differing := set(after) ^ set(os.listdir(FOLDER)):
        wrong.append("once room was made, the catalogue is not what the directory holds: "
                     f"{differing}")
    deleted = set(before) - set(after)
    if not oldest_went(before, files, after):
        wrong.append(f"it is not the oldest that went: {deleted}")
    if len(deleted) > most:
        wrong.append(f"{len(deleted)} files were deleted, and room needs {most}")
    mark(REMOVED + " ".join(deleted))
    recovery.go_on()
    if not recovery.end():
        wrong.append("the card cannot be unmounted")
    return len(deleted), wrong


def judge_start(run: Run, state: State, log: Path, starts: Starts) -> Result:
    """Judges a sample of the cuts during a start."""
    started = run.start_after(state, log)
    if starts.control == SECRETIVE:
        started.recordings = files_of(started.image)
    if starts.cache is None:
        states = started.distinct()
    else:
        states = list(starts.cache.states_of(started.writes))
    chance = random.Random(state.name)
    chosen = sorted(chance.sample(range(len(states)), min(starts.then, len(states))))
    result = judge_states(started, [states[n] for n in chosen])
    for loss in result.losses:
        loss.state, loss.then = state.name, loss.state
    return result


def states_of(run: Run, starts: Starts) -> Iterable[State]:
    wanted = set(starts.states)
    if starts.cache is None:
        return [State(cut, cut) for cut in sorted(map(int, wanted))]
    return (state for state in starts.cache.states_of(run.writes) if state.name in wanted)


class Tests:
    """The slot with its card, on which one start follows the other."""

    def __init__(self, folder: Path, program: str, logged: bool):
        """Logs what starts write, if that is wanted and can be had: a plain file is faster."""
        self._folder, self._program, self._run = folder, program, Run.of(folder)
        self._logged = logged and why_nothing_is_logged() is None
        self._file = (LoggedFile if self._logged else PlainFile)(self._run.image)
        self._slot = Slot(self._file)

    def make(self, starts: Starts) -> Result:
        run = self._run.ignoring_flushes() if starts.control == IGNORING_FLUSHES else self._run
        card, result = Card(run.image), Result()
        for state in states_of(run, starts):
            with card.in_state(state, run.writes):
                if starts.control in (TORN, UNCHECKED):
                    card.now[SUPERBLOCK] ^= 1
                self._slot.put(damaged(card.now) if starts.control == DAMAGED else card.now)
            self._start(run, state, starts, result)
        return result

    def _start(self, run: Run, state: State, starts: Starts, result: Result):
        log = Path("/tmp/start.log")
        with self._file.log(log), Recovery(self._program, starts.control) as recovery:
            deleted, wrong = start(recovery, run, state, self._file.mark)
        losses = [Verdict(state.name, what) for what in wrong]
        if wrong:
            forget_start()
        if self._logged and starts.then and not wrong:
            second = judge_start(run, state, log, starts)
            result.then += second.cuts
            losses += second.losses
        if self._logged and losses and not starts.control:
            shutil.copy(log, self._folder / start_log(state.name))
        result.starts += 1
        result.codes += recovery.codes
        result.deleted += deleted
        result.losses += losses


def main():
    require_private_root()
    jobs = [Starts.from_json(values) for values in json.load(sys.stdin)]
    tests = Tests(Path(sys.argv[1]), sys.argv[2], any(job.then for job in jobs))
    for job in jobs:
        print(tests.make(job).to_json())
    sys.stdout.flush()
    os._exit(0)  # the file system, its process and the loop devices go with the root


if __name__ == "__main__":
    main()
