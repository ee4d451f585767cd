"""I/O errors: a card that cannot be written, or read, or loses writes, and one that fails in use."""

from board.board import Board, expect_equal
from board.image import Image, fill
from board.recorder import (WITHOUT_CARD, count_reboots, expect_gave_up, expect_intact, health,
                            recordings, service, stop)

LIMIT = 600

OLD = recordings([1, 2])

UNREADABLE_CATALOGUE = """
fail-card ready
driver init-disk
fail-card all
echo 3 >/proc/sys/vm/drop_caches
driver list
driver make-room 1 0.8
fail-card off
driver init-disk
"""

IN_USE = """
await writes
fail-card writes
await all
fail-card all
sleep 3
await off
fail-card off
"""


def run(board: Board):
    fails_from_the_start(board, "writes", state=3, counted=2)
    fails_from_the_start(board, "all", state=3, counted=2)
    fails_from_the_start(board, "lost", state=1, counted=2)
    catalogue_cannot_be_read(board)
    fails_in_use(board)


def fails_from_the_start(board: Board, errors: str, state: int, counted: int):
    count_reboots(board, counted)
    script = f"fail-card ready\nfail-card {errors}\n" + service()
    with board.start(script, new_card(board)) as machine:
        machine.wait(WITHOUT_CARD)
        stop(machine)
    expect_gave_up(machine, board.storage, state, counted)
    board.note(f"errors ({errors}): {machine.resets} reboots, health {health(machine)}")


def catalogue_cannot_be_read(board: Board):
    """The kernel's own memory answers for the card's size; nothing is deleted unseen."""
    card = new_card(board)
    machine = board.run(UNREADABLE_CATALOGUE, card)
    expect_equal([line for line in machine.lines if line.startswith(("driver: ", "file "))],
                 ["driver: init-disk yes", "driver: list yes", "driver: make-room yes",
                  "driver: init-disk yes"], "the driver's answers")
    expect_intact(card, OLD)


def fails_in_use(board: Board):
    board.storage.format()
    card = new_card(board)
    with board.start("fail-card ready\n" + service(IN_USE), card) as machine:
        machine.wait("[REC] Recorded rec_000003.gps")
        machine.go_on("writes")
        machine.wait("[REC] Could not write")
        machine.wait("[REC] Card released")
        machine.go_on("all")
        machine.go_on("off")
        machine.wait("[REC] Catalogue of")
        machine.wait("[REC] Recorded")
        stop(machine)
    expect_equal(machine.boots, 1, "starts")
    expect_equal(health(machine)["zr"], 0, "the state of the card that works again")
    expect_intact(card, OLD | recordings([3]))
    expect_equal(card.check(), 0, "the card's check")
    board.note(f"errors in use: health {health(machine)}")


def new_card(board: Board) -> Image:
    files = {f"cr/{name}": content for name, content in OLD.items()}
    return Image.card(board.folder / "card.img", fill(board.folder / "card", files))
