"""Power cuts while recording and reclaiming: the card comes back and no synced recording is lost."""

import hashlib
import random
import re

from board.board import Board, expect, expect_equal
from board.image import Image, fill
from board.recorder import deleted, health, recorded, recording, recordings, service

LIMIT, LIMIT_PER_CUT = 120, 120

# The card is nearly full, so that each start soon deletes, too.
OLD = range(1, 19)
CARD_BYTES = 32 << 20

# Recordings made within one second are deleted in any order after the next start.
PERIOD = 300  # ms
WITHIN_A_SECOND = 4

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
    synced, deletable, total = set(recordings(OLD)), 0, 0
    for _ in range(board.cuts + 1):
        with board.start(LOOK, card) as machine:
            machine.wait("[REC] Recorded")
            machine.run_for(random.uniform(0, 5))
            machine.cut_power()
        expect_equal(machine.boots, 1, "starts")
        expect("driver: init-disk yes" in machine.lines, "the card is not in service")
        expect_equal(health(machine)["zr"], 0, "the card's state")
        expect_equal(catalogue(machine), set(checksums(machine)), "the catalogue")
        synced = expect_kept(synced, deletable, checksums(machine))
        synced |= set(recorded(machine))
        total += len(recorded(machine))
        deletable = deleted(machine) + 2  # one step of reclaiming may not have been told
    board.note(f"{board.cuts} power cuts, {total} files recorded, all that were complete intact")


def expect_kept(synced: set[str], deletable: int, found: dict[str, str]) -> set[str]:
    """What was synced is intact, but for the oldest that may have been deleted; returns it."""
    kept = synced & set(found)
    for name in kept:
        expect_equal(found[name], checksum(name), f"the checksum of {name}")
    missing = sorted(synced - kept, key=number)
    lost = [name for name in missing if name.endswith(".dat")]
    expect(len(lost) <= deletable, f"more are missing than were deleted: {lost}")
    oldest = min(number(name) for name in kept if name.endswith(".dat"))
    expect(all(number(name) < oldest + WITHIN_A_SECOND for name in missing),
           f"{missing} are missing, the older {oldest} is not")
    return kept


def catalogue(machine) -> set[str]:
    return {line.split()[1] for line in machine.lines if line.startswith("file ")}


def checksums(machine) -> dict[str, str]:
    """Returns the checksum of each file in the card's directory."""
    found = (re.fullmatch(r"([0-9a-f]{32})  (\S+)", line) for line in machine.lines)
    return {match[2]: match[1] for match in found if match}


def checksum(name: str) -> str:
    return hashlib.md5(recording(number(name), name[-3:])[1]).hexdigest()


def number(name: str) -> int:
    return int(name[4:10])
