"""Every write to the card is a power cut: no complete recording is lost, no card refused."""

import shutil

from board.board import ROOT, Board, expect
from board.cuts import BEFORE, LOG, MARKING, content_of, judge_log, judge_lossy, wear
from board.image import Image, fill

LIMIT, LIMIT_PER_CUT = 300, 30

SIZE, POSITIONS = 100_000, 1024
OLD = range(1, 221)  # so many that each few new ones have old ones deleted
CARD_BYTES = 32 << 20
RECORDINGS_PER_CUT = 5
SHOWN = 10

# What is told of a recording stands in the log of the writes, too, at the moment it was told.
RECORD = f"""{MARKING}
recorder --size {SIZE} --period 200 --min-free 1 | while read -r line; do
    echo "$line"
    case $line in *Recorded* | *Deleted*) mark "$line" ;; esac
done
"""


def run(board: Board):
    image = make_card(board)
    shutil.copy(image.path, board.folder / BEFORE)
    with board.start(RECORD, board.logging_writes(image, board.folder / LOG)) as machine:
        for _ in range(2 * RECORDINGS_PER_CUT * max(board.cuts, 1)):
            machine.wait("[REC] Recorded")
        machine.cut_power()
    expect(any("[REC] Deleted" in line for line in machine.lines), "nothing was deleted")
    board.note(wear(board.folder))
    expect_no_loss(board)
    lossy = judge_lossy(board.folder, one_in=100, every=20)
    expect(bool(lossy.losses), "a card that loses writes was not found out")


def make_card(board: Board) -> Image:
    files = {}
    for number in OLD:
        for extension, size in (("dat", SIZE), ("gps", POSITIONS)):
            name = f"rec_{number:06}.{extension}"
            files[f"cr/{name}"] = content_of(name, size)
    times = {name: 1_600_000_000 + int(name[7:13]) for name in files}
    image = Image.card(board.folder / "card.img", fill(board.folder / "card", files, times),
                       size=CARD_BYTES)
    image.index_folders()
    return image


def expect_no_loss(board: Board):
    result, line = judge_log(board.folder)
    board.note(line)
    if not result.losses:
        return
    kept = board.folder.with_name(board.folder.name + "-lost")
    kept.mkdir(exist_ok=True)
    for name in (BEFORE, LOG):
        shutil.copy(board.folder / name, kept)
    for loss in result.losses[:SHOWN]:
        board.note(f"after write {loss.cut}: {loss.what}; again: "
                   f"python3 -m board.cuts {kept.relative_to(ROOT)} --at {loss.cut}")
    expect(False, f"{len(result.losses)} losses")
