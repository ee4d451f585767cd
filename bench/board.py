"""Counts instructions on the emulated board, and prints them by the kind of work as JSON.

Usage: board.py BUILD   (with the libraries and bench_board for the board)

The board's clock is made to go by a nanosecond an instruction, so that times are counts. They hold
the kernel's instructions, too: each kind of work has a bare one beside it, the system calls alone.
"""

import json
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT))

from board.board import Board, prepare
from board.tools import Failure

LIMIT = 300  # s
WORK = [prefix + work for prefix in ("", "bare_")
        for work in ("log_line", "catalogued_file", "deleted_file")]
SCRIPT = "".join(
    f"mount -t tmpfs tmpfs /var/log\necho {work} $(bench_board {work} 2>&1)\numount /var/log\n"
    for work in WORK)


def main() -> int:
    build = Path(sys.argv[1])
    prepare()
    programs = {build / "bench/bench_board": "usr/bin",
                build / "libTarvik.so.2": "usr/lib", build / "libQuellon.so.2": "usr/lib"}
    board = Board(ROOT / "build/board/bench", LIMIT, programs)
    machine = board.run(SCRIPT, options=("-icount", "shift=0,sleep=off"))
    print(json.dumps({work: count(machine.lines, work) for work in WORK}))
    return 0


def count(lines: list[str], work: str) -> int:
    for line in lines:
        if match := re.fullmatch(rf"{work} (\d+)", line):
            return int(match.group(1))
    raise Failure(f"{work} was not counted")


if __name__ == "__main__":
    sys.exit(main())
