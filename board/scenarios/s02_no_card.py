"""Without a card the board starts again three times, then its service runs without one."""

from board.board import Board
from board.recorder import WITHOUT_CARD, counter, expect_gave_up, service, stop

LIMIT = 300


def run(board: Board):
    with board.start(service("await a-while\nsleep 3")) as machine:
        machine.wait(WITHOUT_CARD)
        machine.go_on("a-while")
        stop(machine)
    expect_gave_up(machine, board.storage, state=3)
    board.note(f"{machine.resets} reboots, counter {counter(board.storage)}")
