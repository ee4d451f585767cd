"""The board as a scenario sees it: a folder of images, machines started from them, a verdict."""

import json
import random
import shutil
import subprocess
import time
from pathlib import Path

from board.image import Image
from board.machine import STARTED, Hardware, Machine
from board.own import OwnFile
from board.parts import get_parts, pack
from board.tools import Failure, Unavailable, run

ROOT = Path(__file__).resolve().parent.parent
GUEST = ROOT / "board/guest"

# What the board runs: the files of the packages, and programs that are in none.
BUILD = ROOT / "build/armhf"
PACKAGES = BUILD / "root"
PACKAGED = ("usr/lib/*/libTarvik.so.2", "usr/lib/*/libQuellon.so.2", "usr/bin/quellon-recorder",
            "usr/bin/quellon")
PROGRAMS = {
    "examples/bench-driver/bench-driver": "usr/bin",
    "board/driver/driver": "usr/bin",
}


def prepare():
    """Installs what the host lacks and makes the board's parts."""
    if subprocess.run([ROOT / "board/setup"]).returncode != 0:
        raise Unavailable("board/setup could not install what the board needs")
    get_parts()


def require_prepared():
    if shutil.which("qemu-system-arm") is None:
        raise Unavailable("there is no qemu-system-arm")


def programs() -> dict[Path, str]:
    """The files of the host that the board has, each with its folder there."""
    places = {BUILD / name: place for name, place in PROGRAMS.items()}
    for name in PACKAGED:
        for file in PACKAGES.glob(name):
            places[file] = str(file.parent.relative_to(PACKAGES))
    if len(places) != len(PROGRAMS) + len(PACKAGED):
        raise Failure("the board's programs have not been made: scripts/board --build")
    return places


def cross_build():
    run(["cmake", "--preset", "armhf", "-DQUELLON_DEBIAN_PACKAGES=ON"], cwd=ROOT)
    run(["cmake", "--build", "--preset", "armhf"], cwd=ROOT)
    shutil.rmtree(PACKAGES, ignore_errors=True)
    for component in ("runtime", "recorder", "tools"):
        run(["cmake", "--install", BUILD, "--strip", "--component", component,
             "--prefix", PACKAGES / "usr"], cwd=ROOT)


class Board:
    """One scenario's board, in a folder of its own that starts empty."""

    def __init__(self, folder: Path, limit: float, programs: dict[Path, str], echo: bool = False,
                 cuts: int = 0, seed: int = 0, files: int = 0):
        """`programs` maps files of the host to folders of the board.

        `cuts` is how often a scenario of power cuts cuts the power, `seed` that of what scenarios
        choose by chance, `files` how many files one with many of them has.
        """
        self.folder = folder
        self.cuts = cuts
        self.seed = seed
        self.files = files
        self.notes: list[str] = []
        self._programs = programs
        self._own: list[OwnFile] = []
        self._echo = echo
        self._deadline = time.monotonic() + limit
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        self.log = folder / "console.log"
        self.log.touch()
        self.storage = Image.storage(folder / "storage.img")

    def start(self, script: str, card: Image | str | None = None, clock: str = "utc",
              files: dict[str, str] | None = None, options: tuple[str, ...] = ()) -> Machine:
        """Powers the board on. It runs the script, at every start anew, and powers off.

        `files` are further files of the board by their absolute names, `options` are QEMU's. The
        storage persists from one machine to the next.
        """
        hardware = self.hardware(script, card, clock, files, options)
        return Machine(hardware, self.log, self._deadline - time.monotonic(), self._echo)

    def hardware(self, script: str, card: Image | str | None = None, clock: str = "utc",
                 files: dict[str, str] | None = None, options: tuple[str, ...] = ()) -> Hardware:
        """Makes what `start` powers on."""
        initramfs = self._make_initramfs({**(files or {}), "/etc/board/run": "#!/bin/sh\n" + script,
                                          **({} if card else {"/etc/board/no-card": ""})})
        return Hardware(get_parts(), initramfs, self.storage.path,
                        card.path if isinstance(card, Image) else card, clock, list(options))

    def run(self, script: str, card: Image | str | None = None, starts: int = 1,
            **options) -> Machine:
        """Powers the board on, waits until it has powered itself off, and counts its starts."""
        with self.start(script, card, **options) as machine:
            machine.finish()
        expect_equal(machine.boots, starts, "starts")
        return machine

    def add(self, own: str):
        """Puts FILE[:FOLDER], a file of one's own, on the board when it is powered on next."""
        self._own.append(OwnFile(own))

    def losing_writes(self, image: Image) -> str:
        """Returns the image as a drive that loses whatever is written, and does not tell.

        Errors that the board sees are made by its own fail-card.
        """
        configuration = self.folder / "faults.conf"
        configuration.write_text('[inject-error]\nevent = "write_aio"\nerrno = "5"\n')
        return f"blkdebug:{configuration}:{image.path}"

    def logging_writes(self, image: Image, log: Path) -> str:
        """Returns the image as a drive whose writes are logged, in their order, in a new file."""
        log.write_bytes(b"")
        drive = {"driver": "blklogwrites", "log-super-update-interval": 1,
                 "file": {"driver": "file", "filename": str(image.path)},
                 "log": {"driver": "file", "filename": str(log)}}
        return "json:" + json.dumps({"driver": "raw", "file": drive}).replace(",", ",,")

    def chance(self, what: str) -> random.Random:
        """Returns what chooses by chance, and reports how to choose the same again."""
        self.note(f"{what}: --seed {self.seed}")
        return random.Random(self.seed)

    def note(self, text: str):
        """Adds a figure to what is reported of the scenario."""
        self.notes.append(text)

    def _make_initramfs(self, files: dict[str, str]) -> Path:
        overlay = self.folder / "overlay"
        shutil.rmtree(overlay, ignore_errors=True)
        shutil.copytree(GUEST, overlay)
        for name, text in files.items():
            path = overlay / name.lstrip("/")
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
            path.chmod(0o755)
        for program, place in self._programs.items():
            _install(program, overlay / place)
        for own in self._own:
            place = overlay / own.folder.relative_to("/")
            place.mkdir(parents=True, exist_ok=True)
            shutil.copy(own.file, place)
        initramfs = self.folder / "initramfs"
        initramfs.write_bytes(get_parts().user_space.read_bytes() + pack(overlay))
        shutil.rmtree(overlay)
        return initramfs


def boot_seconds(machine: Machine) -> float:
    """Returns the time of the board's clock from power-on to the start of its script."""
    line = next(line for line in machine.lines if line.startswith(STARTED))
    return float(line.removeprefix(STARTED).split()[0])


def expect(condition: bool, otherwise: str):
    """Ends the scenario with this verdict unless the condition holds."""
    if not condition:
        raise Failure(otherwise)


def expect_equal(actual, expected, what: str):
    expect(actual == expected, f"{what}: {actual!r} instead of {expected!r}")


def _install(program: Path, folder: Path):
    """Copies a program without its debugging symbols."""
    folder.mkdir(parents=True, exist_ok=True)
    run(["arm-linux-gnueabihf-strip", "-o", folder / program.name, program])
