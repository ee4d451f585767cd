"""A formatted card has the label and no journal; this kernel takes it back with a journal only."""

import json

from board.board import Board, expect, expect_equal
from board.image import Image, MiB, fill

LIMIT = 500

# The counter of failed starts is at its limit, so that a refused card restarts nothing.
PLAIN = """
driver save-counter 3
driver format plain
echo "mounts $(grep -c sdcard /proc/mounts)"
dmesg | grep EXT4-fs | tail -1
driver init-disk
await plain
"""

BY_HAND = """
mount -o noatime,nodiratime /dev/mmcblk1p1 /mnt/sdcard
driver init-disk
tune2fs -j /dev/mmcblk1p1 >/dev/null
driver init-disk
driver format scan
await scanned
"""

# What the operations manual advises for such a card.
REMEDIES = """
tune2fs -o journal_data_writeback /dev/mmcblk1p1 >/dev/null
driver init-disk
umount /mnt/sdcard
mkfs.ext4 -q -F -L storage /dev/mmcblk1p1
driver init-disk
"""

# Newer kernels refuse the mode that the library asks for to file systems without a journal.
REFUSAL = "can't mount with data=, fs mounted w/o journal"


def run(board: Board):
    folder = fill(board.folder / "card", {"cr/old.mp4": 1000})
    card = Image.card(board.folder / "card.img", folder, size=16 * MiB)

    with board.start(PLAIN + BY_HAND + REMEDIES, card) as machine:
        for way in ("plain", "scanned"):
            machine.arrive(way)
            check_formatted(card)
            machine.go_on(way)
        machine.finish()
    expect_equal(machine.boots, 1, "starts")
    plain, by_hand, remedies = parts(machine.lines)

    check_format(plain, "mkfs.ext4 -v -F -O ^has_journal  -L storage /dev/mmcblk1p1")
    expect("mounts 0" in plain, "the formatted card was mounted")
    expect(any(REFUSAL in line for line in plain), "the kernel gives another reason")
    expect_equal(answers(plain), ["save-counter yes", "format yes", "init-disk no"], "answers")
    expect_equal(card_states(plain), [3], "the formatted card's state")

    expect_equal(answers(by_hand), ["init-disk no", "init-disk yes", "format yes"], "answers")
    expect_equal(card_states(by_hand), [3, 0], "the states mounted by hand and with a journal")
    check_format(by_hand, "mkfs.ext4 -v -F -O ^has_journal -c -L storage /dev/mmcblk1p1")

    expect_equal(answers(remedies), ["init-disk yes"] * 2, "answers after the remedies")
    expect_equal(card_states(remedies), [0, 0], "the states after the remedies")
    expect("has_journal" in card.superblock()["Filesystem features"], "there is no journal")
    board.note(f"kernel: {REFUSAL}; state 3, and 0 after tune2fs -j")


def check_formatted(card: Image):
    """Looks at the image while the board waits, which has the card not mounted."""
    properties = card.superblock()
    expect_equal(properties["Filesystem volume name"], "storage", "the label")
    expect("has_journal" not in properties["Filesystem features"], "there is a journal")
    expect_equal(card.names("/"), ["lost+found"], "what is left on the card")
    expect_equal(card.check(), 0, "the card's check")


def check_format(lines: list[str], command: str):
    expect(f"Try format partition: {command}" in lines, "another command was run")
    expect("Done format partition /dev/mmcblk1p1 ext4" in lines, "the format is not announced")


def parts(lines: list[str]) -> list[list[str]]:
    """Cuts the console where the board waited."""
    cuts = [number for number, line in enumerate(lines) if line.startswith("board: await ")]
    return [lines[start:end] for start, end in zip([0, *cuts], [*cuts, len(lines)])]


def answers(lines: list[str]) -> list[str]:
    return [line.removeprefix("driver: ") for line in lines if line.startswith("driver: ")]


def card_states(lines: list[str]) -> list[int]:
    return [json.loads(line.removeprefix("health "))["zr"]
            for line in lines if line.startswith("health ")]
