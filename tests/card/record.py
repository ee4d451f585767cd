#!/usr/bin/env python3
"""Runs the recorder on a card with a write-back cache, in a private root, and logs its writes.

    private_root --writable FOLDER record.py FOLDER RECORDER FILES

The card is FOLDER/before.img, and stays as it was; the log is FOLDER/writes.log. While the
last files are recorded something else flushes the card, so there are cuts with half a recording.
"""

import contextlib
import os
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent.parent), str(HERE)]
sys.dont_write_bytecode = True

from alone import call
from board.cuts import BEFORE, BUSY, CATALOGUED, LOG, SIZE
from slot import LoggedFile, Slot, require_log, require_private_root

CARD = "/mnt/sdcard"
BUSY_PART = 8  # one file of so many is the last


def record(card: LoggedFile, recorder: str, files: int):
    """Runs the recorder until it has recorded so many files, and marks in the log what it tells.

    Files count once the catalogue is complete: nothing is deleted before.
    """
    service = subprocess.Popen([recorder, "--size", str(SIZE), "--period", "20", "--min-free", "1"],
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    busy_at, catalogued = files // BUSY_PART, False
    with contextlib.ExitStack() as until_the_end:
        for line in service.stdout:
            print(line, end="")
            if any(told in line for told in (CATALOGUED, "Recorded", "Deleted")):
                card.mark(line.strip())
            catalogued |= CATALOGUED in line
            if not catalogued or "Recorded" not in line:
                continue
            files -= 1
            if files == busy_at:
                card.mark(BUSY)
                until_the_end.enter_context(something_else_commits())
            if files == 0:
                break
        service.kill()
        service.wait()


@contextlib.contextmanager
def something_else_commits():
    """Has another process flush the card again and again in the `with` block."""
    going_on = Path("/run/busy")
    going_on.touch()
    process = os.fork()
    if process == 0:
        flush_while_there_is(going_on)
    try:
        yield
    finally:
        going_on.unlink()
        os.waitpid(process, 0)


def flush_while_there_is(going_on: Path):
    card = os.open(CARD, os.O_RDONLY)
    while going_on.exists():
        call("syncfs", card)
    os._exit(0)


def main():
    folder, recorder, files = Path(sys.argv[1]), sys.argv[2], int(sys.argv[3])
    require_private_root()
    require_log()
    card = LoggedFile((folder / BEFORE).read_bytes())
    Path("/root/bin").mkdir(exist_ok=True)
    stand_in = Path("/root/bin/reboot")
    stand_in.write_text("#!/bin/sh\n")
    stand_in.chmod(0o755)
    slot = Slot(card)
    with card.log(folder / LOG):
        record(card, recorder, files)
    subprocess.run(["umount", CARD], check=True)
    slot.close()
    sys.stdout.flush()
    os._exit(0)  # the file system and its process go with the root


main()
