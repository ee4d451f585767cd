"""A recording of 3 GiB is neither sized nor catalogued, and disturbs nothing else."""

from board.board import Board, expect, expect_equal
from board.image import Image, fill, sample

LIMIT = 300

GiB = 1 << 30
HUGE = 3 * GiB

SCRIPT = """
mount -o noatime,nodiratime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
ls -l /mnt/sdcard/cr/huge.mp4
driver list
driver add-file huge.mp4
driver stat /mnt/sdcard/cr/huge.mp4
driver remove-if-bigger /mnt/sdcard/cr/huge.mp4 1000
driver add-file new.mp4
driver make-room 1000000 0.9
driver init-disk
"""


def run(board: Board):
    files = {"cr/old.mp4": sample("old", 300_000), "cr/huge.mp4": HUGE,
             "cr/new.mp4": sample("new", 200_000)}
    folder = fill(board.folder / "card", files, {"cr/old.mp4": 1_600_000_000,
                                                 "cr/huge.mp4": 1_600_000_100,
                                                 "cr/new.mp4": 1_600_000_200})
    card = Image.card(board.folder / "card.img", size=4 * GiB, formatted=False)
    card.format(folder, options=("-N", "1024"))

    lines = board.run(SCRIPT, card).lines

    expect(any(str(HUGE) in line for line in lines), "the file is not as large as it should be")
    expect_equal([line for line in lines if line.startswith(("file ", "total "))],
                 ["file old.mp4 300000", "file new.mp4 200000", "total 500000"], "the catalogue")
    expect_equal([line for line in lines if line.startswith("driver: ")],
                 ["driver: list yes", "driver: add-file no", "driver: stat no",
                  "driver: remove-if-bigger no", "driver: add-file yes", "driver: make-room yes",
                  "driver: init-disk yes"], "the answers")
    expect("error File not found" in lines, "the huge file was refused for another reason")
    expect("size 0" in lines, "the huge file was sized")
    expect_equal(card.check(), 0, "the card's check")
    expect_equal(card.names("/cr"), ["huge.mp4", "new.mp4", "old.mp4"], "the card's files")
    expect(f"Size: {HUGE}" in card.debugfs("stat /cr/huge.mp4"), "the huge file's size has changed")
    expect(card.read("/cr/old.mp4") == files["cr/old.mp4"], "the old recording has changed")
    expect(card.read("/cr/new.mp4") == files["cr/new.mp4"], "the new recording has changed")
    board.note("catalogue: 2 of 3 files, 500000 bytes; the file of 3 GiB is untouched")
