"""A card is pulled while it is written, another is put in, and the power is cut."""

from board.board import Board, expect
from board.image import Image

BARE = True
LIMIT = 120

SCRIPT = """
mount /dev/mmcblk1p1 /mnt/sdcard
await pulled
sleep 1  # until the kernel has noticed
dd if=/dev/zero of=/mnt/sdcard/new bs=64k count=64 conv=fsync; echo "write $?"
for attempt in $(seq 50); do [ -e /dev/mmcblk1 ] || break; usleep 100000; done
ls /dev/mmcblk1; echo "card $?"
umount /mnt/sdcard; echo "umount $?"
await inserted
for attempt in $(seq 50); do [ -e /dev/mmcblk1p1 ] && break; usleep 100000; done
ls /dev/mmcblk*
mount /dev/mmcblk1p1 /mnt/sdcard; echo "mount $?"
echo text >/mnt/sdcard/new; sync; echo more >/mnt/sdcard/lost
await power-cut
"""


def run(board: Board):
    card = Image.card(board.folder / "card.img")
    other = Image.card(board.folder / "other.img")
    with board.start(SCRIPT, card) as machine:
        machine.arrive("pulled")
        machine.pull_card()
        machine.go_on("pulled")
        expect(machine.wait("write ") != "write 0", "writing without a card succeeded")
        machine.arrive("inserted")
        machine.insert_card(other.path)
        machine.go_on("inserted")
        expect(machine.wait("mount ") == "mount 0", "the other card was not mounted")
        machine.arrive("power-cut")
        machine.cut_power()
    machine = board.run("fsck -f -y /dev/mmcblk1p1; mount /dev/mmcblk1p1 /mnt/sdcard; "
                        "cat /mnt/sdcard/new; ls -l /mnt/sdcard/\n", other)
    expect("text" in machine.lines, "the synced file was lost")
