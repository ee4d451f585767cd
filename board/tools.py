"""Running the host's tools, and being one."""

import argparse
import os
import subprocess
from collections.abc import Callable
from pathlib import Path

# The tools that make and read file systems are in the system administrator's folders.
os.environ["PATH"] += os.pathsep + os.pathsep.join(["/usr/sbin", "/sbin"])


class Failure(Exception):
    """Something did not go as it must; the text says what."""


class Unavailable(Failure):
    """What the board is made of cannot be had on this machine."""


def at_least(least: int) -> Callable[[str], int]:
    """Returns the type of an argument that is a number, and not less than this."""
    def number(text: str) -> int:
        if not text.isdecimal() or int(text) < least:
            raise argparse.ArgumentTypeError(f"{text!r} is no number of {least} or more")
        return int(text)
    return number


def existing(name: str) -> Path:
    """The type of an argument that names a file or a folder."""
    path = Path(name).resolve()
    if not path.exists():
        raise argparse.ArgumentTypeError(f"there is no {name}")
    return path


def run(command: list, cwd: Path | None = None, accept: tuple[int, ...] = (0,)) -> str:
    """Runs a command and returns what it printed; any other exit code than accepted is a Failure.
    """
    done = subprocess.run([str(word) for word in command], cwd=cwd, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace")
    if done.returncode not in accept:
        line = " ".join(str(word) for word in command)
        raise Failure(f"{line}: exit code {done.returncode}\n{done.stdout}")
    return done.stdout
