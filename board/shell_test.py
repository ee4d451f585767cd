#!/usr/bin/env python3
"""The shell on the board, as somebody at a terminal uses it: with the README's own program, whose
card is pulled and put back, a reset, and a power cut.
"""

import os
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BOARD = ROOT / "scripts/board"
sys.path.insert(0, str(ROOT))

from board import shell

CANNOT_RUN = 77
HANDS = ("--pull-card", "--insert-card", "--reset", "--cut-power")

PAGE = (ROOT / "board/README.md").read_text()
SOURCE = re.search(r"^```cpp\n(.*?)^```", PAGE, re.MULTILINE | re.DOTALL)[1]
COMPILE = re.search(r"^arm-linux-gnueabihf-g\+\+.*", PAGE, re.MULTILINE)[0]

LIMIT = 60  # seconds, for each step

STARTED = "board: started after"
POWER_OFF = "\x01x"  # Ctrl-A X
HALT = "\x1a"  # Ctrl-Z: what is being written is written, and nothing uses the card then


class Terminal:
    """A terminal with a command on it."""

    def __init__(self, *command):
        self._process, self._terminal = pty.fork()
        if self._process == 0:
            os.execv(command[0], [str(word) for word in command])
        self._unread = ""

    def type(self, text: str):
        os.write(self._terminal, text.encode())

    def wait(self, pattern: str):
        """Reads until the pattern has come."""
        end = time.monotonic() + LIMIT
        while not (found := re.search(pattern, self._unread)):
            if not select.select([self._terminal], [], [], end - time.monotonic())[0]:
                raise TimeoutError(f"no {pattern!r} in {self._unread}")
            self._unread += os.read(self._terminal, 4096).decode(errors="replace")
        self._unread = self._unread[found.end():]

    def close(self):
        """Hangs up, with which the command ends."""
        os.close(self._terminal)

    def end(self) -> int:
        """Waits for the command's end and returns its exit code."""
        return os.waitstatus_to_exitcode(os.waitpid(self._process, 0)[1])


def main() -> int:
    if shutil.which("qemu-system-arm") is None or shell.is_running(ROOT / "build/board/shell"):
        print("there is no qemu-system-arm, or somebody's shell runs on the board")
        return CANNOT_RUN
    for option in HANDS:
        expect("no shell runs on the board" in hand(option), f"{option} without a shell")
    with tempfile.TemporaryDirectory() as folder:
        terminal = Terminal(BOARD, "--built", "--shell", *added(Path(folder)))
        try:
            use(terminal)
        finally:
            terminal.close()
    return 0


def added(folder: Path) -> list[str]:
    """Makes the program, a command, a library and a file; returns the options that add them."""
    (folder / "writer.cpp").write_text(SOURCE)
    command = re.sub(r"\bwriter\b", f"{folder}/writer", COMPILE)
    subprocess.run(command.split(), cwd=ROOT, check=True)
    (folder / "count").write_text("#!/bin/sh\ncat $1 | wc -l\n")
    (folder / "count").chmod(0o755)
    for name in ("libown.so.1", "settings"):
        (folder / name).write_text("one\ntwo\n")
    places = ("writer", "count", "libown.so.1", "settings:/etc/own")
    return [word for place in places for word in ("--add", f"{folder}/{place}")]


def use(terminal: Terminal):
    terminal.wait("# ")
    for file in ("/usr/lib/arm-linux-gnueabihf/libown.so.1", "/etc/own/settings"):
        terminal.type(f"count {file}\n")
        terminal.wait(r"\n2\r")
    terminal.type("writer\n")
    terminal.wait("1 is on the card")
    expect("already" in hand("--insert-card"), "a second card in the slot")
    terminal.type(HALT)
    terminal.wait("Stopped")
    terminal.wait("# ")
    expect_done("--pull-card")
    terminal.type("sleep 1; fg\n")
    terminal.wait("is lost")
    expect("no card" in hand("--pull-card"), "a card pulled twice")
    expect_done("--insert-card")
    terminal.wait("is on the card")

    expect_done("--reset")
    terminal.wait(STARTED)
    expect_done("--cut-power")
    terminal.wait("Enter")
    terminal.type("\n")
    terminal.wait(STARTED)
    terminal.wait("# ")
    terminal.type("mount /dev/mmcblk1p1 /mnt/sdcard; cat /mnt/sdcard/1\n")
    terminal.wait("a recording")
    terminal.type(POWER_OFF)
    expect(terminal.end() == 0, "the exit code")


def hand(option: str) -> str:
    """Does something at the board from another terminal, and returns what it complains of."""
    done = subprocess.run([BOARD, option], capture_output=True, text=True)
    expect((done.returncode == 0) == (done.stderr == ""), f"the exit code of {option}")
    return done.stderr


def expect_done(option: str):
    complaint = hand(option)
    expect(complaint == "", f"{option}: {complaint}")


def expect(condition: bool, otherwise: str):
    if not condition:
        raise AssertionError(otherwise)


if __name__ == "__main__":
    sys.exit(main())
