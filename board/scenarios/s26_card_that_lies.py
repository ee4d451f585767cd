"""A good card is proved and keeps its recording; one that has half of what it says is found out."""

import hashlib

from board.board import Board, expect, expect_equal
from board.image import Image, MiB, fill, sample

LIMIT = 300

SIZE = 32 * MiB
RECORDING = sample("recording", 3 * MiB)
LEFT = 4 * MiB

# The second half of the forged card is its first: what is written there destroys what lies here.
SCRIPT = f"""
for module in /lib/modules/faults/*; do insmod "$module"; done
card() {{ mount -o noatime,nodiratime,data=writeback "$1" /mnt/sdcard; }}
tell_free() {{ echo "free $(stat -f -c '%f' /mnt/sdcard)"; }}

card /dev/mmcblk1p1
tell_free
driver prove-capacity all {LEFT}
driver prove-capacity samples 0
tell_free
sha256sum /mnt/sdcard/cr/rec_000001.dat
umount /mnt/sdcard

half=$(($(blockdev --getsz /dev/mmcblk1p1) / 2))
dmsetup create --noudevsync forged <<END
0 $half linear /dev/mmcblk1p1 0
$half $half linear /dev/mmcblk1p1 0
END
mkfs.ext4 -q -F -L storage /dev/dm-0
card /dev/dm-0
driver prove-capacity all 0
driver prove-capacity samples 0
umount /mnt/sdcard
driver prove-capacity all 0
"""

GOOD = "the card holds what was written, error 0"
WRONG = "the card does not hold what was written, error 0"


def run(board: Board):
    files = {"cr/rec_000001.dat": RECORDING}
    card = Image.card(board.folder / "card.img", fill(board.folder / "card", files), SIZE)
    lines = board.run(SCRIPT, card).lines

    def told(label: str) -> list[str]:
        return [line.removeprefix(label) for line in lines if line.startswith(label)]

    expect_equal(told("proof "), [GOOD, GOOD, WRONG, WRONG, "there is no card, error 0"],
                 "what came of the proofs")
    before, after = told("free ")
    expect_equal(after, before, "free blocks")
    expect(any(hashlib.sha256(RECORDING).hexdigest() in line for line in lines),
           "the recording has changed")
    rooms, proved, wrong, first, origin = (list(map(int, told(f"{label} "))) for label in
                                           ("room", "proved", "wrong", "first", "origin"))
    expect_equal(proved[0], rooms[0], "bytes proved of a good card")
    expect(proved[2] <= (SIZE - MiB) // 2, "more bytes were proved than the forged card has")
    expect_equal([count > 0 for count in wrong], [False, False, True, True, False], "wrong bytes")
    expect(first[3] < origin[3], "the sample that was found was none that came too late")
    written, read = map(int, told("rates ")[0].split())
    board.note(f"good: {proved[0]} bytes in all, {proved[1]} as samples, "
               f"written at {written / MiB:.0f} and read at {read / MiB:.0f} MiB/s")
    board.note(f"forged: {proved[2]} of {rooms[2]} bytes proved, "
               f"that at {first[2]} is of {origin[2]}")
