#!/usr/bin/env python3
"""Starts the device without a card until it restarts no more, and logs its storage's writes.

    private_root --writable FOLDER logged_starts.py FOLDER NAME MODE START...

START is the program counted_start with its arguments, which asks here for what it does to the
storage. The storage is FOLDER/NAME.img, of which /root is a folder, and its writes and flushes go
to FOLDER/NAME.log, with marks for the steps. MODE is `busy`, where something else on the device
commits before each step; or `late`, where it does so once the step that flushes has begun; or
`unflushed`, where nothing is flushed before a restart; or any other word for a device that does
nothing else.
"""

import fcntl
import os
import subprocess
import sys
import threading
import time
from itertools import count
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent.parent), str(HERE)]
sys.dont_write_bytecode = True

from alone import call
from slot import PLACE, LoggedFile, require_log, require_private_root

# No command may be looked for in /root: its storage cannot answer while Python starts a process.
os.environ["PATH"] = "/usr/sbin:/usr/bin:/sbin:/bin"

STORAGE, ROOT = Path("/run/storage"), Path("/root")
BUILD = Path("/run/build")  # seen here, too, since the project may lie below /root
COUNTER = ROOT / "system.dat"
GATE = Path("/run/gate")  # locked while the storage holds what is written
MOST_LOOPS = 64
LATE = 5  # seconds after which what was written arrives at the latest
MOST_STARTS = 6  # two more than there may be

# The kernel commits what was written after a while, on a slow machine in the middle of any step.
OPTIONS = "loop,offset=1048576,commit=300"


class Storage(LoggedFile):
    """The fixed storage, which can be slow with what is written."""

    def __init__(self, content: bytes):
        self._gate = open(GATE, "wb")
        self.is_held = False
        super().__init__(content)

    def hold(self):
        fcntl.flock(self._gate, fcntl.LOCK_EX)
        self.is_held = True

    def go_on(self):
        fcntl.flock(self._gate, fcntl.LOCK_UN)
        self.is_held = False

    def _write(self, offset: int, data: bytes):
        with open(GATE, "rb") as gate:
            fcntl.flock(gate, fcntl.LOCK_SH)
        super()._write(offset, data)


class Device:
    def __init__(self, storage: Storage, mode: str, program: list[str]):
        self._storage, self._mode, self._program = storage, mode, program

    def start(self) -> bool:
        """Starts once and tells whether that ended in a restart."""
        self._storage.mark("start")
        run("mount", "-o", OPTIONS, PLACE, STORAGE)
        run("mount", "--bind", STORAGE / "root", ROOT)
        self._storage.mark(f"holds {COUNTER.read_text() if COUNTER.exists() else None!r}")
        restarts = found = False
        environment = {**os.environ, "LD_LIBRARY_PATH": str(BUILD), "GCOV_PREFIX": "/dev/null"}
        with subprocess.Popen(self._program, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              text=True, bufsize=1, env=environment) as process:
            for line in process.stdout:
                words = line.split()
                if words[0] == "step":
                    restarts |= words[1] == "restart"
                    self._step(words[1], restarts)
                    process.stdin.write("go on\n")
                elif words[0] == "Found" and not found:  # a second line has another number
                    found = True
                    self._storage.mark(f"found {words[5]}")
        self._storage.go_on()
        if process.returncode != 0:
            sys.exit(f"the start ended with {process.returncode}")
        if not restarts:
            self._storage.mark("go-on")
        unmount(ROOT)
        unmount(STORAGE)
        return restarts

    def _step(self, step: str, restarts: bool):
        is_late = self._mode == "late" and self._storage.is_held
        if self._mode in ("busy", "late") and not is_late:
            self._commit_meanwhile()
        if step == "restart" or not restarts:
            self._storage.mark(step)
        if is_late:
            self._commit_meanwhile()
        if step == "sync" and (self._mode != "unflushed" or restarts):
            os.sync()
        if step == "unmount":  # which for the kernel is this
            run("mount", "-o", "remount,ro", STORAGE)
        if self._mode in ("busy", "late") and step == "write":
            self._storage.hold()

    def _commit_meanwhile(self):
        """Commits what was done so far, as another program may that flushes its own files.

        What was written to the counter's file is still on its way then; and a second time, when it
        has arrived.
        """
        commit = threading.Thread(target=commit_elsewhere)
        commit.start()
        if self._storage.is_held:
            wait_for_two_writes()
            self._storage.go_on()
        commit.join()
        run("sync", "--file-system", STORAGE)


def commit_elsewhere():
    other = os.open(STORAGE / "positions", os.O_CREAT | os.O_RDONLY | os.O_CLOEXEC, 0o600)
    os.utime(other)
    os.fsync(other)
    os.close(other)


def wait_for_two_writes():
    """Waits until the commit is on its way to the storage, too."""
    mounts = [line.split() for line in Path("/proc/mounts").read_text().splitlines()]
    loop = next(Path(source).name for source, place, *_ in mounts if place == str(STORAGE))
    end = time.monotonic() + LATE
    while time.monotonic() < end:
        writes = int(Path(f"/sys/kernel/block/{loop}/inflight").read_text().split()[1])
        if writes > 1:
            return
        time.sleep(0.001)


def run(*command):
    subprocess.run(command, check=True)


def shown_elsewhere(program: str) -> str:
    """Returns a path of the program, and of the libraries beside it, that stays."""
    build = Path(program).parents[2]
    BUILD.mkdir()
    run("mount", "--bind", build, BUILD)
    return str(BUILD / Path(program).relative_to(build))


def unmount(place: Path):
    """By the system call alone: the command would complain that the loop device is gone, too."""
    call("umount", bytes(place))


def main():
    folder, name, mode, *program = sys.argv[1:]
    require_private_root()
    require_log()
    for number in range(MOST_LOOPS):
        if not Path(f"/dev/loop{number}").exists():
            os.mknod(f"/dev/loop{number}", 0o60600, os.makedev(7, number))
    STORAGE.mkdir()
    storage = Storage(Path(folder, f"{name}.img").read_bytes())
    device = Device(storage, mode, [shown_elsewhere(program[0]), *program[1:]])
    starts = count(1)
    with storage.log(Path(folder, f"{name}.log")):
        while device.start() and next(starts) < MOST_STARTS:
            pass
    os._exit(0)  # the file system and its process go with the root


if __name__ == "__main__":
    main()
