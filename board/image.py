"""Images of the removable card and of the fixed storage, made and read back without mounting."""

import os
import random
import subprocess
from pathlib import Path

from board.tools import Failure, run

MiB = 1 << 20


def sample(name: str, size: int) -> bytes:
    """Returns bytes that no other name has, the same on every call."""
    return random.Random(name).randbytes(size)


def fill(folder: Path, files: dict[str, bytes | int], times: dict[str, int] | None = None) -> Path:
    """Makes a folder with these files: their contents, or a length to be all hole.

    `times` gives modification times in seconds since the epoch.
    """
    for name, content in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, bytes):
            path.write_bytes(content)
        else:
            path.touch()
            os.truncate(path, content)
    for name, seconds in (times or {}).items():
        os.utime(folder / name, (seconds, seconds))
    return folder


class Image:
    """A drive's image with one ext4 file system, at the start or in the first partition."""

    def __init__(self, path: Path, offset: int):
        self.path = path
        self.offset = offset

    @classmethod
    def storage(cls, path: Path, folder: Path | None = None, size: int = 64 * MiB) -> "Image":
        """Makes the fixed storage, which has no partitions."""
        image = cls._empty(path, size, 0)
        image.format(folder)
        return image

    @classmethod
    def card(cls, path: Path, folder: Path | None = None, size: int = 256 * MiB,
             formatted: bool = True) -> "Image":
        """Makes a card with one partition, with a file system unless `formatted` is false.

        `size` must be a power of two, as the sizes of real cards nearly are.
        """
        image = cls._empty(path, size, MiB)
        table = path.with_suffix(".table")
        table.write_text(f"start={MiB // 512}, type=83\n")
        run(["sh", "-c", 'sfdisk --quiet "$1" < "$2"', "sh", path, table])
        table.unlink()
        if formatted:
            image.format(folder)
        return image

    @classmethod
    def _empty(cls, path: Path, size: int, offset: int) -> "Image":
        path.unlink(missing_ok=True)
        path.touch()
        os.truncate(path, size)
        return cls(path, offset)

    @property
    def _file_system(self) -> str:
        return f"{self.path}?offset={self.offset}"

    def format(self, folder: Path | None = None, options: tuple[str, ...] = ()):
        """Makes a new file system holding a copy of the folder, with its modification times."""
        kilobytes = (self.path.stat().st_size - self.offset) // 1024
        source = ["-d", folder] if folder else []
        run(["mkfs.ext4", "-q", "-F", "-E", f"offset={self.offset},lazy_itable_init=0,nodiscard",
             *options, *source, self.path, f"{kilobytes}k"])

    def debugfs(self, *commands: str, write: bool = False) -> str:
        """Runs debugfs commands and returns what they printed."""
        output = ""
        for command in commands:
            output += run(["debugfs", *(["-w"] if write else []), "-R", command,
                           self._file_system])
        return "".join(line for line in output.splitlines(keepends=True)
                       if not line.startswith("debugfs 1."))

    def names(self, folder: str) -> list[str]:
        """Returns the names in a folder, sorted."""
        lines = self.debugfs(f"ls -p {folder}").splitlines()
        fields = [line.split("/") for line in lines if line.startswith("/")]
        return sorted(f[5] for f in fields if f[1] != "0" and f[5] not in (".", ".."))

    def read(self, name: str) -> bytes:
        """Returns a file's content."""
        copy = self.path.with_suffix(".file")
        copy.unlink(missing_ok=True)
        said = self.debugfs(f"dump {name} {copy}")
        if not copy.exists() or "not found" in said:
            raise Failure(f"{self.path.name} has no {name}: {said}")
        content = copy.read_bytes()
        copy.unlink()
        return content

    def check(self) -> int:
        """Returns fsck's exit code for the file system, which is left as it is; 0 is clean."""
        return subprocess.run(["e2fsck", "-f", "-n", self._file_system],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode

    def repair(self) -> int:
        """Checks the file system as the library does, and returns fsck's exit code; 1 is repaired.

        By itself: e2fsck forgets the offset once it has replayed a journal.
        """
        alone = self.path.with_suffix(".alone")
        alone.write_bytes(self.path.read_bytes()[self.offset:])
        code = subprocess.run(["e2fsck", "-f", "-y", alone], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
        with open(self.path, "r+b") as drive:
            drive.seek(self.offset)
            drive.write(alone.read_bytes())
        alone.unlink()
        return code

    def index_folders(self):
        """Gives large folders an index of names, as the kernel's own have.

        The check makes one for those that have none, and writes them anew for that, in their place.
        """
        run(["e2fsck", "-f", "-y", "-D", self._file_system], accept=(0, 1))

    def superblock(self) -> dict[str, str]:
        """Returns the file system's properties under the names dumpe2fs gives them."""
        lines = run(["dumpe2fs", "-h", self._file_system]).splitlines()
        pairs = (line.split(":", 1) for line in lines if ":" in line)
        return {name: value.strip() for name, value in pairs}

    def orphan(self, name: str):
        """Damages the file system mildly: the file loses its name, fsck finds it again."""
        self.debugfs(f"unlink {name}", write=True)
