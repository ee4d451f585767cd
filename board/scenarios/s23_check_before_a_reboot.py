"""A card that does not mount before it was checked is checked at once, and costs no reboot."""

from board.board import Board, expect, expect_equal
from board.image import Image, fill
from board.recorder import counter, expect_intact, health, recorded, recordings, service, stop

LIMIT = 120

OLD = recordings([1, 2])
CHECKSUM = 1024 + 1020  # of the superblock, in its second sector


def run(board: Board):
    files = {f"cr/{name}": content for name, content in OLD.items()}
    card = Image.card(board.folder / "card.img", fill(board.folder / "card", files))
    tear_superblock(card)
    with board.start(service(), card) as machine:
        machine.wait("[REC] Recorded rec_000003.gps")
        stop(machine)
    expect_equal(machine.resets, 0, "resets")
    expect_equal(counter(board.storage), 0, "the counter")
    expect_equal(health(machine)["zr"], 0, "the card's state")
    expect(any("checksum" in line for line in machine.lines), "the kernel mounted the card")
    expect_intact(card, OLD)
    expect_equal(card.check(), 0, "the check afterwards")
    board.note(f"{len(recorded(machine))} files recorded without a reboot")


def tear_superblock(card: Image):
    """As a power cut leaves it that comes between its two sectors: with a wrong checksum."""
    with open(card.path, "r+b") as drive:
        drive.seek(card.offset + CHECKSUM)
        drive.write(b"\xff\xff\xff\xff")
