"""What recordings cost the card: bytes written to it per byte recorded, deletions included."""

from dataclasses import dataclass

from board.board import Board, expect
from board.cuts import LOG, MARKING, content_of, read_log, wear
from board.image import Image, MiB, fill

LIMIT = 800

POSITIONS = 1024  # bytes


@dataclass
class Use:
    """How a card is used, and the most bytes that may be written to it per byte recorded."""

    size: int  # of a recording, in bytes
    period: int  # in ms
    block: int  # bytes of the file system's blocks
    most: float
    old: int  # recordings there were before, of which the first are deleted
    new: int  # files recorded, at the least


# The recorder's own stream in recordings of a second each. Each costs a commit of the journal, of
# ten blocks and more. The runs last longer than half a minute, after which the kernel writes to its
# place what was journalled.
USES = [
    Use(150_000, 1000, 4096, most=1.43, old=200, new=80),
]
# Also its own size and period, and smaller blocks: where more files are asked for than the tests
# have.
AT_LENGTH = [
    Use(8 * MiB, 60_000, 4096, most=1.02, old=12, new=8),
    Use(150_000, 1000, 2048, most=1.25, old=200, new=160),
    Use(150_000, 1000, 4096, most=1.43, old=200, new=160),
]
MANY = 4000  # files, that is

# The minimum leaves room for one recording more.
SCRIPT = """
mount -o data=writeback /dev/mmcblk1p1 /mnt/sdcard
set -- $(stat -f -c '%b %f %S' /mnt/sdcard)
umount /mnt/sdcard
minimum=$(($3 * ($2 - $1 * 55 / 1000) / 10 * 8 - {size}))
quellon-recorder --size {size} --period {period} --min-free $minimum | while read -r line; do
    echo "$line"
    case $line in *Recorded* | *Deleted*) mark "$line" ;; esac
done
"""


def run(board: Board):
    uses = AT_LENGTH if board.files > MANY else USES
    results = [(use, measure(board, use)) for use in uses]
    for use, seen in results:
        board.note(f"recordings of {use.size} bytes, blocks of {use.block}: {seen:.3f} bytes "
                   f"written to the card per byte recorded (at most {use.most})")
    for use, seen in results:
        expect(seen <= use.most, f"recordings of {use.size} bytes cost the card too much")


def measure(board: Board, use: Use) -> float:
    card, log = make_card(board, use), board.folder / LOG
    script = MARKING + SCRIPT.format(size=use.size, period=use.period)
    with board.start(script, board.logging_writes(card, log)) as machine:
        machine.wait("[REC] Deleted")
        for _ in range(use.new):
            machine.wait("[REC] Recorded")
        machine.wait("[REC] Deleted")
        machine.cut_power()
    return wear(read_log(log))


def make_card(board: Board, use: Use) -> Image:
    """Makes a full card. Most files are empty: the more names a folder has, the more blocks of it
    change.
    """
    files = {}
    for number in range(1, board.files // 2 + 1):
        for extension, length in (("dat", use.size), ("gps", POSITIONS)):
            name = f"rec_{number:06}.{extension}"
            files[f"cr/{name}"] = content_of(name, length if number <= use.old else 0)
    times = {name: 1_600_000_000 + int(name[7:13]) for name in files}
    card = Image.card(board.folder / "card.img", formatted=False)
    card.format(fill(board.folder / f"card-{use.size}", files, times),
                options=("-b", str(use.block)))
    card.index_folders()
    return card
