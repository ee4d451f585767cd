"""Both clocks are set and read back; a start at the epoch is announced and told."""

import json
import re

from board.board import Board, expect, expect_equal
from board.image import Image

LIMIT = 300

SET = 1_699_999_980  # a whole minute
EAST = 3 * 3600  # the clock on the wall holds local time
SLACK = 60  # seconds that a busy emulation may take to start, or from command to command

# QEMU sets the emulated clock by the host's time. Read by the board's, which has not gone as far, it
# would be seconds behind what it was set to.
HOST_CLOCK = ("-rtc", "base=2021-03-04T17:05:09,clock=host")

SETTING = f"""
export TZ=EAST-3
now() {{ echo "$1 system $(date +%s) rtc $(cat /sys/class/rtc/rtc0/since_epoch)"; }}
now start
driver set-rtc {SET}
now set
driver set-date 1500000000
now moved
driver load-rtc
now restored
"""

RESET = """
echo "start system $(date +%s)"
driver init-disk
driver set-date 10000
driver init-disk
"""


def run(board: Board):
    lines = board.run(SETTING, options=HOST_CLOCK).lines
    for command in ("set-rtc", "set-date", "load-rtc"):
        expect(f"driver: {command} yes" in lines, f"{command} failed")
    expect_time(lines, "start", "rtc", 1_614_877_509)
    expect_time(lines, "set", "system", SET)
    expect_time(lines, "set", "rtc", SET + EAST)
    expect_time(lines, "moved", "system", 1_500_000_000)
    expect_time(lines, "moved", "rtc", SET + EAST)
    expect_time(lines, "restored", "system", SET)
    expect(any(line.startswith("RTC: 11/15/2023 01:13:") for line in lines), "the printed time")

    card = Image.card(board.folder / "card.img")
    lines = board.run(RESET, card, clock="1970-01-01T00:00:30").lines
    expect_time(lines, "start", "system", 0)
    banner = lines.index("SYSTEM DATE/TIME CHANGED, RTC RESET DUE POWER OFF")
    frame = [lines[banner - 2], lines[banner - 1], lines[banner + 1]]
    expect_equal(frame, ["", "=" * 66, "=" * 66], "the banner's frame")
    expect_equal(lines.count(lines[banner]), 1, "banners")
    first, second = (json.loads(line.removeprefix("health ")) for line in lines
                     if line.startswith("health "))
    expect_equal(first.get("rtc-have-been-reset"), 1, "the health key at the epoch")
    expect("rtc-have-been-reset" not in second, "the health key is set when the clock is right")
    board.note(f"at the epoch: {json.dumps(first)}")


def expect_time(lines: list[str], moment: str, clock: str, expected: int):
    line = next(line for line in lines if line.startswith(moment + " "))
    actual = int(re.search(rf"{clock} (\d+)", line).group(1))
    expect(0 <= actual - expected <= SLACK,
           f"{moment}: the {clock} clock says {actual} instead of {expected}")
