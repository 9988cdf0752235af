"""The disk after a power cut, from the log of all that was written to it.

A disk may lose, in a power cut, what it was not told to flush; and of what it had begun to write it
may have written some sectors and not others. Killing the emulator alone loses nothing of that: the
host keeps what was written. So the emulator logs each write and flush, and the disk is built from
the log up to any moment: all that was flushed, and of the rest what chance leaves.
"""

import struct
import subprocess
import typing

SECTOR = 512
MAGIC = 0x6A736677736872
FLUSH, FUA = 1, 2


class Entry(typing.NamedTuple):
    offset: int  # on the disk
    data: memoryview
    flags: int


class WriteLog:
    """The log, in the format of Linux' dm-log-writes: a sector of header, a sector for each entry
    and, behind it, the written sectors."""

    def __init__(self, path):
        log = memoryview(path.read_bytes())
        magic, _, _, sector_size = struct.unpack_from("<QQQI", log)
        if magic != MAGIC or sector_size != SECTOR:
            raise ValueError(f"{path} is no log of writes")
        self.entries = []
        begin = SECTOR
        # The header's count is behind the times after a kill: the log ends where zeros begin.
        while begin + SECTOR <= len(log):
            sector, count, flags, _ = struct.unpack_from("<QQQQ", log, begin)
            end = begin + SECTOR + count * SECTOR
            if (count == 0 and flags == 0) or end > len(log):
                break
            self.entries.append(Entry(sector * SECTOR, log[begin + SECTOR:end], flags))
            begin = end

    def written_at(self, offset):
        """What was written to the one sector there: (index, text up to the first newline)."""
        return [(index, bytes(entry.data[:SECTOR]).split(b"\n")[0].decode())
                for index, entry in enumerate(self.entries) if entry.offset == offset and entry.data]

    def build(self, original, path, count, random):
        """Makes `path` the disk as a cut behind `count` entries may leave it."""
        subprocess.run(["cp", "--sparse=always", original, path], check=True)
        entries = self.entries[:count]
        flushed = max((index for index, entry in enumerate(entries) if entry.flags & FLUSH), default=-1)
        fortune = random.random()
        with open(path, "r+b", buffering=0) as disk:
            for index, entry in enumerate(entries):
                is_safe = index < flushed or entry.flags & FUA
                size = len(entry.data) or 1
                # It is torn. The superblock is not: its file system takes it for whole, and finds nothing without it.
                if not is_safe and entry.offset != 0 and random.random() < 0.25:
                    size = SECTOR
                for begin in range(0, len(entry.data), size):
                    if is_safe or random.random() < fortune:
                        disk.seek(entry.offset + begin)
                        disk.write(entry.data[begin:begin + size])
