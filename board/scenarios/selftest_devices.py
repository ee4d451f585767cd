"""The board has its drives, clock and watchdog, and the storage survives a reset."""

from board.board import Board, boot_seconds, expect, expect_equal
from board.image import Image, fill, sample

BARE = True
LIMIT = 60

SCRIPT = """
if [ ! -e /root/seen ]; then
    for device in /dev/mmcblk0 /dev/mmcblk1 /dev/mmcblk1p1 /dev/rtc0 /dev/watchdog; do
        ls -l "$device"
    done
    for property in cid csd serial manfid oemid name; do
        echo "$property $(cat /sys/block/mmcblk1/device/$property)"
    done
    cat /sys/class/watchdog/watchdog0/identity /sys/class/rtc/rtc0/name /proc/version
    echo "clock $(cat /sys/class/rtc/rtc0/since_epoch) system $(date +%s)"
    mount -o noatime,nodiratime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
    grep mmcblk /proc/mounts
    ls /sys/fs/ext4; cat /sys/fs/ext4/mmcblk1p1/lifetime_write_kbytes
    stat -c '%n %s %Y' /mnt/sdcard/cr/*
    echo new >/mnt/sdcard/cr/new
    free -k
    echo 1 >/root/seen
    reboot
fi
echo "storage kept $(cat /root/seen)"
"""


def run(board: Board):
    old = sample("old", 100_000)
    folder = fill(board.folder / "card", {"cr/old.mp4": old}, {"cr/old.mp4": 1_600_000_000})
    card = Image.card(board.folder / "card.img", folder)

    machine = board.run(SCRIPT, card, starts=2, clock="2021-03-04T17:05:09")

    text = "\n".join(machine.lines)
    expect("/mnt/sdcard/cr/old.mp4 100000 1600000000" in text, "the card's file looks different")
    expect("storage kept 1" in text, "the storage was lost")
    expect_equal(machine.resets, 1, "resets")
    expect_equal(card.names("/cr"), ["new", "old.mp4"], "the card's files")
    expect(card.read("/cr/old.mp4") == old, "the file's content has changed")
    expect_equal(card.check(), 0, "the card's check")
    board.note(f"ready {boot_seconds(machine)} s after power-on")
