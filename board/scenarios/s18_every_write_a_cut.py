"""Every write to the card is a power cut: no complete recording is lost, no card refused."""

import hashlib
import re
import shutil
import subprocess
from pathlib import Path

from board.board import ROOT, Board, expect, expect_equal
from board.cuts import (BEFORE, LOG, MARKING, MOST_WEAR, SIZE, Run, State, full_card, judge_lossy,
                        required, start_log, wear)
from board.image import Image, MiB

LIMIT, LIMIT_PER_CUT = 300, 30

RECORDINGS_PER_CUT = 2
CUTS_PER_START, MOST_STARTS = 3, 4
STARTS_PER_CUT = 2  # on this machine
CANNOT_RUN = 77
SHOWN = 10

# What is told of a recording stands in the log of the writes, too, at the moment it was told.
RECORD = f"""{MARKING}
quellon-recorder --size {SIZE} --period 200 --min-free 1 | while read -r line; do
    echo "$line"
    case $line in *Catalogue* | *Recorded* | *Deleted*) mark "$line" ;; esac
done
"""


# The library itself starts with the card as a cut left it, and shows what it finds.
START = """driver check-unless-mountable
driver init-disk
driver list
driver make-room 1 0.99
cd /mnt/sdcard/cr && md5sum *
"""


def run(board: Board):
    image = full_card(board.folder)
    shutil.copy(image.path, board.folder / BEFORE)
    with board.start(RECORD, board.logging_writes(image, board.folder / LOG)) as machine:
        machine.wait("[REC] Catalogue of")
        for _ in range(2 * RECORDINGS_PER_CUT * max(board.cuts, 1)):
            machine.wait("[REC] Recorded")
        machine.cut_power()
    expect(any("[REC] Deleted" in line for line in machine.lines), "nothing was deleted")

    recorded = Run.of(board.folder)
    worn = wear(recorded.writes)
    board.note(f"{worn:.2f} bytes written to the card per byte recorded (at most {MOST_WEAR})")
    expect(worn <= MOST_WEAR, "too much is written to the card")
    expect_no_loss(board, recorded)
    lossy = judge_lossy(recorded, one_in=100, every=20)
    expect(bool(lossy.losses), "a card that loses writes was not found out")

    chance = board.chance("starts after cuts")
    for _ in range(min(max(board.cuts // CUTS_PER_START, 1), MOST_STARTS)):
        cut = chance.randrange(len(recorded.writes))
        start(board, recorded, State(cut, cut))
    start_on_host(board)


def start_on_host(board: Board):
    """The library of this machine starts after many cuts, if a build tree has the card ring."""
    found = sorted(ROOT.glob("build/*/tests/card/recovery"), key=lambda path: path.stat().st_mtime)
    if not found:
        board.note("no starts on this machine: no build tree has the card ring's recovery")
        return
    done = subprocess.run([ROOT / "tests/card/power_cuts", found[-1].parents[2], found[-1],
                           found[-1], "--log", board.folder, "--seed", str(board.seed), "--starts",
                           str(STARTS_PER_CUT * max(board.cuts, 1)), "--then", "0"],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True)
    told = done.stdout if done.returncode == 0 else done.stdout + done.stderr
    kept = keep(board) if done.returncode == 1 else board.folder
    names = (str(folder.relative_to(ROOT)) for folder in (board.folder, kept))
    for line in told.replace(*names).splitlines():
        board.note(line)
    expect(done.returncode in (0, CANNOT_RUN), "losses in starts on this machine")


def start(board: Board, recorded: Run, state: State):
    """The library starts after a cut; then each write of that start is a cut, too."""
    image, cut = Image(board.folder / "cut.img", MiB), state.name
    image.path.write_bytes(recorded.at(state))
    log = board.folder / start_log(cut)
    lines = board.run(START, board.logging_writes(image, log)).lines
    expect("driver: init-disk yes" in lines, f"no service after write {cut}")
    expect("driver: make-room yes" in lines, f"no room after write {cut}")
    found = checksums(lines)
    listed = [line.split()[1] for line in lines if line.startswith("file ")]
    expect_equal(sorted(listed), sorted(found), f"the catalogue after write {cut}")
    for name, content in required(recorded.recordings, state.cut).items():
        expect(found.get(name) == hashlib.md5(content).hexdigest(),
               f"{name} is missing or not intact after write {cut}")
    expect_no_loss(board, recorded.start_after(state, log), after=cut)


def checksums(lines: list[str]) -> dict[str, str]:
    found = (re.fullmatch(r"([0-9a-f]{32})  (\S+)", line) for line in lines)
    return {match[2]: match[1] for match in found if match}


def expect_no_loss(board: Board, run: Run, after: str | None = None):
    result, line = run.judge()
    board.note(line if after is None else f"the start after write {after}: {line}")
    if not result.losses:
        return
    kept = keep(board)
    for loss in result.losses[:SHOWN]:
        told = run.describe(loss)
        if after is not None:
            loss.state, loss.then = after, loss.state
        board.note(f"after {told}; again: "
                   f"python3 -m board.cuts {kept.relative_to(ROOT)} {loss.options}")
    expect(False, f"{len(result.losses)} losses")


def keep(board: Board) -> Path:
    """Keeps what repeats a cut."""
    kept = board.folder.with_name(board.folder.name + "-lost")
    kept.mkdir(exist_ok=True)
    for file in (board.folder / BEFORE, *board.folder.glob("*.log")):
        shutil.copy(file, kept)
    return kept
