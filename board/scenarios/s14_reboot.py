"""A restart by the command, and one by the kernel when the command does nothing."""

from board.board import Board, expect, expect_equal
from board.image import Image

LIMIT = 400

GRACE = 20  # seconds that the command is given
MARGIN = 10  # for the forced attempts and a busy emulation

SCRIPT = """
uptime() { cut -d' ' -f1 /proc/uptime; }
start=$(cat /root/start 2>/dev/null || echo 1)
echo $((start + 1)) >/root/start; sync
echo "start $start $(dumpe2fs -h /dev/mmcblk1p1 2>/dev/null | grep features)"
mount -o noatime,nodiratime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
[ $start = 3 ] && { cat /mnt/sdcard/file*; exit; }
echo "content $start" >/mnt/sdcard/file$start
[ $start = 2 ] && touch /etc/board/no-reboot
echo "begin $start $(uptime)"
while :; do echo "alive $start $(uptime)"; sleep 1; done &
driver reboot
echo "returned"
"""


def run(board: Board):
    card = Image.card(board.folder / "card.img")
    machine = board.run(SCRIPT, card, starts=3)
    lines = machine.lines

    expect_equal(machine.resets, 2, "resets")
    expect("returned" not in lines, "a restart has returned")
    expect(duration(lines, 1) < GRACE, "the command did not restart the board")
    expect(GRACE <= duration(lines, 2) + 1 and duration(lines, 2) <= GRACE + MARGIN,
           f"the board restarted {duration(lines, 2):.1f} s after a command that did nothing")
    expect_equal(lines.count("board: reboot command"), 2, "commands")
    # The root file system is in memory and cannot be unmounted; the tenth attempt says nothing.
    complaints = [line for line in lines if line.startswith("Unable to umount")]
    expect_equal(len(complaints), 9, "complaints about the root file system")
    expect(all("root SD" in line for line in complaints), "the card was not unmounted")
    for start in (2, 3):
        features = next(line for line in lines if line.startswith(f"start {start} "))
        expect("has_journal" in features and "needs_recovery" not in features,
               f"the card was still mounted before start {start}: {features}")
    expect("content 1" in lines and "content 2" in lines, "what was written is lost")
    expect_equal(card.check(), 0, "the card's check")
    board.note(f"by the command after {duration(lines, 1):.1f} s, by the kernel after "
               f"{duration(lines, 2):.1f} s; the card is clean each time")


def duration(lines: list[str], start: int) -> float:
    """Returns the seconds from the request to the last life sign."""
    begin = next(line for line in lines if line.startswith(f"begin {start} "))
    alive = [line for line in lines if line.startswith(f"alive {start} ")]
    return float(alive[-1].split()[-1]) - float(begin.split()[-1])
