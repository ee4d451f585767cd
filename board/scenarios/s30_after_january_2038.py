"""With 64-bit times a board records across 19 January 2038, and knows recordings of 3 GiB."""

from board.board import ROOT, Board, expect, expect_equal
from board.image import Image
from board.tools import Unavailable

LIMIT = 200

BUILD = ROOT / "build/time64"
PLACE = "/usr/lib/time64"

LAST = 2**31 - 1  # the last second of 32-bit times
SLACK = 60  # seconds that a busy emulation may take

# The board's other programs have 32-bit times: afterwards none of them can be started any more.
SCRIPT = f"""
export LD_LIBRARY_PATH={PLACE}
driver() {{ {PLACE}/driver "$@"; }}
record() {{ echo "$1" >"/mnt/sdcard/cr/$1"; driver add-file "$1"; }}

driver set-rtc {LAST - 8}
driver init-disk
mkdir -p /mnt/sdcard/cr
record before.dat
truncate -s 3221225472 /mnt/sdcard/cr/huge.dat
sleep 12

record after.dat
driver stat /mnt/sdcard/cr/huge.dat
driver list
driver save-clock
read -r saved </root/clock.dat
echo "saved $saved"
driver set-rtc {LAST + 1000}
driver load-rtc
driver remove-if-bigger /mnt/sdcard/cr/huge.dat 3221225472
driver list
echo o >/proc/sysrq-trigger
while :; do :; done
"""


def run(board: Board):
    if not (BUILD / "board/driver/driver").exists():
        raise Unavailable("cmake --preset time64 && cmake --build --preset time64 make what it needs")
    for name in ("libTarvik.so.2t64", "libQuellon.so.2t64", "board/driver/driver"):
        board.add(f"{BUILD / name}:{PLACE}")
    lines = board.run(SCRIPT, Image.card(board.folder / "card.img")).lines

    expect("size 3221225472" in lines, "a recording of 3 GiB has no size")
    listed = [line.split()[1] for line in lines if line.startswith("file ")]
    expect_equal(sorted(listed[:2]), ["before.dat", "huge.dat"], "the oldest")
    expect_equal(listed[2:], ["after.dat", "before.dat", "after.dat"],
                 "the newest, and what is left without the largest")
    saved = int(next(line for line in lines if line.startswith("saved ")).split()[1])
    expect(0 < saved - LAST <= SLACK, f"the clock was kept as {saved}")
    expect_equal(lines.count("driver: set-rtc yes"), 2, "clocks that were set")
    expect(any(line.startswith("RTC: 1/19/2038 03:3") for line in lines), "the printed time")
    expect(any(line.startswith("[2038-01-19 03:14:") for line in lines), "no line of the log")
    board.note(f"kept {saved - LAST} s after the last second of 32-bit times")
