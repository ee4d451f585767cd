"""Files of one's own for the board: where they go, and whether its processor can run them."""

import struct
from pathlib import Path

from board.tools import Failure

PROGRAMS, LIBRARIES = "/usr/local/bin", "/usr/lib/arm-linux-gnueabihf"

# What the board mounts there hides what its memory has there.
HIDDEN = ("/root", "/mnt", "/proc", "/sys", "/dev")

# The head of an ELF file: class, byte order and, from byte 18, the machine; on 32 bits, from byte
# 36, the flags of the machine.
MAGIC, BITS_32, LITTLE = b"\x7fELF", 1, 1
ARM, SOFT_FLOAT = 40, 0x200
HEAD = 52
MACHINES = {3: "32-bit x86", 62: "64-bit x86", 183: "64-bit ARM", 243: "RISC-V"}

HOW_TO_BUILD = """The board is a 32-bit ARM with hard float. Programs are built for it by
  cmake --preset armhf && cmake --build --preset armhf    this project's, in build/armhf
  cmake -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake ...      those of another project
  arm-linux-gnueabihf-g++ ...                             a single one"""


class OwnFile:
    """A file of the host that the board is to have, in a folder there."""

    def __init__(self, text: str):
        """Reads FILE[:FOLDER]. Without a folder a program is found by its name, and a library by
        those that need it.
        """
        name, _, folder = text.partition(":")
        self.file = Path(name)
        _expect_fit(self.file)
        library = ".so" in self.file.suffixes
        self.folder = Path(folder or (LIBRARIES if library else PROGRAMS))
        if not self.folder.is_absolute():
            raise Failure(f"a folder of the board begins with a slash, unlike {folder}")
        for hidden in HIDDEN:
            if self.folder.is_relative_to(hidden):
                raise Failure(f"{folder} is no place: what the board mounts in {hidden} hides it")


def _expect_fit(file: Path):
    if not file.exists():
        raise Failure(f"there is no {file}")
    if not file.is_file():
        raise Failure(f"{file} is no file, and only files can be put on the board")
    if machine := _foreign(file):
        raise Failure(f"{file} is for {machine}\n{HOW_TO_BUILD}")


def _foreign(file: Path) -> str | None:
    """Returns the machine that a program or a library is for, if that is not the board."""
    with open(file, "rb") as stream:
        head = stream.read(HEAD)
    if not head.startswith(MAGIC) or len(head) < HEAD:
        return None
    bits, order = head[4], "<" if head[5] == LITTLE else ">"
    machine, = struct.unpack_from(f"{order}H", head, 18)
    flags, = struct.unpack_from(f"{order}I", head, 36)
    if machine != ARM or bits != BITS_32:
        return MACHINES.get(machine, f"another machine (number {machine})")
    if order != "<":
        return "big-endian ARM"
    return "ARM with soft float" if flags & SOFT_FLOAT else None
