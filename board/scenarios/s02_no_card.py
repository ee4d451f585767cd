"""Without a card the board starts again three times, then its service runs without one."""

from board.board import Board
from board.recorder import WITHOUT_CARD, counter, expect_gave_up, service, stop

LIMIT = 300


def run(board: Board):
    with board.start(service()) as machine:
        machine.wait(WITHOUT_CARD)
        machine.run_for(3)
        stop(machine)
    expect_gave_up(machine, board.storage, state=3)
    board.note(f"{machine.resets} reboots, counter {counter(board.storage)}")
