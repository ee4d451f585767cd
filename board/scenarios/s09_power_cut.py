"""Power cuts while recording and reclaiming: the card comes back and no synced recording is lost."""

import hashlib
import re

from board.board import Board, expect, expect_equal
from board.image import Image, fill
from board.recorder import deleted, health, recorded, recording, recordings, service

LIMIT, LIMIT_PER_CUT = 120, 120

# The card is nearly full, so that each start soon deletes, too.
OLD = range(1, 19)
CARD_BYTES = 32 << 20

PERIOD = 300  # ms
MOST_FILES = 10  # that are complete when the power is cut, two a recording
LONGEST_WRITE = 0.3  # seconds of the host, about what a recording takes there
DELETED_AT_ONCE = 2

LOOK = """
driver init-disk
driver list
cd /mnt/sdcard/cr && md5sum *
cd /
""" + service(period=PERIOD)


def run(board: Board):
    files = {f"cr/{name}": content for name, content in recordings(OLD).items()}
    times = {name: 1_600_000_000 + int(name[7:13]) for name in files}
    card = Image.card(board.folder / "card.img", fill(board.folder / "card", files, times),
                      size=CARD_BYTES)
    synced, total = set(recordings(OLD)), 0
    chance = board.chance("moments of the cuts")
    for _ in range(board.cuts + 1):
        with board.start(LOOK, card) as machine:
            for _ in range(chance.randint(1, MOST_FILES)):
                machine.wait("[REC] Recorded")
            machine.run_for(chance.uniform(0, LONGEST_WRITE))
            machine.cut_power()
        expect_equal(machine.boots, 1, "starts")
        expect("driver: init-disk yes" in machine.lines, "the card is not in service")
        expect_equal(health(machine)["zr"], 0, "the card's state")
        expect_equal(set(catalogue(machine)), set(checksums(machine)), "the catalogue")
        expect_kept(synced, checksums(machine))
        synced = (synced | set(recorded(machine))) - deleted_files(machine)
        total += len(recorded(machine))
    board.note(f"{board.cuts} power cuts, {total} files recorded, all that were complete intact")


def expect_kept(synced: set[str], found: dict[str, str]):
    for name in sorted(synced):
        expect(name in found, f"{name} is missing")
        expect_equal(found[name], checksum(name), f"the checksum of {name}")


def deleted_files(machine) -> set[str]:
    """Returns what the recorder may have deleted, the step included that it had no time to tell of.

    The cut may undo deletions, but a file that comes back need not be intact: on a file system
    mounted with data=writeback its blocks may have been written anew already.
    """
    oldest_first = [name for name in catalogue(machine) + recorded(machine)
                    if name.endswith(".dat")]
    names = oldest_first[:deleted(machine) + DELETED_AT_ONCE]
    return set(names) | {name.removesuffix(".dat") + ".gps" for name in names}


def catalogue(machine) -> list[str]:
    """Returns the names on the card at the start, oldest first."""
    return [line.split()[1] for line in machine.lines if line.startswith("file ")]


def checksums(machine) -> dict[str, str]:
    """Returns the checksum of each file in the card's directory."""
    found = (re.fullmatch(r"([0-9a-f]{32})  (\S+)", line) for line in machine.lines)
    return {match[2]: match[1] for match in found if match}


def checksum(name: str) -> str:
    return hashlib.md5(recording(number(name), name[-3:])[1]).hexdigest()


def number(name: str) -> int:
    return int(name[4:10])
