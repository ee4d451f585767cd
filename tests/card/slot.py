"""The card in the slot of a private root: a file whose content is set, and whose writes are logged.

A `LoggedFile` is the only file of a file system of its own, below loop devices. Those report a
write-back cache, so the kernel asks for what must be on the card by flushes. Writes and flushes are
logged in the format of the kernel's dm-log-writes. A `PlainFile` works on every kernel, and logs
nothing.

The process that serves that file system does nothing else, and has its own view of what is mounted.
One that waited for the file itself, or whose end unmounted the card, could not be killed, and every
sync(2) on the machine would wait with it.
"""

import contextlib
import errno
import fcntl
import mmap
import os
import struct
import sys
from pathlib import Path

from alone import CANNOT_RUN, NEW_MOUNTS, call
from board.cuts import FLUSH, MARK, PARTITION, SECTOR, Write, entry_of, log_of

PLACE, ENTRIES = Path("/run/card.img"), Path("/run/entries")
MOST_TAKEN = 50  # loop devices that others take meanwhile

# Requests of the kernel's interface for file systems in user space (linux/fuse.h).
FORGET, GETATTR, SETATTR, OPEN, READ, WRITE, RELEASE, FSYNC = 2, 3, 4, 14, 15, 16, 18, 20
FLUSH_FILE, INIT, INTERRUPT, BATCH_FORGET = 25, 26, 36, 42
DIRECT_IO, BIG_WRITES = 1, 1 << 5
MOST_WRITTEN = 1 << 17

# And of that for loop devices (linux/loop.h, linux/fs.h).
CONTROL = "/dev/loop-control"
LOOP_CONFIGURE, LOOP_CTL_GET_FREE, AUTOCLEAR, BLKROSET = 0x4C0A, 0x4C82, 4, 0x125D


def require_private_root():
    with open("/proc/mounts") as mounts:
        if not mounts.readline().startswith("private_root / "):
            sys.exit("skipped: this runs only through tests/card/private_root")


def why_nothing_is_logged() -> str | None:
    """Returns why this kernel has no file systems of programs, or None if it has them."""
    if not os.path.exists("/dev/fuse"):
        os.mknod("/dev/fuse", 0o20600, os.makedev(10, 229))
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError as error:
        return f"the kernel has no file systems of programs: {error}"
    return None


def require_log():
    """Ends the program as a skipped test where nothing can be logged."""
    if reason := why_nothing_is_logged():
        print(f"skipped: {reason}")
        sys.exit(CANNOT_RUN)


class PlainFile:
    """A file in memory."""

    def __init__(self, content: bytes):
        PLACE.write_bytes(content)
        with open(PLACE, "r+b") as file:
            self.content = mmap.mmap(file.fileno(), 0)

    def log(self, _path: Path):
        return contextlib.nullcontext()

    def mark(self, _text: str):
        """There is no log to tell in."""


class LoggedFile:
    """The only file of a file system; writes of it and each fsync are logged while a log is open.
    """

    def __init__(self, content: bytes):
        self.content = mmap.mmap(-1, len(content))  # shared with the process that serves it
        self.content[:] = content
        self._entries = open(ENTRIES, "ab+", buffering=0)
        kernel = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
        PLACE.touch()
        options = f"fd={kernel},rootmode=100000,user_id=0,group_id=0".encode()
        call("mount", b"card", bytes(PLACE), b"fuse", 0, options)
        self.server = os.fork()  # the process that answers
        if self.server == 0:
            try:
                self._serve(kernel)
            finally:
                os._exit(1)
        os.close(kernel)

    @contextlib.contextmanager
    def log(self, path: Path):
        """Logs what is written in the `with` block, in a new file."""
        self._entries.truncate(0)
        yield
        log = self._entries.fileno()
        entries = os.pread(log, os.fstat(log).st_size, 0)
        path.write_bytes(log_of(entries))

    def mark(self, text: str):
        """Tells in the log what has happened by now."""
        self._entry(MARK, text.encode().ljust(SECTOR), 0)

    def _serve(self, kernel: int):
        call("unshare", NEW_MOUNTS)
        while True:
            request = os.read(kernel, MOST_WRITTEN + 4096)
            _, kind, unique = struct.unpack_from("<IIQ", request)
            if kind in (FORGET, BATCH_FORGET, INTERRUPT):
                continue
            error, answer = self._answer(kind, request[40:])
            os.write(kernel, struct.pack("<IiQ", 16 + len(answer), -error, unique) + answer)

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
            return 0, self._read(offset, size)
        if kind == WRITE:
            offset, size = struct.unpack_from("<QI", request, 8)
            self._write(offset, request[40:40 + size])
            return 0, struct.pack("<II", size, 0)
        if kind == FSYNC:
            self._entry(0, b"", FLUSH)
        return (0 if kind in (FSYNC, FLUSH_FILE, RELEASE) else errno.ENOSYS), b""

    def _attributes(self) -> bytes:
        size = len(self.content)
        return struct.pack("<QII" "QQQ" "QQQ" "III" "IIIIIII", 0, 0, 0, 1, size, size // SECTOR,
                           0, 0, 0, 0, 0, 0, 0o100600, 1, 0, 0, 0, 4096, 0)

    def _read(self, offset: int, size: int) -> bytes:
        return bytes(self.content[offset:offset + size])

    def _write(self, offset: int, data: bytes):
        self.content[offset:offset + len(data)] = data
        self._entry(offset // SECTOR, data, 0)

    def _entry(self, sector: int, data: bytes, flags: int):
        """Appends to what is logged, in one call, since two processes do so."""
        self._entries.write(entry_of(Write(sector, data, flags)))


def attach(offset: int) -> int:
    """Makes a loop device of the file, which is one as long as the returned descriptor or what is
    mounted from it uses it. Another process may take a free device first: then the next.
    """
    file, control = (os.open(path, os.O_RDWR | os.O_CLOEXEC) for path in (PLACE, CONTROL))
    info = struct.pack("<QQQQQIIII64s64s32sQQ", 0, 0, 0, offset, 0, 0, 0, 0, AUTOCLEAR, b"", b"",
                       b"", 0, 0)
    try:
        for _ in range(MOST_TAKEN):
            number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
            loop = Path(f"/dev/loop{number}")
            if not loop.exists():
                os.mknod(loop, 0o60600, os.makedev(7, number))
            device = os.open(loop, os.O_RDWR | os.O_CLOEXEC)
            try:
                fcntl.ioctl(device, LOOP_CONFIGURE, struct.pack("<II232s64x", file, 0, info))
                # Whoever had the device before may have left it read-only.
                fcntl.ioctl(device, BLKROSET, struct.pack("i", 0))
                return device
            except OSError as error:
                os.close(device)
                if error.errno != errno.EBUSY:
                    raise
    finally:
        os.close(file)
        os.close(control)
    raise OSError(errno.EBUSY, "no loop device is free")


class Slot:
    """A file shown as the card in the slot: its node, its partition's, its sysfs entries.

    The kernel lets go of the loop devices with the object, however that comes about, once nothing
    is mounted from them.
    """

    def __init__(self, file: PlainFile | LoggedFile):
        self._file = file
        self._held = []
        for name, offset in (("mmcblk1", 0), ("mmcblk1p1", PARTITION)):
            self._held.append(attach(offset))
            os.mknod(f"/dev/{name}", 0o60600, os.fstat(self._held[-1]).st_rdev)
        entry = Path("/sys/block/mmcblk1")
        entry.mkdir(parents=True)
        (entry / "size").write_text(f"{PLACE.stat().st_size // SECTOR}\n")
        (entry / "ro").write_text("0\n")
        # What the kernel counts of the partition's device and its file system.
        loop = f"loop{os.minor(os.fstat(self._held[-1]).st_rdev)}"
        (entry / "stat").symlink_to(f"/sys/kernel/block/{loop}/stat")
        for name, place in (("block", "/sys/class/block"), ("ext4", "/sys/fs/ext4"),
                            ("ext4-options", "/proc/fs/ext4")):
            Path(place, "mmcblk1p1").symlink_to(f"/sys/kernel/{name}/{loop}")

    def put(self, content: bytes | bytearray):
        """Makes this the content of the partition's file system, which must not be mounted.

        It is written through the device, which would otherwise remember what was there before.
        """
        step = 1 << 16
        now, device = self._file.content, self._held[1]
        for start in range(0, len(content), step):
            wanted = content[start:start + step]
            if now[PARTITION + start:PARTITION + start + step] != wanted:
                os.pwrite(device, wanted, start)
        os.fsync(device)

    def close(self):
        for descriptor in self._held:
            os.close(descriptor)
