"""The main job on the board: a new card is prepared, fills up while the recorder runs, and is pulled.

At the end, the technician's command tells what is wrong.
"""

import json
import os
import shutil
import sys
from pathlib import Path

from board.board import ROOT, Board, boot_seconds, cross_build, expect, prepare, programs
from board.image import Image
from board.machine import Machine
from board.recorder import (FOLDER, deleted, expect_intact, health, recorded, recordings, service,
                            stop)
from board.tools import Failure

CARD_BYTES = 32 << 20
FIRST = 1 << 20  # where the partition begins that is made on a new card
LIMIT = 600  # s

PREPARE = """
quellon card
quellon card prepare
"""
# The board's time stands nearly still while the host pulls the card.
PULLED = """
until [ "$(grep -c 'Deleted 2 oldest' /var/log/quellon.log)" -ge 3 ]; do sleep 1; done
hold pulled
until [ ! -e /dev/mmcblk1 ]; do usleep 100000; done
await released
quellon health
"""


def main() -> int:
    print("== The board's parts and the cross build (the first time takes minutes)", flush=True)
    prepare()
    cross_build()
    folder = ROOT / "build/board/demo"
    board = Board(folder, LIMIT, programs(), echo=True)
    card = new_card(folder)

    print(f"== The board's console; a new card of {CARD_BYTES >> 20} MiB is in its slot", flush=True)
    machine = fill_card(board, card)
    summarize(machine, card)
    shutil.rmtree(folder)
    return 0


def new_card(folder: Path) -> Image:
    """Returns a card without a table, on which the board will make its partition."""
    path = folder / "card.img"
    path.touch()
    os.truncate(path, CARD_BYTES)
    return Image(path, FIRST)


def fill_card(board: Board, card: Image) -> Machine:
    with board.start(PREPARE + service(PULLED, period=500), card) as machine:
        machine.arrive("pulled")
        machine.pull_card()
        machine.go_on("pulled")
        machine.wait("[REC] Card released")
        machine.go_on("released")
        stop(machine)
    return machine


def summarize(machine: Machine, card: Image):
    report = health(machine)
    written = [name for name in recorded(machine) if name.endswith(".dat")]
    expect(report["zr"] == 0, "the card is not in service")
    expect(card.repair() in (0, 1), "the card's file system cannot be repaired")
    kept = [name for name in card.names(FOLDER) if name in written]
    expect(kept == written[deleted(machine):], "the recordings kept are not the newest")
    expect_intact(card, recordings(int(name[4:10]) for name in kept))
    expect(any("no card in the slot" in line for line in machine.lines), "nobody tells of the pull")

    properties = card.superblock()
    free, size = (int(properties[blocks]) * int(properties["Block size"]) / 1e6
                  for blocks in ("Free blocks", "Block count"))
    print(f"""== Done
boot time   {boot_seconds(machine)} s to the start of the service
recordings  {len(written)} written, {deleted(machine)} deleted, {len(kept)} kept, all intact
free space  {free:.1f} MB of {size:.1f} MB
health      {json.dumps(report)}""")


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        sys.exit(f"scripts/demo: {failure}")
