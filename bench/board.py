"""Counts instructions on the emulated board, and prints them by the kind of work as JSON.

Usage: board.py BUILD   (with the libraries and bench_instructions for the board)

The board's clock is made to go by a nanosecond an instruction, so that times are counts. They hold
the kernel's instructions, too: each kind of work has a bare one beside it, the system calls alone.
"""

import json
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT))

from board.board import Board, prepare

LIMIT = 300  # s
WORK = ("log_line", "catalogued_file", "deleted_file")
SCRIPT = "mkdir -p /dev/shm\nmount -t tmpfs tmpfs /dev/shm\n" + "".join(
    f"echo {prefix}{work} $(bench_instructions {prefix}{work} 2>&1)\n"
    for prefix in ("", "bare_") for work in WORK)


def main() -> int:
    build = Path(sys.argv[1])
    prepare()
    programs = {build / "bench/bench_instructions": "usr/bin",
                build / "libTarvik.so.1": "usr/lib", build / "libQuellon.so.1": "usr/lib"}
    board = Board(ROOT / "build/board/bench", LIMIT, programs)
    with board.start(SCRIPT, options=("-icount", "shift=0,sleep=off")) as machine:
        machine.finish()
    counts = dict(line.split() for line in machine.lines if "_" in line and len(line.split()) == 2)
    print(json.dumps({work: int(counts[work]) for work in counts}))
    return 0


if __name__ == "__main__":
    sys.exit(main())
