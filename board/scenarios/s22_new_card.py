"""Cards as they were bought or found are prepared one after the other, and recorded on."""

import os
from dataclasses import dataclass
from pathlib import Path

from board.board import Board, expect, expect_equal
from board.image import Image, MiB, fill
from board.tools import run as run_tool

LIMIT = 300

SIZE = 256 * MiB
SECOND = 128 * MiB
START = 4 * MiB  # where the partition begins that is made

LONGEST = 60  # seconds of the board, for each card

FAT, EXFAT = (82, b"FAT32   "), (3, b"EXFAT   ")


@dataclass
class Card:
    """A card: its table as sfdisk makes it, how its first partition begins, where an ext4 is."""

    name: str
    contents: str
    table: str = ""
    boot: tuple[int, bytes] | None = None
    ext4: int | None = None

    def make(self, folder: Path) -> Path:
        path = folder / f"{self.name}.img"
        path.touch()
        os.truncate(path, SIZE)
        if self.table:
            run_tool(["sh", "-c", 'printf "$1" | sfdisk --quiet "$2"', "sh", self.table, path])
        if self.boot:
            place, text = self.boot
            with open(path, "r+b") as file:
                for at, data in ((0, b"\xeb\x58\x90"), (place, text), (510, b"\x55\xaa")):
                    file.seek(MiB + at)
                    file.write(data)
        if self.ext4 is not None:
            old = fill(folder / self.name, {"etc/fstab": b"old"})
            run_tool(["mkfs.ext4", "-q", "-F", "-E", f"offset={self.ext4}", "-d", old, path, "64M"])
        return path


CARDS = [
    Card("old-system", "MBR: FAT, ext", "start=2048,size=65536,type=c\nstart=262144,type=83\n",
         FAT, ext4=SECOND),
    Card("blank", "nothing"),
    Card("exfat", "MBR: exFAT", "start=2048,type=7\n", EXFAT),
    Card("gpt", "GPT: FAT, nothing",
         "label: gpt\nstart=2048,size=65536\nstart=262144,size=65536\n", FAT),
]

RECORDING = 300_000

# The counter of failed starts is at its limit, so that a refused card restarts nothing.
SCRIPT = """
driver save-counter 3
uptime() { cut -d' ' -f1 /proc/uptime; }
for name in %s; do
    await $name-in
    until driver card; do usleep 100000; done
    begin=$(uptime)
    driver prepare keep || driver prepare erase
    echo "prepared after $(uptime) since $begin"
    driver init-disk
    mkdir /mnt/sdcard/cr
    yes $name | head -c %d >/mnt/sdcard/cr/rec_000001.dat
    sync
    echo "recorded after $(uptime) since $begin"
    umount /mnt/sdcard
    await $name-out
    until [ ! -e /dev/mmcblk1 ]; do usleep 100000; done
done
"""


def run(board: Board):
    images = {card.name: card.make(board.folder) for card in CARDS}
    with board.start(SCRIPT % (" ".join(images), RECORDING), str(images[CARDS[0].name])) as machine:
        for name, image in images.items():
            machine.arrive(f"{name}-in")
            if name != CARDS[0].name:
                machine.insert_card(image)
            machine.go_on(f"{name}-in")
            machine.arrive(f"{name}-out")
            machine.pull_card()
            machine.go_on(f"{name}-out")
        machine.finish()
    expect_equal(machine.boots, 1, "starts")
    for card, lines in zip(CARDS, parts(machine.lines)):
        look_at(board, card, lines, images[card.name])


def look_at(board: Board, card: Card, lines: list[str], path: Path):
    said = [line.partition(" ")[2] for line in lines if line.startswith(("card ", "prepare "))]
    expected = ["done"] if "ext" not in card.contents else ["the card may hold recordings", "done"]
    expect_equal(said[-1 - len(expected):], [card.contents, *expected], f"answers for {card.name}")
    expect("driver: init-disk yes" in lines, f"{card.name} was not taken into service")

    image = Image(path, START)
    expect_equal(image.check(), 0, f"the check of {card.name}")
    properties = image.superblock()
    expect_equal(properties["Filesystem volume name"], "storage", "the label")
    expect("has_journal" in properties["Filesystem features"], f"{card.name} has no journal")
    content = (card.name + "\n").encode() * RECORDING
    expect(image.read("/cr/rec_000001.dat") == content[:RECORDING],
           f"the recording on {card.name} is not intact")
    prepared, recorded = seconds(lines, "prepared"), seconds(lines, "recorded")
    expect(recorded <= LONGEST, f"{card.name} took {recorded:.1f} s")
    board.note(f"{card.name} ({card.contents}): prepared after {prepared:.1f} s, "
               f"recorded on after {recorded:.1f} s")


def seconds(lines: list[str], what: str) -> float:
    words = next(line for line in lines if line.startswith(f"{what} after ")).split()
    return float(words[2]) - float(words[4])


def parts(lines: list[str]) -> list[list[str]]:
    """Cuts the console where each card was put in."""
    cuts = [number for number, line in enumerate(lines)
            if line.startswith("board: await ") and line.endswith("-in")]
    return [lines[start:end] for start, end in zip(cuts, [*cuts[1:], len(lines)])]
