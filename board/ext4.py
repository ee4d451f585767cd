"""Reads the recordings' folder of a clean ext4 file system from its bytes, without mounting it."""

import struct
from dataclasses import dataclass

ROOT_INODE = 2
EXTENTS_MAGIC = 0xF30A
UNWRITTEN = 32768  # an extent of more blocks than this is allocated, but reads as zeros
NEEDS_RECOVERY, SIXTY_FOUR_BITS = 0x4, 0x80


@dataclass
class File:
    size: int
    extents: list[tuple[int, int, int]]  # first byte in the file, first byte on the card, bytes

    def place(self, offset: int) -> int | None:
        """Returns which byte of the file is at this byte of the card, or None."""
        for start, place, length in self.extents:
            if place <= offset < place + length:
                return start + offset - place
        return None


class FileSystem:
    """A file system that was checked: with a journal to be replayed, it would not be what it says.
    """

    def __init__(self, data):
        """`data` is anything with slices of bytes, and begins with the file system."""
        self._data = data
        block = data[1024:2048]
        self.block_size = 1024 << struct.unpack_from("<I", block, 24)[0]
        self.inodes_per_group, = struct.unpack_from("<I", block, 40)
        self.inode_size, = struct.unpack_from("<H", block, 88)
        self.first_block, = struct.unpack_from("<I", block, 20)
        self.clean = not struct.unpack_from("<I", block, 96)[0] & NEEDS_RECOVERY
        wide = struct.unpack_from("<I", block, 96)[0] & SIXTY_FOUR_BITS
        self.descriptor_size = struct.unpack_from("<H", block, 254)[0] if wide else 32

    def folder(self, name: str) -> dict[str, File]:
        """Returns the files of a folder of the root; none if there is no such folder."""
        number = self._entries(self._file(ROOT_INODE)).get(name)
        if number is None:
            return {}
        entries = self._entries(self._file(number))
        return {entry: self._file(number) for entry, number in entries.items()
                if entry not in (".", "..")}

    def content(self, file: File) -> bytes | bytearray:
        """Returns a file's bytes; its holes are zeros."""
        if len(file.extents) == 1:
            (start, place, length), = file.extents
            if start == 0 and length >= file.size:
                return self._data[place:place + file.size]
        content = bytearray(file.size)
        for start, place, length in file.extents:
            length = min(length, file.size - start)
            if length > 0:
                content[start:start + length] = self._data[place:place + length]
        return content

    def _block(self, number: int) -> bytes:
        return self._data[number * self.block_size:(number + 1) * self.block_size]

    def _file(self, number: int) -> File:
        group, index = divmod(number - 1, self.inodes_per_group)
        table = (self.first_block + 1) * self.block_size + group * self.descriptor_size
        first, = struct.unpack("<I", self._data[table + 8:table + 12])
        place = first * self.block_size + index * self.inode_size
        inode = self._data[place:place + self.inode_size]
        low, = struct.unpack_from("<I", inode, 4)
        high, = struct.unpack_from("<I", inode, 108)
        return File(low | high << 32, list(self._extents(inode[40:100])))

    def _extents(self, node: bytes):
        magic, count, _, depth = struct.unpack_from("<HHHH", node)
        if magic != EXTENTS_MAGIC:
            return
        for number in range(count):
            entry = node[12 * (number + 1):12 * (number + 2)]
            if depth > 0:
                yield from self._extents(self._block(struct.unpack_from("<I", entry, 4)[0]))
                continue
            start, length, _, place = struct.unpack("<IHHI", entry)
            if length <= UNWRITTEN:
                yield (start * self.block_size, place * self.block_size, length * self.block_size)

    def _entries(self, folder: File) -> dict[str, int]:
        """Returns the inode of each name. An index of names looks like blocks without names."""
        found, content = {}, self.content(folder)
        for start in range(0, len(content), self.block_size):
            place = start
            while place < start + self.block_size:
                number, length, name_length = struct.unpack_from("<IHB", content, place)
                if length < 8:
                    break
                if number:
                    name = content[place + 8:place + 8 + name_length]
                    found[name.decode(errors="replace")] = number
                place += length
        return found
