"""Reclaiming leaves exactly the recordings that a computation apart from the library leaves."""

import random
import re
import struct
from dataclasses import dataclass

from board.board import Board, expect, expect_equal
from board.image import Image, MiB, fill, sample
from board.tools import Failure

LIMIT = 300

RECORDINGS = 36
PROTECTED = (".log", ".gps")
RESERVE = 0.055  # of the card
BLOCK = 1024  # bytes, of the card's file system

LOOK = "stat -f -c 'space %b %f %S' /mnt/sdcard; ls -1 /mnt/sdcard/cr; echo end"


@dataclass
class File:
    name: str
    time: int
    size: int
    allocated: int  # bytes of the card


@dataclass
class Card:
    total: int
    free: int
    files: list[File]  # oldest first


def run(board: Board):
    image = make_card(board)
    card = read_card(image)
    limits = [(0, 0.5), (55 * MiB, 0.9), None, (1 << 40, 0.9)]
    script = "mount -o noatime,nodiratime,data=writeback /dev/mmcblk1p1 /mnt/sdcard\n" + LOOK
    expected = [state(card)]
    for limit in limits:
        minimum, share = limit or knife_edge(card)
        room = reclaim(card, minimum, share)
        script += f"\ndriver make-room {minimum} {share}\n" + LOOK
        expected.append([f"driver: make-room {'yes' if room else 'no'}", *state(card)])
        board.note(f"minimum {minimum}, share {share}: {len(card.files)} files stay")

    lines = board.run(script + "\n", image).lines

    for number, block in enumerate(expected):
        end = lines.index("end")
        expect_equal(lines[end - len(block):end], block, f"round {number}")
        del lines[:end + 1]
    expect_equal(image.names("/cr"), sorted(file.name for file in card.files), "the last survivors")
    expect_equal(image.check(), 0, "the card's check")


def make_card(board: Board) -> Image:
    chance = random.Random("share")
    names = [f"cr/rec_{number:02}.mp4" for number in range(RECORDINGS)]
    names += ["cr/first.log", "cr/middle.LOG", "cr/track.gps", "cr/late.gps"]
    ages = chance.sample(range(1_600_000_000, 1_600_100_000), len(names))
    times = dict(zip(names, ages)) | {"cr/first.log": 1_500_000_000, "cr/track.gps": 1_500_000_001}
    files = {name: sample(name, chance.randrange(500_000, 4_000_000)) for name in names}
    folder = fill(board.folder / "card", files, times)
    return Image.card(board.folder / "card.img", folder, size=128 * MiB)


def read_card(image: Image) -> Card:
    """Measures the card from outside, as the board's kernel will once it is mounted."""
    properties = image.superblock()
    expect_equal(int(properties["Block size"]), BLOCK, "block size")
    blocks = int(properties["Block count"]) - int(properties["Overhead clusters"])
    files = [read_file(image, name) for name in image.names("/cr")]
    return Card(blocks * BLOCK, int(properties["Free blocks"]) * BLOCK,
                sorted(files, key=lambda file: file.time))


def read_file(image: Image, name: str) -> File:
    properties = image.debugfs(f"stat /cr/{name}")
    size = int(re.search(r"Size: (\d+)", properties).group(1))
    sectors = int(re.search(r"Blockcount: (\d+)", properties).group(1))
    time = int(re.search(r"mtime: 0x([0-9a-f]+)", properties).group(1), 16)
    return File(name, time, size, sectors * 512)


def state(card: Card) -> list[str]:
    """Returns what the board shows of the card."""
    return [f"space {card.total // BLOCK} {card.free // BLOCK} {BLOCK}",
            *sorted(file.name for file in card.files)]


def single(number: float) -> float:
    """Rounds to single precision, in which the room is measured."""
    return struct.unpack("f", struct.pack("f", number))[0]


def corrected(card: Card, minimum: int, share: float) -> int:
    reserve = round(single(card.total * single(RESERVE)))
    return minimum + round(single(single(reserve) * single(share)))


def has_room(card: Card, minimum: int, share: float, precision=single) -> bool:
    share = single(share)
    free = precision(precision(card.free) * share)
    used = sum(file.size for file in card.files)
    return (free > precision(corrected(card, minimum, share)) and
            precision(used) < precision(precision(card.total) * share))


def reclaim(card: Card, minimum: int, share: float) -> bool:
    """Deletes the oldest recordings, two at a time, until there is room."""
    while not has_room(card, minimum, share):
        oldest = [file for file in card.files if not file.name.endswith(PROTECTED)][:2]
        if not oldest:
            return False
        card.files = [file for file in card.files if file not in oldest]
        card.free += sum(file.allocated for file in oldest)
    return True


def knife_edge(card: Card) -> tuple[int, float]:
    """Returns limits for which there is room as the numbers are, but none in single precision."""
    for share in (0.9, 0.85, 0.8, 0.75, 0.7):
        free = int(card.free * single(share))
        for free_limit in (free, free - 1):
            limits = free_limit - corrected(card, 0, share), share
            if has_room(card, *limits, precision=float) and not has_room(card, *limits):
                return limits
    raise Failure("single precision makes no difference for this card")
