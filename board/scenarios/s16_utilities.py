"""The page cache is dropped, a process found, the RAM disk renewed, open files listed."""

import re

from board.board import Board, expect, expect_equal
from board.image import Image, MiB, fill, sample

LIMIT = 200

FILE = 4 * MiB

SCRIPT = """
mount -o noatime,nodiratime,data=writeback /dev/mmcblk1p1 /mnt/sdcard
sectors() { echo "sectors $1 $(awk '{print $3}' /sys/block/mmcblk1/stat)"; }
look() { sectors "$1"; cat /mnt/sdcard/file >/dev/null; sectors "$1"; }
look first
look cached
driver clear-cache
look refused
mkfifo /tmp/older
exec 9>/proc/sys/vm/drop_caches
mount --bind /tmp/older /proc/sys/vm/drop_caches
head -c 1 </tmp/older >&9 &
driver clear-cache
wait
look dropped

cp /bin/dash /tmp/needle-service
/tmp/needle-service -c 'sleep 1000; exit' &
echo "service $!"
sleep 1
driver find-process needle
driver find-process tmp/needle
kill $!

for round in 1 2; do
    driver ramdisk
    echo "left $(ls /mnt/ramdisk | wc -l)"
    grep ramdisk /proc/mounts
    stat -c 'mode %a' /mnt/ramdisk
    stat -f -c 'space %b %S' /mnt/ramdisk
    echo text >/mnt/ramdisk/file
done
grep -c ramdisk /proc/mounts

exec 7</mnt/sdcard/file
echo "shell $$"
driver open-files 7<&- 8</etc/board/run
"""


def run(board: Board):
    folder = fill(board.folder / "card", {"file": sample("file", FILE)})
    lines = board.run(SCRIPT, Image.card(board.folder / "card.img", folder)).lines

    check_cache(board, lines)

    service = word(lines, "service ")
    expect_equal([line for line in lines if line.startswith(("process ", "driver: find"))],
                 [f"process {service}", "driver: find-process yes",
                  "process -1", "driver: find-process no"], "the process")

    expect_equal([line for line in lines if line.startswith("left ")], ["left 0"] * 2,
                 "files on a new RAM disk")
    mounts = [line for line in lines if line.startswith("tmpfs /mnt/ramdisk")]
    expect_equal(len(mounts), 2, "mounts")
    expect(all("nosuid,nodev,noatime" in line and "size=196608k" in line for line in mounts),
           f"other options: {mounts}")
    expect_equal(lines.count("mode 1777"), 2, "modes of the RAM disk")
    expect_equal(lines.count(f"space {192 * MiB // 4096} 4096"), 2, "sizes of the RAM disk")

    check_open_files(lines)
    board.note(f"RAM disk: {mounts[1]}")


def check_cache(board: Board, lines: list[str]):
    """From Linux 5.8 on nobody may open the kernel's file for reading, and the request fails.

    With a file as older kernels have it, which passes the request on, the cache is dropped.
    """
    expect_equal([line for line in lines if line.startswith("driver: clear-cache")],
                 ["driver: clear-cache no", "driver: clear-cache yes"], "the requests")
    read = {moment: bytes_read(lines, moment)
            for moment in ("first", "cached", "refused", "dropped")}
    expect(read["first"] >= FILE and read["dropped"] >= FILE and
           max(read["cached"], read["refused"]) < MiB, f"bytes read from the card: {read}")
    board.note(f"bytes read from the card: {read}")


def check_open_files(lines: list[str]):
    headings = [number for number, line in enumerate(lines) if line.startswith("Open files on pid")]
    expect_equal(len(headings), 2, "lists of open files")
    own, parent = headings
    expect_equal(lines[parent], f"Open files on pid {word(lines, 'shell ')} :", "the parent")
    expect(any("8 -> /etc/board/run" in line for line in lines[own:parent]), "its own file")
    expect(not any("/mnt/sdcard/file" in line for line in lines[own:parent]), "one file too many")
    expect(any("-> /mnt/sdcard/file" in line for line in lines[parent:]), "the parent's file")


def bytes_read(lines: list[str], moment: str) -> int:
    before, after = (int(line.split()[-1]) for line in lines
                     if re.match(rf"sectors {moment} ", line))
    return (after - before) * 512


def word(lines: list[str], label: str) -> str:
    return next(line for line in lines if line.startswith(label)).split()[-1]
