"""A clock without a battery is told, and set later than the recordings on the card."""

import json
import re

from board.board import Board, expect, expect_equal
from board.image import Image, fill

LIMIT = 200

NEWEST = 1_830_000_000  # in 2027, of the recordings that are on the card
SLACK = 60  # seconds that a busy emulation may take

SCRIPT = """
record() { echo "$1" >"/mnt/sdcard/cr/$1"; }
rtc() { echo "rtc $(cat /sys/class/rtc/rtc0/since_epoch)"; }

rtc
driver init-disk
record in-1970.dat
driver raise-clock /mnt/sdcard/cr/
record rec_000004.dat
sleep 2
driver raise-clock /mnt/sdcard/cr/
driver save-clock
echo "saved $(cat /root/clock.dat)"
driver set-date 50
driver raise-clock /mnt/sdcard/cr/
record rec_000005.dat
rtc
driver list
"""


def run(board: Board):
    files = {f"cr/rec_{number:06}.dat": b"x" for number in (1, 2, 3)}
    times = {name: NEWEST - 3 + number for number, name in enumerate(files, 1)}
    card = Image.card(board.folder / "card.img", fill(board.folder / "card", files, times))
    lines = board.run(SCRIPT, card, clock="1970-01-01T00:00:30").lines

    health = next(line for line in lines if line.startswith("health "))
    expect_equal(json.loads(health.removeprefix("health ")).get("rtc-have-been-reset"), 1,
                 "the health key of a lost clock")
    expect("SYSTEM DATE/TIME CHANGED, RTC RESET DUE POWER OFF" in lines, "no line tells of it")

    told = [re.fullmatch(r"clock (\d+) to (\d+), (.*)", line) for line in lines]
    first, again, lost = ((int(match[1]), int(match[2]), match[3]) for match in told if match)
    expect(first[0] <= SLACK, f"the clock began at {first[0]}")
    expect_equal(first[1:], (NEWEST + 1, "the clock was set forward"), "a lost clock")
    expect_equal(again[2], "the clock is later than all that is known", "a clock that was set")
    saved = next(line for line in lines if line.startswith("saved ")).split()[1:]
    expect(saved[0] == saved[1] and 0 < int(saved[0]) - NEWEST <= SLACK, f"{saved} was saved")
    expect_equal(lost[2], "the clock was set forward", "a clock that was lost again")
    expect(int(saved[0]) < lost[1] <= NEWEST + SLACK, f"it was set to {lost[1]}")

    before, after = (int(line.split()[1]) for line in lines if line.startswith("rtc "))
    expect(0 <= after - before <= SLACK, "the real-time clock was set, and tells of its battery no more")
    listed = [line.split()[1] for line in lines if line.startswith("file ")]
    expect_equal(listed, ["in-1970.dat", *(f"rec_{number:06}.dat" for number in range(1, 6))],
                 "the recordings, oldest first")
    board.note(f"from {first[0]} to {first[1]}, and from {lost[0]} to {lost[1]}")
