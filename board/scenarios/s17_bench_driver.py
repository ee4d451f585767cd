"""The bench driver lists the recordings of a card, and ends well without a card too."""

import re

from board.board import Board, expect, expect_equal
from board.image import Image, fill

LIMIT = 200

SCRIPT = 'bench-driver; echo "exit code $?"\n'


def run(board: Board):
    times = {"cr/b.mp4": 1_600_000_000, "cr/c.gps": 1_600_000_010, "cr/a.mp4": 1_600_000_020}
    folder = fill(board.folder / "card", {name: b"recording" for name in times}, times)
    lines = board.run(SCRIPT, Image.card(board.folder / "card.img", folder)).lines
    listed = [match.group(1) for line in lines if (match := re.search(r"\[SYSTEM\]\[(.*)\]", line))]
    expect_equal(listed, ["b.mp4", "c.gps", "a.mp4"], "the recordings, oldest first")
    expect(any("[SYSTEM] Allocated disk space" in line for line in lines), "no share of the card")
    expect("exit code 0" in lines, "failed with a card")

    lines = board.run(SCRIPT).lines
    expect("Disk exception Disk not found" in lines, "the missing card is not told")
    expect(not any("[SYSTEM]" in line for line in lines), "recordings of a missing card")
    expect("exit code 0" in lines, "failed without a card")
    board.note(f"with a card {listed}, without: none; exit code 0 both times")
