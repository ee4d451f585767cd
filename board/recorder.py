"""The recording service on the board: how scenarios start it, and what they expect of its card."""

import json
from collections.abc import Iterable

from board.board import Board, expect, expect_equal
from board.image import Image, fill
from board.machine import Machine

FOLDER = "/cr"
RECORDING_BYTES, POSITIONS_BYTES = 1_000_000, 1024

WITHOUT_CARD = "[REC] No usable card, going on without recordings"


def service(meanwhile: str = "", period: int = 1000) -> str:
    """Returns a script that runs the recorder until the host lets it go on, then stops it.

    `meanwhile` is done before that, while the recorder runs.
    """
    return f"""
quellon-recorder --size {RECORDING_BYTES} --period {period} --min-free 1 &
{meanwhile}
await stop
kill -0 $! && grep VmHWM /proc/$!/status
kill $!
wait $!
echo "recorder ended with $?"
"""


def stop(machine: Machine):
    """Stops the recorder, which must still run, and waits for the board to power off."""
    machine.go_on("stop")
    machine.finish()
    expect("recorder ended with 0" in machine.lines, "the recorder did not end well")
    expect(any("[REC] Stopped" in line for line in machine.lines), "the recorder did not say so")


def health(machine: Machine) -> dict:
    """Returns the recorder's last health report."""
    reports = [line for line in machine.lines if "[REC] Health " in line]
    expect(bool(reports), "no health report")
    return json.loads(reports[-1].split("Health ", 1)[1])


def counter(storage: Image) -> int:
    """Returns how many reboots in a row the board has counted."""
    if "system.dat" not in storage.names("/"):
        return 0
    return json.loads(storage.read("/system.dat") or b"{}").get("sdcard-status-conter", 0)


def recording(number: int, extension: str = "dat") -> tuple[str, bytes]:
    """Returns name and content of a recording, or of its positions, as the recorder writes it."""
    name = f"rec_{number:06}.{extension}"
    size = POSITIONS_BYTES if extension == "gps" else RECORDING_BYTES
    line = name.encode() + b"\n"
    return name, (line * (size // len(line) + 1))[:size]


def recordings(numbers: Iterable[int]) -> dict[str, bytes]:
    return dict(recording(n, extension) for n in numbers for extension in ("dat", "gps"))


def recorded(machine: Machine) -> list[str]:
    """Returns the names of what the recorder has said to be complete, in that order."""
    return [line.split("Recorded ")[1].split()[0] for line in machine.lines
            if "[REC] Recorded " in line]


def deleted(machine: Machine) -> int:
    """Returns how many recordings the recorder has said to have deleted."""
    return sum(int(line.split("Deleted ")[1].split()[0]) for line in machine.lines
               if "[REC] Deleted " in line)


def expect_intact(card: Image, files: dict[str, bytes]):
    for name, content in files.items():
        expect(card.read(f"{FOLDER}/{name}") == content, f"{name} is not intact")


def count_reboots(board: Board, reboots: int):
    """Makes the storage of a board that has rebooted so often in a row for its card."""
    text = json.dumps({"sdcard-status-conter": reboots}).encode()
    board.storage.format(fill(board.folder / f"storage-{reboots}", {"system.dat": text}))


def expect_gave_up(machine: Machine, storage: Image, state: int, counted: int = 0):
    """The board has rebooted for its card up to three times in all, and then done without it."""
    expect_equal(machine.boots, 4 - counted, "starts")
    expect_equal(machine.resets, 3 - counted, "resets")
    expect_equal(counter(storage), 3, "the counter")
    expect_equal(health(machine)["zr"], state, "the card's state")
    expect_equal(recorded(machine), [], "recordings")
