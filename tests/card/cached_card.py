#!/usr/bin/env python3
"""Runs the recorder on a card with a write-back cache, in a private root, and logs its writes.

    private_root --writable FOLDER cached_card.py FOLDER RECORDER FILES

The card is FOLDER/card.img as a file of a file system of its own, below loop devices. Those report
a cache, so the kernel asks for what must be on the card by flushes. Writes and flushes are logged
in FOLDER/writes.log, in the format of the kernel's dm-log-writes. Nothing is kept: the image stays
as it was.
"""

import ctypes
import errno
import mmap
import os
import struct
import subprocess
import sys
import threading
from pathlib import Path

PLACE = Path("/run/card.img")
SECTOR = 512
MARK = 8
MAGIC, FLUSH = 0x6A736677736872, 1

# Requests of the kernel's interface for file systems in user space (linux/fuse.h).
FORGET, GETATTR, SETATTR, OPEN, READ, WRITE, RELEASE, FSYNC = 2, 3, 4, 14, 15, 16, 18, 20
FLUSH_FILE, INIT, INTERRUPT, BATCH_FORGET = 25, 26, 36, 42
DIRECT_IO, BIG_WRITES = 1, 1 << 5
MOST_WRITTEN = 1 << 17


class LoggedFile:
    """The only file of a file system: each write of it and each fsync is logged."""

    def __init__(self, content: bytes, log: Path):
        self._content = bytearray(content)
        self._log = open(log, "wb")
        self._log.write(struct.pack("<QQQI", MAGIC, 1, 0, SECTOR).ljust(SECTOR, b"\0"))
        self._kernel = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
        PLACE.touch()
        options = f"fd={self._kernel},rootmode=100000,user_id=0,group_id=0".encode()
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.mount(b"card", bytes(PLACE), b"fuse", 0, options) != 0:
            raise OSError(ctypes.get_errno(), "mount of the card's file")
        threading.Thread(target=self._serve, daemon=True).start()

    def mark(self, text: str):
        """Tells in the log how far things are, in a sector that no file system has."""
        self._entry(MARK, text.encode().ljust(SECTOR), 0)

    def end_log(self):
        """What follows is written to the card, but no longer logged."""
        self._log.close()

    def _serve(self):
        while True:
            request = os.read(self._kernel, MOST_WRITTEN + 4096)
            _, kind, unique = struct.unpack_from("<IIQ", request)
            if kind in (FORGET, BATCH_FORGET, INTERRUPT):
                continue
            error, answer = self._answer(kind, request[40:])
            os.write(self._kernel, struct.pack("<IiQ", 16 + len(answer), -error, unique) + answer)

    def _answer(self, kind: int, request: bytes) -> tuple[int, bytes]:
        if kind == INIT:
            return 0, struct.pack("<IIIIHHIIHHI7I", 7, 31, 0, BIG_WRITES, 12, 9, MOST_WRITTEN,
                                  1, 0, 0, 0, *[0] * 7)
        if kind in (GETATTR, SETATTR):
            return 0, self._attributes()
        if kind == OPEN:
            return 0, struct.pack("<QII", 0, DIRECT_IO, 0)
        if kind == READ:
            offset, size = struct.unpack_from("<QI", request, 8)
            return 0, bytes(self._content[offset:offset + size])
        if kind == WRITE:
            offset, size = struct.unpack_from("<QI", request, 8)
            self._write(offset, request[40:40 + size])
            return 0, struct.pack("<II", size, 0)
        if kind == FSYNC:
            self._entry(0, b"", FLUSH)
        return (0 if kind in (FSYNC, FLUSH_FILE, RELEASE) else errno.ENOSYS), b""

    def _attributes(self) -> bytes:
        size = len(self._content)
        return struct.pack("<QII" "QQQ" "QQQ" "III" "IIIIIII", 0, 0, 0, 1, size, size // SECTOR,
                           0, 0, 0, 0, 0, 0, 0o100600, 1, 0, 0, 0, 4096, 0)

    def _write(self, offset: int, data: bytes):
        self._content[offset:offset + len(data)] = data
        self._entry(offset // SECTOR, data, 0)

    def _entry(self, sector: int, data: bytes, flags: int):
        if self._log.closed:
            return
        head = struct.pack("<QQQQ", sector, len(data) // SECTOR, flags, 0)
        self._log.write(head.ljust(SECTOR, b"\0") + data)


def insert_card() -> list[int]:
    """Shows the file as the card in the slot: its node, its partition's, its sysfs entries.

    The kernel lets go of the loop devices when the descriptors returned are closed, however that
    comes about, and nothing is mounted from them.
    """
    held = []
    for name, offset in (("mmcblk1", 0), ("mmcblk1p1", 1 << 20)):
        free = subprocess.run(["losetup", "--find"], capture_output=True, text=True, check=True)
        loop = Path(free.stdout.strip())
        if not loop.exists():
            os.mknod(loop, 0o60600, os.makedev(7, int(loop.name[4:])))
        subprocess.run(["losetup", "--offset", str(offset), loop, PLACE], check=True)
        os.mknod(f"/dev/{name}", 0o60600, os.stat(loop).st_rdev)
        held.append(os.open(loop, os.O_RDONLY | os.O_CLOEXEC))
        subprocess.run(["losetup", "--detach", loop], check=True)  # once it is no longer used
    entry = Path("/sys/block/mmcblk1")
    entry.mkdir(parents=True)
    (entry / "size").write_text(f"{PLACE.stat().st_size // SECTOR}\n")
    (entry / "ro").write_text("0\n")
    return held


def record(recorder: str, files: int):
    """Runs the recorder until it has recorded so many files, and marks in the log what it tells."""
    service = subprocess.Popen([recorder, "--size", "100000", "--period", "20", "--min-free", "1"],
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    slot = os.open("/dev/mmcblk1", os.O_WRONLY | os.O_DIRECT)
    page = mmap.mmap(-1, 4096)  # aligned, as direct writes must be
    for line in service.stdout:
        print(line, end="")
        if "Recorded" in line or "Deleted" in line:
            page[:SECTOR] = line.strip().ljust(SECTOR).encode()
            os.pwrite(slot, memoryview(page)[:SECTOR], MARK * SECTOR)
            files -= "Recorded" in line
        if files == 0:
            break
    service.kill()
    service.wait()
    os.close(slot)


def provide_fuse():
    """Makes the node of file systems of programs; ends the program where there are none."""
    with open("/proc/mounts") as mounts:
        if not mounts.readline().startswith("private_root / "):
            sys.exit("cached_card: this runs only through tests/card/private_root")
    os.mknod("/dev/fuse", 0o20600, os.makedev(10, 229))
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError as error:
        print(f"skipped: the kernel has no file systems of programs: {error}")
        sys.exit(77)


def main():
    folder, recorder, files = Path(sys.argv[1]), sys.argv[2], int(sys.argv[3])
    provide_fuse()
    card = LoggedFile((folder / "card.img").read_bytes(), folder / "writes.log")
    Path("/root/bin").mkdir(exist_ok=True)
    stand_in = Path("/root/bin/reboot")
    stand_in.write_text("#!/bin/sh\n")
    stand_in.chmod(0o755)
    held = insert_card()
    record(recorder, files)
    card.end_log()
    subprocess.run(["umount", "/mnt/sdcard"], check=True)
    for descriptor in held:
        os.close(descriptor)
    sys.stdout.flush()
    os._exit(0)  # the file system and its thread go with the root


if __name__ == "__main__":
    main()
