"""A damaged file system is repaired at the start, which the health report tells."""

from board.board import Board, expect, expect_equal
from board.image import Image, fill
from board.recorder import expect_intact, health, recordings, service, stop

LIMIT = 300

OLD = recordings([1, 2])


def run(board: Board):
    files = {f"cr/{name}": content for name, content in OLD.items()}
    files["lost"] = b"found again"
    card = Image.card(board.folder / "card.img", fill(board.folder / "card", files))
    card.orphan("/lost")
    expect_equal(card.check(), 4, "the check of the damaged card")

    with board.start(service(), card) as machine:
        machine.wait("FSCK output: File system errors corrected")
        machine.wait("[REC] Recorded rec_000003.gps")
        stop(machine)

    report = health(machine)
    expect_equal((report["zr"], report["zf"]), (0, 1), "the card's state and its check")
    expect_equal(machine.boots, 1, "starts")
    found = [card.read(f"/lost+found/{name}") for name in card.names("/lost+found")]
    expect(b"found again" in found, "the file is still lost")
    expect_intact(card, OLD | recordings([3]))
    expect_equal(card.check(), 0, "the check of the repaired card")
    board.note(f"health {report}")
