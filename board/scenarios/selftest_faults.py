"""Cards that fail: missing, read-only, with I/O errors, losing writes, damaged, unformatted."""

from board.board import Board, expect, expect_equal
from board.image import Image, fill, sample

BARE = True
LIMIT = 400

MOUNT = "mount -o noatime,nodiratime,data=writeback /dev/mmcblk1p1 /mnt/sdcard; echo mount $?\n"

ERRORS = "fail-card ready\n" + MOUNT + """
fail-card writes
dd if=/dev/zero of=/mnt/sdcard/new bs=1M count=8 conv=fsync; echo "write $?"
fail-card all
echo 3 >/proc/sys/vm/drop_caches
cat /mnt/sdcard/old >/dev/null; echo "read $?"
umount /mnt/sdcard
fail-card off
fsck -f -y /dev/mmcblk1p1; echo "fsck $?"
""" + MOUNT + """
wc -c </mnt/sdcard/old
"""

LOST = MOUNT + """
echo text >/mnt/sdcard/new; sync; echo "write $?"
"""

READ_ONLY = "blockdev --setro /dev/mmcblk1; cat /sys/block/mmcblk1/ro\n" + MOUNT + """
grep sdcard /proc/mounts
"""

FORMAT = """
mkfs.ext4 -v -F -O ^has_journal  -L storage /dev/mmcblk1p1 >/dev/null; echo "format $?"
""" + MOUNT + """
dmesg | grep EXT4-fs | tail -1
mount /dev/mmcblk1p1 /mnt/sdcard; echo "plain mount $?"
"""


def run(board: Board):
    machine = board.run("ls /dev/mmcblk*; echo seen\n")
    expect("/dev/mmcblk1" not in machine.lines, "an empty slot has a card")
    expect("seen" in machine.lines, "the board did not start without a card")

    machine = board.run(ERRORS, new_card(board))
    expect_equal(outcomes(machine, "write"), ["write 1"], "writing to failing sectors")
    expect_equal(outcomes(machine, "read"), ["read 1"], "reading failing sectors")
    expect_equal(outcomes(machine, "mount")[-1], "mount 0", "mounting the card that works again")
    expect("5000000" in machine.lines, "the file is not whole when the card works again")

    card = new_card(board)
    machine = board.run(LOST, board.losing_writes(card))
    expect_equal(outcomes(machine, "write"), ["write 0"], "writing to a card that loses it")
    expect("new" not in card.names("/"), "the write was not lost")

    machine = board.run(READ_ONLY, new_card(board))
    board.note(f"read-only card: {machine.lines[-4:-1]}")

    card = new_card(board)
    card.orphan("/old")
    expect_equal(card.check(), 4, "the check of the damaged card")
    machine = board.run("fsck -f -y /dev/mmcblk1p1; echo fsck $?; " + MOUNT, card)
    expect("fsck 1" in machine.lines, "the damage was not repaired")
    expect_equal(card.check(), 0, "the check of the repaired card")

    card = Image.card(board.folder / "card.img", formatted=False)
    machine = board.run(MOUNT + "fsck -f -y /dev/mmcblk1p1; echo fsck $?\n", card)
    expect("mount 0" not in machine.lines, "a card without a file system was mounted")
    board.note(f"no file system: {outcomes(machine, 'mount')} {outcomes(machine, 'fsck ')}")

    card = new_card(board)
    machine = board.run(FORMAT, card)
    expect_equal(card.superblock()["Filesystem volume name"], "storage", "the label")
    expect("has_journal" not in card.superblock()["Filesystem features"], "there is a journal")
    board.note(f"without journal: {machine.lines[-6:-1]}")


def new_card(board: Board) -> Image:
    folder = fill(board.folder / "card", {"old": sample("old", 5_000_000)})
    return Image.card(board.folder / "card.img", folder)


def outcomes(machine, command: str) -> list[str]:
    return [line for line in machine.lines if line.startswith(command)]
