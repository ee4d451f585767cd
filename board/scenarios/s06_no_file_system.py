"""A card without a file system is refused after the last reboot, and stays as it is."""

from board.board import Board, expect
from board.image import Image
from board.recorder import WITHOUT_CARD, count_reboots, expect_gave_up, health, service, stop

LIMIT = 300


def run(board: Board):
    card = Image.card(board.folder / "card.img", size=64 << 20, formatted=False)
    before = card.path.read_bytes()
    count_reboots(board, 2)
    with board.start(service(), card) as machine:
        machine.wait(WITHOUT_CARD)
        stop(machine)
    expect_gave_up(machine, board.storage, state=3, counted=2)
    expect(card.path.read_bytes() == before, "the card has changed")
    board.note(f"{machine.resets} reboots, health {health(machine)}")
