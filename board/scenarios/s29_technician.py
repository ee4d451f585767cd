"""A technician goes through the problems of a device, and the command finds each of them."""

import re

from board.board import Board, expect, expect_equal
from board.image import Image, fill, sample
from board.machine import Machine

LIMIT = 300

TIMEOUT = 60  # seconds, of the watchdog

SCRIPT = f"""
show() {{ echo "+ $*"; quellon "$@"; echo "= $?"; }}
until_state() {{ until [ "$(cat /sys/class/watchdog/watchdog0/state)" = $1 ]; do usleep 10000; done; }}

show card
show watchdog
mount -o noatime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
show card
show catalogue
driver guard {TIMEOUT} 1000 & guard=$!
until_state active
show watchdog
show card check
date -s @30
show clock
show clock --set "2024-05-01 12:00:00"
show counter
show counter --clear
echo 1 >/sys/fs/ext4/mmcblk1p1/trigger_fs_error
show card
umount /mnt/sdcard
kill -KILL $guard
wait $guard
show card check --repair
mount -o noatime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
show card
umount /mnt/sdcard
blockdev --setro /dev/mmcblk1
show card
show health --json
await pull
gone() {{ while [ -e /sys/block/mmcblk1 ]; do usleep 100000; done; }}
there() {{ until [ -e /dev/mmcblk1p1 ]; do usleep 100000; done; }}
gone
show card
await insert
there
mount -o noatime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
await exchange
gone
show card
await other
there
show card
"""


def run(board: Board):
    counted = fill(board.folder / "storage", {"system.dat": b'{"sdcard-status-conter":3}'})
    board.storage.format(counted)
    files = {f"cr/rec_{number:06}.dat": sample(str(number), 50_000) for number in (1, 2, 3)}
    times = {name: 1_700_000_000 + 60 * place for place, name in enumerate(files)}
    card = Image.card(board.folder / "card.img", fill(board.folder / "card", files, times),
                      size=64 << 20)
    with board.start(SCRIPT, card, clock="2024-01-01T00:00:00") as machine:
        for place in "pull", "insert", "exchange", "other":
            machine.arrive(place)
            if place in ("pull", "exchange"):
                machine.pull_card()
            else:
                machine.insert_card(card.path)
            machine.go_on(place)
        machine.finish()
    expect_equal((machine.boots, machine.resets), (1, 0), "starts and resets")

    told = shown(machine)
    expect_told(told, "card", 1, "the card is not mounted")
    expect_told(told, "watchdog", 1, "nothing guards the board: the watchdog is not armed")
    expect_told(told, "card", 0, "in service")
    expect_told(told, "catalogue", 0, "2 min 0 s")
    armed = expect_told(told, "watchdog", 0, "imx2+ watchdog")
    expect(re.search(r"^held by +driver \(\d+\)$", armed, re.M) is not None, "nobody holds it")
    expect_told(told, "card check", 3, "the card is mounted")
    expect_told(told, "clock", 1, "the system clock is reset")
    # The emulated clock, once set, is late by the time of the host: the two may differ then.
    expect_told(told, "clock --set 2024-05-01 12:00:00", None, "system         2024-05-01 12:00:")
    expect_told(told, "counter", 1, "the restarts for a failing card are used up")
    expect_told(told, "counter --clear", 0, "no card has failed since the last good start")
    expect_told(told, "card", 1, "the file system has met errors")
    repaired = expect_told(told, "card check --repair", 0, "no errors")
    expect("watchdog       armed: start the service within 1 min 0 s" in repaired,
           "the watchdog that was left armed was not kicked")
    expect_told(told, "card", 0, "in service")
    expect_told(told, "card", 1, "the card is write-protected")
    expect_told(told, "health --json", 1, '"state":2')
    expect_told(told, "card", 1, "no card in the slot")
    expect_told(told, "card", 1, "the card was pulled while it was mounted")
    expect_told(told, "card", 1, "the card was pulled while it was mounted, and another put in")
    expect_equal(told, [], "left to be looked at")
    expect("system.dat" not in board.storage.names("/"), "the counter was not cleared")


def shown(machine: Machine) -> list[tuple[str, int, str]]:
    """Returns what each run of the command printed, with its arguments and its exit code."""
    runs = re.findall(r"^\+ (.*)\n((?:.*\n)*?)= (\d+)$", "\n".join(machine.lines), re.M)
    return [(arguments, int(code), text) for arguments, text, code in runs]


def expect_told(told: list[tuple[str, int, str]], arguments: str, code: int | None,
                text: str) -> str:
    """The next run was of these arguments, ended with this code, if one is given, and showed this
    text.
    """
    expect(told != [], f"quellon {arguments} did not run")
    ran, ended, output = told.pop(0)
    expect_equal((ran, ended), (arguments, ended if code is None else code),
                 f"what ran and how it ended, saying {output!r}")
    expect(text in output, f"quellon {arguments} says {output!r}")
    return output
