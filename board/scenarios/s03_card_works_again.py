"""A card that works again after the second reboot is in service, and the count of reboots ends."""

from board.board import Board, expect_equal
from board.image import Image
from board.recorder import counter, expect_intact, health, recordings, service, stop

LIMIT = 300

FAILING_TWICE = """
echo start >>/root/starts
if [ $(wc -l </root/starts) -lt 3 ]; then
    fail-card ready
    fail-card all
fi
"""


def run(board: Board):
    card = Image.card(board.folder / "card.img")
    with board.start(FAILING_TWICE + service(), card) as machine:
        machine.wait("Found SD card status counter 0 on file")
        machine.wait("Found SD card status counter 1 on file")
        machine.wait("[REC] Recorded rec_000002.gps")
        stop(machine)
    expect_equal(machine.boots, 3, "starts")
    expect_equal(machine.resets, 2, "resets")
    expect_equal(health(machine)["zr"], 0, "the card's state")
    expect_equal(counter(board.storage), 0, "the counter")
    expect_intact(card, recordings([1, 2]))
    expect_equal(card.check(), 0, "the card's check")
    board.note(f"{machine.resets} reboots, counter {counter(board.storage)}")
