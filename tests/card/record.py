#!/usr/bin/env python3
"""Runs the recorder on a card with a write-back cache, in a private root, and logs its writes.

    private_root --writable FOLDER record.py FOLDER RECORDER FILES

The card is FOLDER/before.img, and stays as it was; the log is FOLDER/writes.log.
"""

import os
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent.parent), str(HERE)]
sys.dont_write_bytecode = True

from board.cuts import BEFORE, LOG, SIZE
from slot import LoggedFile, Slot, require_log, require_private_root


def record(card: LoggedFile, recorder: str, files: int):
    """Runs the recorder until it has recorded so many files, and marks in the log what it tells.

    Files count once the catalogue is complete: nothing is deleted before.
    """
    catalogued = False
    service = subprocess.Popen([recorder, "--size", str(SIZE), "--period", "20", "--min-free", "1"],
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    for line in service.stdout:
        print(line, end="")
        if "Recorded" in line or "Deleted" in line:
            card.mark(line.strip())
            files -= catalogued and "Recorded" in line
        catalogued |= "[REC] Catalogue of" in line
        if files == 0:
            break
    service.kill()
    service.wait()


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
    subprocess.run(["umount", "/mnt/sdcard"], check=True)
    slot.close()
    sys.stdout.flush()
    os._exit(0)  # the file system and its thread go with the root


main()
