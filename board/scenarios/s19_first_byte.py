"""Recording begins while a catalogue of many files is loaded; each is in it once, none deleted."""

import re

from board.board import Board, expect, expect_equal
from board.image import Image, fill
from board.machine import Machine

LIMIT = 400

# Limits, shown with as many files as stand here; the tests have fewer, for speed.
FILES = 20_000
MOST_SECONDS = 3  # from the end of the card's check to the first recorded byte
MOST_MEMORY = 16 << 10  # KiB, of the recorder, at any time
MEMORY_PER_FILE = 0.5  # KiB that the limit is lower by for each file less

LONGEST_STOP = 1  # seconds
LEAST_SAVED = 0.8  # seconds, where the card is mounted before the service starts

MOUNT = "noexec,noatime,nodiratime,data=writeback"  # as docs/porting.md says

LARGE, LARGE_BYTES = 4, 5_000_000  # the oldest recordings, which make room
SMALL_BYTES = 2  # of all other files
SIZE, POSITIONS = 1_000_000, 1024

# The board makes the small files: its kernel is quicker with a large folder than the host's tools.
# What the recorder tells has the board's time before it, in seconds since power-on.
SCRIPT = """
driver load-rtc
mount -o noatime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
number=$((1000001 + {large}))
while [ $number -le $((1000000 + {pairs})) ]; do
    stem=/mnt/sdcard/cr/rec_${{number#1}}
    echo 1 >$stem.dat
    echo 2 >$stem.gps
    number=$((number + 1))
done
umount /mnt/sdcard
mkfifo /run/told

say() {{
    read -r now idle </proc/uptime
    echo "$now $1"
}}

tell() {{
    while read -r line; do
        say "$line"
        case $line in FSCK*)
            until [ -s {first} ]; do usleep 10000; done
            say "first byte" ;;
        esac
    done </run/told
}}

# record UNTIL PERIOD MINIMUM [mounted]
record() {{
    say "start, until $1"
    rm -f /var/log/quellon.log
    tell &
    [ -z "$4" ] || mount -o {mount} /dev/mmcblk1p1 /mnt/sdcard
    say "service"
    quellon-recorder --size {size} --period "$2" --min-free "$3" >/run/told &
    service=$!
    until grep -q "$1" /var/log/quellon.log; do usleep 200000; done
    grep VmHWM /proc/$service/status
    set -- $(stat -f -c '%f %S' /mnt/sdcard)
    free=$(($1 * $2))
    say "stopping"
    kill $service
    wait $service
    say "stopped with $?"
    mountpoint -q /mnt/sdcard || say "unmounted"
    wait
}}

record 'Recorded .*gps' 4000000000 1
record Catalogue 4000 1 mounted
record 'Recorded .*gps' 4000000000 $((free / 10 * 8))
"""


class Start:
    """What was told of one start of the recorder."""

    def __init__(self):
        self.lines: list[str] = []
        self._times: list[float] = []

    def add(self, time: str, line: str):
        self._times.append(float(time))
        self.lines.append(line)

    def seconds(self, begin: str, end: str) -> float:
        return self._times[self.find(end)] - self._times[self.find(begin)]

    def find(self, text: str) -> int:
        """Returns which line has the text first; after all others if there is none."""
        found = (n for n, line in enumerate(self.lines) if text in line)
        return next(found, len(self.lines) - 1)

    def has(self, text: str) -> bool:
        return any(text in line for line in self.lines)

    def recorded(self, before: int | None = None) -> dict[str, int]:
        """Returns what was recorded, and the sizes."""
        found = (re.search(r"Recorded (\S+) (\d+) bytes", line) for line in self.lines[:before])
        return {match[1]: int(match[2]) for match in found if match}

    def expect_catalogue(self, files: dict[str, int]):
        """What there was before the start and what was recorded meanwhile is in it, each once."""
        place = self.find("[REC] Catalogue")
        files = files | self.recorded(place)
        told = re.search(r"Catalogue of (\d+) files, (\d+) bytes", self.lines[place])
        expect(told is not None, "the catalogue was not completed")
        expect_equal((int(told[1]), int(told[2])), (len(files), sum(files.values())),
                     "files of the catalogue and their bytes")


def run(board: Board):
    pairs = board.files // 2
    files = {f"rec_{number:06}.{extension}": SMALL_BYTES
             for number in range(1, pairs + 1) for extension in ("dat", "gps")}
    files |= {f"rec_{number:06}.dat": LARGE_BYTES for number in range(1, LARGE + 1)}
    card = make_card(board, {name: size for name, size in files.items()
                             if int(name[4:10]) <= LARGE})
    machine = board.run(SCRIPT.format(large=LARGE, pairs=pairs, size=SIZE, mount=MOUNT,
                                      first=f"/mnt/sdcard/cr/rec_{pairs + 1:06}.dat"), card)
    stopped, room, full = starts(machine)

    begun = stopped.seconds("FSCK output", "first byte")
    board.note(f"{board.files} files: first recorded byte {begun:.2f} s after the card's check "
               f"(at most {MOST_SECONDS} s)")
    expect(begun <= MOST_SECONDS, "recording begins too late")

    ended = stopped.seconds("stopping", "stopped with 0")
    expect(not stopped.has("[REC] Catalogue"), "the load was over before the stop")
    expect(stopped.has("unmounted"), "a stop while loading leaves the card mounted")
    expect(ended <= LONGEST_STOP, f"a stop while loading took {ended} s")
    files |= stopped.recorded()

    expect(not room.has("Deleted"), "something was deleted although there was room")
    expect(len(room.recorded(room.find("[REC] Catalogue"))) > 0, "nothing recorded meanwhile")
    room.expect_catalogue(files)
    saved = (stopped.seconds("service", "Disk /mnt/sdcard/") -
             room.seconds("service", "Disk /mnt/sdcard/"))
    board.note(f"a card that is mounted before is in service {saved:.2f} s earlier")
    expect(saved >= LEAST_SAVED, "mounting the card before saves too little")
    files |= room.recorded()

    full.expect_catalogue(files)
    place = full.find("[REC] Catalogue")
    expect_equal(full.recorded(place), {}, "recorded on a full card")
    expect(full.find("Deleted") > place, "something was deleted before the catalogue was complete")
    gone = {f"rec_{number:06}.{extension}" for number in range(1, LARGE + 1)
            for extension in ("dat", "gps")}
    expect_equal(card.names("/cr"), sorted((files | full.recorded()).keys() - gone), "the names")
    expect_equal(card.check(), 0, "the card's check")
    judge_memory(board, machine)


def make_card(board: Board, files: dict[str, int]) -> Image:
    card = Image.card(board.folder / "card.img", formatted=False)
    names = {f"cr/{name}": b"x" * size for name, size in files.items()}
    folder = fill(board.folder / "card", names, dict.fromkeys(names, 1_600_000_000))
    card.format(folder, options=("-b", "4096", "-N", str(board.files + 4096)))
    return card


def starts(machine: Machine) -> list[Start]:
    found = []
    for line in machine.lines:
        if match := re.fullmatch(r"(\d+\.\d\d) (.*)", line):
            if match[2].startswith("start, until"):
                found.append(Start())
            found[-1].add(*match.groups())
    return found


def judge_memory(board: Board, machine: Machine):
    seen = max(int(line.split()[1]) for line in machine.lines if line.startswith("VmHWM"))
    most = MOST_MEMORY - MEMORY_PER_FILE * (FILES - board.files)
    board.note(f"memory of the recorder {seen} KiB (at most {most:.0f} KiB)")
    expect(seen <= most, "the recorder takes too much memory")
