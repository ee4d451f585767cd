"""A power cut in the middle of a recording takes at most its last second, and that costs little.

What 32 bits cannot hold, and a second recorder, are refused before.
"""

from board.board import Board, expect
from board.cuts import LOG, MARKING, MOUNTABLE, PARTITION, SECTOR, Card, content_of, read_log
from board.image import Image, MiB

LIMIT = 400

RATE = 1_000_000  # bytes a second that come in
SECONDS = 12
# Longer than the half minute after which the kernel writes to its place what was journalled: where
# more cuts are asked for than the tests have.
AT_LENGTH, MANY = 40, 3
NAME = "rec_000001.dat"
SLICE = 64 << 10  # what has come in, but was not written yet
MOST_LOST = RATE  # bytes, those of a second
COMMIT = bytes.fromhex("c03b399800000002")  # begins the journal's block that makes a commit valid
MOST_WEAR = 1.05  # bytes written to the card per byte recorded

# What the recorder has written stands in the log of the card's writes, at the moment it was so.
RECORD = f"""
quellon-recorder --size {1 << 31}
echo "of a size beyond 32 bits: $?"
quellon-recorder --size {{size}} --rate {RATE} --min-free 1 --share 0.98 &
until grep -qs REC /var/log/quellon.log; do usleep 100000; done
quellon-recorder
echo "a second one: $?"
while usleep 100000; do
    mark "written $(stat -c %s /mnt/sdcard/cr/{NAME} 2>/dev/null || echo 0)"
done
"""


def run(board: Board):
    size = RATE * (AT_LENGTH if board.cuts > MANY else SECONDS)
    image = Image.card(board.folder / "card.img", size=64 * MiB, formatted=False)
    image.format(options=("-b", "4096"))
    before = image.path.read_bytes()
    with board.start(MARKING + RECORD.format(size=size),
                     board.logging_writes(image, board.folder / LOG)) as machine:
        machine.wait("[REC] Recorded")
        machine.cut_power()
    for refusal in (f"recorder: {1 << 31} is no value of --size", "of a size beyond 32 bits: 1",
                    "Another recorder is running", "a second one: 1"):
        expect(any(refusal in line for line in machine.lines), f"not said: {refusal}")
    writes = read_log(board.folder / LOG)
    expect_little_lost(board, before, writes, content_of(NAME, size))
    expect_little_written(board, writes, size)


def expect_little_lost(board: Board, before: bytes, writes, expected: bytes):
    """The card is checked, as at a start, after each commit of the journal, as only a commit makes
    a recording longer.
    """
    card = Card(before)
    kept, lost, commits = 0, 0, 0
    for write in writes:
        if written := told(write):
            lost = max(lost, min(written + SLICE, len(expected)) - kept)
        card.apply(write)
        if has_commit(write):
            code, _, contents = card.check()
            expect(code in MOUNTABLE, f"the card is refused: the check ends with {code}")
            kept = intact(bytes(contents.get(NAME, b"")), expected)
            commits += 1
    board.note(f"at most {lost / RATE:.2f} s lost by a cut, as seen at {commits} commits")
    expect(lost <= MOST_LOST, "a power cut takes more than a second")


def has_commit(write) -> bool:
    return any(write.data.startswith(COMMIT, place) for place in range(0, len(write.data), SECTOR))


def intact(content: bytes, expected: bytes) -> int:
    """Returns how many bytes are as they were recorded, up to the first that is not."""
    step = 1 << 12
    return next((place for place in range(0, len(content), step)
                 if content[place:place + step] != expected[place:place + step]), len(content))


def told(write) -> int:
    """Returns the bytes that a mark tells; 0 if the write is none."""
    mark = write.mark or ""
    return int(mark.split()[1]) if mark.startswith("written ") else 0


def expect_little_written(board: Board, writes, size: int):
    """From the first written byte to the last, of which the journal's share is still to come."""
    begun = next(n for n, write in enumerate(writes) if told(write))
    costs = sum(len(write.data) for write in writes[begun:] if write.sector * SECTOR >= PARTITION)
    wear = costs / (size - told(writes[begun]))
    board.note(f"{wear:.3f} bytes written to the card per byte recorded (at most {MOST_WEAR})")
    expect(wear <= MOST_WEAR, "to bring a recording to the card each second costs too much")
