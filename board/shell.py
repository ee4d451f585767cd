"""The board's console on a terminal, and the hand at its card and its power meanwhile."""

import os
import signal
import socket
import struct
import subprocess
import sys
import termios
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from board.board import Board
from board.image import Image
from board.machine import Control
from board.tools import Failure

SCRIPT = "stty echo onlcr\nexec setsid cttyhack sh -i\n"

CARD, CONTROL = "card.img", "control"

PATIENCE = 10  # seconds for an answer of QEMU


class NotRunning(Failure):
    """There is nothing to reach for."""


def run(board: Board):
    """Gives the terminal a shell on the board; Ctrl-A X ends it."""
    hardware = board.hardware(SCRIPT, Image.card(board.folder / CARD))
    control = f"socket,id=control,path={board.folder / CONTROL},server=on,wait=off"
    command = [*hardware.command(), "-serial", "mon:stdio", "-chardev", control,
               "-mon", "chardev=control,mode=control"]
    while _power_was_cut(command):
        print("\nThe power is cut: Enter switches it on again, Ctrl-D ends.", flush=True)
        if not sys.stdin.readline():
            return


def _power_was_cut(command: list[str]) -> bool:
    """Runs the board until it ends, and tells whether that was a power cut."""
    with _terminal_kept():
        code = subprocess.run(command).returncode
    if code not in (0, -signal.SIGKILL):
        raise Failure(f"the machine ended with {code}")
    return code != 0


@contextmanager
def _terminal_kept() -> Iterator[None]:
    """Gives the terminal back as it was, which a QEMU that is killed does not."""
    terminal = sys.stdin.fileno()
    before = termios.tcgetattr(terminal) if os.isatty(terminal) else None
    try:
        yield
    finally:
        os.set_blocking(terminal, True)
        if before:
            termios.tcsetattr(terminal, termios.TCSANOW, before)


def is_running(folder: Path) -> bool:
    """Tells whether a shell runs in this folder."""
    try:
        with _connected(folder):
            return True
    except NotRunning:
        return False


def pull_card(folder: Path):
    with _reached(folder) as control:
        if not _has_card(control):
            raise Failure("there is no card in the slot")
        control.pull_card()


def insert_card(folder: Path):
    """Puts back the card that was pulled."""
    with _reached(folder) as control:
        if _has_card(control):
            raise Failure("there is a card in the slot already")
        control.insert_card(folder / CARD)


def press_reset(folder: Path):
    with _reached(folder) as control:
        control.run("system_reset")


def cut_power(folder: Path):
    """Kills QEMU, which is the process at the other end."""
    with _connected(folder) as connection:
        peer = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
        process, *_ = struct.unpack("3i", peer)
        os.kill(process, signal.SIGKILL)


@contextmanager
def _reached(folder: Path) -> Iterator[Control]:
    with _connected(folder) as connection:
        control = Control(connection)
        control.greet()
        yield control


@contextmanager
def _connected(folder: Path) -> Iterator[socket.socket]:
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(PATIENCE)
        try:
            connection.connect(str(folder / CONTROL))
        except OSError:
            raise NotRunning("no shell runs on the board: scripts/board --shell") from None
        yield connection


def _has_card(control: Control) -> bool:
    return any(drive["device"] == "card" and "inserted" in drive
               for drive in control.run("query-block"))
