"""A read-only card is refused and reported as such, and nothing on it changes."""

from board.board import Board, expect
from board.image import Image, fill
from board.recorder import (WITHOUT_CARD, count_reboots, expect_gave_up, health, recordings,
                            service, stop)

LIMIT = 300


def run(board: Board):
    files = {f"cr/{name}": content for name, content in recordings([1]).items()}
    card = Image.card(board.folder / "card.img", fill(board.folder / "card", files), size=64 << 20)
    before = card.path.read_bytes()
    count_reboots(board, 2)
    with board.start("blockdev --setro /dev/mmcblk1\n" + service(), card) as machine:
        machine.wait(WITHOUT_CARD)
        stop(machine)
    expect_gave_up(machine, board.storage, state=2, counted=2)
    expect(card.path.read_bytes() == before, "the card has changed")
    board.note(f"{machine.resets} reboots, health {health(machine)}")
