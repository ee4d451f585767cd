"""A card that fails while it is recorded on: what fails is told, and nothing is written elsewhere."""

from board.board import Board, expect, expect_equal
from board.image import Image

LIMIT = 300

TOLD_WITHIN = 5  # seconds

# The mount directory of the root file system has a folder for recordings, too, and must stay empty.
SCRIPT = """
mkdir /mnt/sdcard/cr
mount -t debugfs debugfs /sys/kernel/debug
grep -c Occurred /sys/kernel/debug/mmc1/err_stats
partition=/dev/mmcblk1p1

mounted() { mount -o data=writeback,"$1" $partition /mnt/sdcard; mkdir -p /mnt/sdcard/cr; }
fault() { echo "fault $(cut -d' ' -f1 /proc/uptime) $*"; }
# watch SECONDS PERIOD: while it is recorded, from a good card on.
watch() { driver watch-card $partition $1 $2 & sleep 1; }

mounted errors=continue
watch 3 200
fault "the device is read-only"
blockdev --setro /dev/mmcblk1
wait
blockdev --setrw /dev/mmcblk1

watch 3 200
fault "an error that is passed over"
echo here >/sys/fs/ext4/mmcblk1p1/trigger_fs_error
wait
umount /mnt/sdcard

mounted errors=remount-ro
watch 3 200
fault "an error that makes it read-only"
echo here >/sys/fs/ext4/mmcblk1p1/trigger_fs_error
wait
umount /mnt/sdcard

mounted errors=continue
sync
watch 6 3000
hold pulled
fault "pulled"
until [ ! -e /dev/mmcblk1 ]; do usleep 100000; done
await inserted
until [ -e $partition ]; do usleep 100000; done
echo "another card"
wait
umount -l /mnt/sdcard

fail-card ready
ln -s mmcblk1p1 /dev/dm-0
partition=/dev/dm-0
mounted errors=continue
watch 4 200
fault "writes fail"
fail-card writes
wait
umount /mnt/sdcard
echo "on the root: $(ls /mnt/sdcard/cr | wc -l)"
"""

GOOD = "the card is good"
TOLD = [["the card is read-only"], ["the card has met errors"], ["the card is read-only"],
        ["the card is gone"], ["the card has met errors", "the card is read-only"]]


def run(board: Board):
    card = Image.card(board.folder / "card.img", size=64 << 20)
    other = Image.card(board.folder / "other.img", size=64 << 20)
    with board.start(SCRIPT, card) as machine:
        machine.arrive("pulled")
        machine.pull_card()
        machine.go_on("pulled")
        machine.arrive("inserted")
        machine.insert_card(other.path)
        machine.go_on("inserted")
        machine.finish()
    expect_equal(machine.boots, 1, "starts")
    expect("another card" in machine.lines, "no other card came into the slot")
    expect("on the root: 0" in machine.lines, "there are recordings on the root file system")
    expect_equal(len([name for name in card.names("/cr") if name.startswith("watched_")]) > 0, True,
                 "recordings on the card")

    faults = [line.split(maxsplit=2) for line in machine.lines if line.startswith("fault ")]
    expect_equal(len(faults), len(TOLD), "faults")
    found = [finding(line) for line in machine.lines if line.startswith("card ")]
    for (_, at, what), expected in zip(faults, TOLD):
        expect_equal(found.pop(0)[1], GOOD, f"{what}: the card before")
        second, text = found.pop(0)
        expect(text in expected, f"{what}: {text}")
        expect(second - float(at) < TOLD_WITHIN, f"{what}: told after {second - float(at):.1f} s")
        board.note(f"{what}: after {second - float(at):.1f} s, {text}")
        while found and found[0][1] != GOOD:
            found.pop(0)
    expect_equal(found, [], "findings after the last")
    for line in machine.lines:
        if line.startswith("look "):
            board.note(line)


def finding(line: str) -> tuple[float, str]:
    """Returns when something was found, in seconds since the start, and what."""
    _, second, text = line.split(maxsplit=2)
    return float(second), text.split(":")[0]
