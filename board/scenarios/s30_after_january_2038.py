"""With 64-bit times a board records across 19 January 2038, and knows recordings of 3 GiB."""

from board.board import ROOT, Board, expect, expect_equal
from board.image import Image
from board.tools import Unavailable

LIMIT = 200

BUILD = ROOT / "build/time64"
PLACE = "/usr/lib/time64"

LAST = 2**31 - 1  # the last second of 32-bit times
SLACK = 60  # seconds that a busy emulation may take

SCRIPT = f"""
export LD_LIBRARY_PATH={PLACE}
driver() {{ {PLACE}/driver "$@"; }}
record() {{ echo "$1" >"/mnt/sdcard/cr/$1"; driver add-file "$1"; }}

driver set-rtc {LAST - 3}
driver init-disk
mkdir -p /mnt/sdcard/cr
record before.dat
sleep 6
record after.dat
truncate -s 3221225472 /mnt/sdcard/cr/huge.dat
sleep 2
driver stat /mnt/sdcard/cr/huge.dat
record last.dat
driver list
driver raise-clock /mnt/sdcard/cr/
driver save-clock
echo "saved $(cat /root/clock.dat)"
driver load-rtc
driver make-room 0 0
echo "left $(ls /mnt/sdcard/cr | wc -l)"
"""


def run(board: Board):
    if not (BUILD / "board/driver/driver").exists():
        raise Unavailable("cmake --preset time64 && cmake --build --preset time64 make what it needs")
    for name in ("libTarvik.so.2", "libQuellon.so.2", "board/driver/driver"):
        board.add(f"{BUILD / name}:{PLACE}")
    lines = board.run(SCRIPT, Image.card(board.folder / "card.img")).lines

    expect("driver: set-rtc yes" in lines, "the clocks could not be set")
    expect("size 3221225472" in lines, "a recording of 3 GiB has no size")
    listed = [line.split()[1] for line in lines if line.startswith("file ")]
    expect_equal(listed, ["before.dat", "after.dat", "huge.dat", "last.dat"], "oldest first")
    saved = int(next(line for line in lines if line.startswith("saved ")).split()[1])
    expect(0 < saved - LAST <= SLACK, f"the clock was kept as {saved}")
    expect(any(line.startswith("RTC: 1/19/2038 03:14:") for line in lines), "the printed time")
    expect("driver: make-room yes" in lines and "left 0" in lines, "recordings are left")
    board.note(f"kept {saved - LAST} s after the last second of 32-bit times")
