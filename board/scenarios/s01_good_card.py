"""A good card with recordings on it is brought into service and its files stay as they are."""

from board.board import Board, boot_seconds, expect, expect_equal
from board.image import Image, fill
from board.recorder import (FOLDER, expect_intact, health, recorded, recordings, service, stop)

LIMIT = 300

OLD = recordings(range(1, 6))
NEW = recordings(range(6, 9))


def run(board: Board):
    folder = fill(board.folder / "card", {f"cr/{name}": content for name, content in OLD.items()},
                  {f"cr/{name}": 1_600_000_000 for name in OLD})
    card = Image.card(board.folder / "card.img", folder)

    with board.start(service(), card) as machine:
        machine.wait("[REC] Catalogue of 12 files")  # with the first that was recorded meanwhile
        machine.wait("[REC] Recorded rec_000008.gps")
        stop(machine)

    report = health(machine)
    expect_equal((report["zr"], report["zf"]), (0, 0), "the card's state and its check")
    expect_equal(machine.boots, 1, "starts")
    expect_equal(recorded(machine)[:6], list(NEW), "what was recorded")
    expect(card.names(FOLDER) == sorted([*OLD, *recorded(machine)]), "the directory is another")
    expect_intact(card, OLD | NEW)
    expect_equal(card.check(), 0, "the card's check")
    board.note(f"started after {boot_seconds(machine)} s; health {report}")
    board.note(next(line for line in machine.lines if line.startswith("VmHWM")))
