"""The main job on the board: a small card that fills up while the recorder runs."""

import json
import shutil
import sys

from board.board import ROOT, Board, boot_seconds, cross_build, expect, prepare, programs
from board.image import Image
from board.machine import Machine
from board.recorder import (FOLDER, deleted, expect_intact, health, recorded, recordings, service,
                            stop)
from board.tools import Failure

CARD_BYTES = 32 << 20
LIMIT = 600  # s


def main() -> int:
    print("== The board's parts and the cross build (the first time takes minutes)", flush=True)
    prepare()
    cross_build()
    folder = ROOT / "build/board/demo"
    board = Board(folder, LIMIT, programs(), echo=True)
    card = Image.card(folder / "card.img", size=CARD_BYTES)

    print(f"== The board's console; a card of {CARD_BYTES >> 20} MiB is in its slot", flush=True)
    machine = fill_card(board, card)
    summarize(machine, card)
    shutil.rmtree(folder)
    return 0


def fill_card(board: Board, card: Image) -> Machine:
    with board.start(service(period=500), card) as machine:
        machine.wait("[REC] Catalogue of 2 files")
        for _ in range(3):
            machine.wait("[REC] Deleted")
        machine.wait(".gps")
        stop(machine)
    return machine


def summarize(machine: Machine, card: Image):
    report = health(machine)
    written = [name for name in recorded(machine) if name.endswith(".dat")]
    kept = [name for name in card.names(FOLDER) if name.endswith(".dat")]
    expect(report["zr"] == 0, "the card is not in service")
    expect(kept == written[deleted(machine):], "the recordings kept are not the newest")
    expect_intact(card, recordings(int(name[4:10]) for name in kept))
    expect(card.check() == 0, "the card's file system is not clean")

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
