"""The disk after a power cut, from the log of all that was written to it.

A disk may lose, in a power cut, what it was not told to flush; and of what it had begun to write it
may have written some sectors and not others. Killing the emulator alone loses nothing of that: the
host keeps what was written. So the emulator logs each write and flush, and the disk is built from
the log up to any moment: all that was flushed, and of the rest what chance leaves.
"""

import mmap
import os
import struct
import subprocess

SECTOR = 512
MAGIC = 0x6A736677736872
FLUSH, FUA, DISCARD = 1, 2, 4
ENTRY = struct.Struct("<QQQQ")


class TornLog(Exception):
    """The emulator was killed while it wrote the log, and not at its end."""


class WriteLog:
    """The log, in the format of Linux' dm-log-writes: a sector of header, a sector for each entry
    and, behind it, the written sectors."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self._data = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)
        magic, _, _, sector = struct.unpack_from("<QQQI", self._data)
        if magic != MAGIC or sector != SECTOR:
            raise ValueError(f"{path} is no log of writes")
        self.entries = []  # (offset on the disk, offset in the log, length, flags)
        at = SECTOR
        # The header's count is behind the times after a kill: the log ends where zeros begin.
        while at + SECTOR <= len(self._data):
            sector, count, flags, _ = ENTRY.unpack_from(self._data, at)
            if count == 0 and flags == 0:
                break
            length = 0 if flags & DISCARD else count * SECTOR
            if at + SECTOR + length > len(self._data):
                break
            self.entries.append((sector * SECTOR, at + SECTOR, length, flags))
            at += SECTOR + length
        if any(self._data[at + SECTOR:]):
            raise TornLog

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._data.close()

    def __len__(self):
        return len(self.entries)

    def written_at(self, offset):
        """What was written to the one sector there: (index, text up to the first newline)."""
        return [(index, self._data[at:at + SECTOR].split(b"\n")[0].decode())
                for index, (where, at, length, _) in enumerate(self.entries)
                if where == offset and length]

    def build(self, original, path, count, random):
        """Makes `path` the disk as a cut behind `count` entries may leave it."""
        subprocess.run(["cp", "--sparse=always", original, path], check=True)
        entries = self.entries[:count]
        flushed = max((index for index, entry in enumerate(entries) if entry[3] & FLUSH), default=-1)
        fortune = random.random()
        disk = os.open(path, os.O_WRONLY)
        try:
            for index, (where, at, length, flags) in enumerate(entries):
                if index < flushed or flags & FUA:
                    os.pwrite(disk, self._data[at:at + length], where)
                    continue
                is_torn = random.random() < 0.25
                for begin in range(0, length, SECTOR if is_torn else max(length, 1)):
                    if random.random() < fortune:
                        size = SECTOR if is_torn else length
                        os.pwrite(disk, self._data[at + begin:at + begin + size], where + begin)
        finally:
            os.close(disk)
