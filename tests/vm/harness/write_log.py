# SPDX-License-Identifier: GPL-2.0-only
"""The judge of restored images: QEMU's log of all writes to the tested disk, replayed and compared.

The log is QEMU's blklogwrites, in the order in which the disk got the requests. Around each backup the guest writes a
marker sector. A restored image is right if between the two markers there is a state of the disk that it equals in
every bit. No file system and nothing of the driver takes part in that.

It also makes what a disk with a write-back cache has after a power cut: of what was written behind the last flush some,
in the order in which it came, and the rest not.
"""
import os
import random
import struct
from pathlib import Path

from .failure import HarnessError

MAGIC = 0x6A736677736872
FLUSH, FUA, DISCARD, MARK = 1, 2, 4, 8
MARKER = b"quendrel-vm-marker "
SECTOR = 512


class Entry:
    __slots__ = ("sector", "count", "flags", "at")

    def __init__(self, sector, count, flags, at):
        self.sector, self.count, self.flags, self.at = sector, count, flags, at


class WriteLog:
    """Reads the log as it grows."""

    def __init__(self, path):
        self.file = os.open(path, os.O_RDONLY)      # QEMU goes on writing: nothing may be kept in a buffer.
        self.entries = []
        self.markers = {}
        self.next = SECTOR

    def update(self):
        head = os.pread(self.file, 28, 0)
        if not any(head):
            return      # QEMU writes it with the first flush.
        magic, version, count, sector_size = struct.unpack("<QQQI", head)
        if magic != MAGIC or version != 1 or sector_size != SECTOR:
            raise HarnessError("QEMU's write log is not of the form that is known here (blklogwrites, version 1, "
                               f"512-byte sectors): it begins with {head.hex()}")
        while len(self.entries) < count:
            sector, sectors, flags, _ = struct.unpack("<QQQQ", os.pread(self.file, 32, self.next))
            at = self.next + SECTOR
            entry = Entry(sector, sectors, flags, at)
            self.next = at + (0 if flags & DISCARD else sectors * SECTOR)
            if sectors == 1 and not flags & DISCARD:
                data = self.data(entry)
                if data.startswith(MARKER):
                    self.markers.setdefault(data[len(MARKER):].split(b"\n")[0].decode(errors="replace"), []).append(len(self.entries))
            self.entries.append(entry)

    def data(self, entry):
        return os.pread(self.file, entry.count * SECTOR, entry.at)

    def close(self):
        os.close(self.file)

    def marker(self, name):
        """The position of the newest marker of that name."""
        if name not in self.markers:
            raise HarnessError(f"the log of the tested disk has no marker {name}")
        return self.markers[name][-1]


class Comparison:
    """Which sectors of an image differ from the disk's present state."""

    def __init__(self, state, extents, image):
        self.extents, self.image = extents, image
        self.differs = bytearray(len(image) // SECTOR)
        at = 0
        for start, sectors in extents:
            self.compare(state, start, sectors, at)
            at += sectors
        self.count = self.differs.count(1)

    def compare(self, state, start, sectors, image_sector, step=64):
        """Sets the marks of a range; equal pieces are recognised as a whole."""
        for first in range(0, sectors, step):
            some = min(step, sectors - first)
            ours = state[(start + first) * SECTOR:(start + first + some) * SECTOR]
            theirs = self.image[(image_sector + first) * SECTOR:(image_sector + first + some) * SECTOR]
            if ours == theirs:
                self.differs[image_sector + first:image_sector + first + some] = bytes(some)
            else:
                for i in range(some):
                    self.differs[image_sector + first + i] = ours[i * SECTOR:(i + 1) * SECTOR] != theirs[i * SECTOR:(i + 1) * SECTOR]

    def changed(self, state, sector, count):
        at = 0
        for start, sectors in self.extents:
            first, end = max(sector, start), min(sector + count, start + sectors)
            if first < end:
                place = at + first - start
                self.count -= self.differs.count(1, place, place + end - first)
                self.compare(state, first, end - first, place)
                self.count += self.differs.count(1, place, place + end - first)
            at += sectors


class Judge:
    """Holds a state of the disk and moves it along the log."""

    def __init__(self, log_path, disk_bytes):
        self.log = WriteLog(log_path)
        self.state = bytearray(disk_bytes)
        self.position = 0                 # entries that are in `state`
        self.kept = (0, bytes(0))         # a state to go back to

    def keep(self):
        """Called before a test: no later question is about an earlier state."""
        self.log.update()
        self.advance(len(self.log.entries))
        self.kept = (self.position, bytes(self.state))

    def advance(self, position, comparison=None):
        while self.position < position:
            entry = self.log.entries[self.position]
            self.position += 1
            if not entry.count:
                continue
            begin, length = entry.sector * SECTOR, entry.count * SECTOR
            if begin + length > len(self.state):
                raise HarnessError("the log has a write past the end of the disk")
            self.state[begin:begin + length] = bytes(length) if entry.flags & DISCARD else self.log.data(entry)
            if comparison is not None:
                comparison.changed(self.state, entry.sector, entry.count)

    def find(self, before, after, extents, image):
        """(True, text) if the image equals a state between the markers; (False, text) if none."""
        self.log.update()
        begin, end = self.log.marker(before), self.log.marker(after)
        if begin >= end:
            raise HarnessError(f"the marker {after} is not behind {before}")
        if len(image) != SECTOR * sum(count for _, count in extents):
            raise HarnessError("the restored image and the device differ in size")
        if self.position > begin + 1:
            self.position, state = self.kept
            self.state[:] = state or bytes(len(self.state))
            if self.position > begin + 1:
                raise HarnessError(f"the marker {before} is older than the test")
        self.advance(begin + 1)
        comparison = Comparison(self.state, extents, image)
        found, best, best_at, best_sectors = None, comparison.count, 0, comparison.differs[:]
        first_count = comparison.count
        if comparison.count == 0:
            found = 0
        while self.position <= end:
            self.advance(self.position + 1, comparison)
            if comparison.count == 0 and found is None:
                found = self.position - begin - 1
            if comparison.count < best:
                best, best_at, best_sectors = comparison.count, self.position - begin - 1, comparison.differs[:]
        total = end - begin - 1
        moved = f"{first_count} sectors differ from it at the first marker, {comparison.count} at the second"
        if found is not None:
            return True, f"equals the disk after write {found} of {total} between the markers; {moved}"
        wrong = [i for i, mark in enumerate(best_sectors) if mark][:12]
        return False, (f"equals no state of the disk between the markers ({total} writes); nearest after write {best_at}: "
                       f"{best} sectors differ, the first of them {wrong}; {moved}")

    def cut(self, seed, first_marker, counted, extents):
        """What the disk holds of these extents after a power cut behind the first marker; and how many markers whose names
        begin with `counted` had been written by then."""
        self.log.update()
        chance = random.Random(seed)
        begin, end = self.log.marker(first_marker), len(self.log.entries)
        at = chance.randrange(begin + 1, end + 1)
        flush = max((i for i in range(self.kept[0], at) if self.log.entries[i].flags & FLUSH), default=self.kept[0])
        survival = chance.choice((0, 0.1, 0.5, 0.9, 1))
        state = bytearray(self.kept[1] or len(self.state))
        lost = 0
        for index in range(self.kept[0], at):
            entry = self.log.entries[index]
            if not entry.count:
                continue
            if index > flush and not entry.flags & FUA and chance.random() >= survival:
                lost += 1
                continue
            start, length = entry.sector * SECTOR, entry.count * SECTOR
            state[start:start + length] = bytes(length) if entry.flags & DISCARD else self.log.data(entry)
        done = sum(1 for name, places in self.log.markers.items() if name.startswith(counted) and places[0] < at)
        image = b"".join(state[first * SECTOR:(first + count) * SECTOR] for first, count in extents)
        return image, done, f"cut behind write {at - begin} of {end - begin}, {at - flush - 1} after the last flush, {lost} of them lost"

    def flushed_between(self, first_sector, second_sector, pairs):
        """Whether for each n the flush between the guest's n-th two writes reached the disk between them.

        The guest writes block n of one place, has it made durable, and only then writes block n of the other.
        """
        self.log.update()
        arrivals = ({}, {})
        flushes = []
        for index in range(self.kept[0], len(self.log.entries)):
            entry = self.log.entries[index]
            if entry.flags & (FLUSH | FUA):
                flushes.append(index)
            if not entry.count or entry.flags & DISCARD:
                continue
            for place, seen in zip((first_sector, second_sector), arrivals):
                for number in range(pairs):
                    sector = place + 8 * number
                    if entry.sector <= sector < entry.sector + entry.count:
                        if self.log.data(entry)[(sector - entry.sector) * SECTOR:].startswith(b"pair %06d" % number):
                            seen[number] = index
        first, second = arrivals
        lost = [n for n in range(pairs) if n not in first or n not in second]
        if lost:
            return False, f"{len(lost)} of {pairs} pairs of writes did not reach the disk (first: {lost[:5]})"
        bare = [n for n in range(pairs) if not any(first[n] < flush < second[n] for flush in flushes)]
        if bare:
            return False, f"no flush reached the disk between the two writes of {len(bare)} of {pairs} pairs (first: {bare[:5]})"
        return True, f"each of {pairs} writes was flushed before the next one"


def image_part(path, offset, length):
    with open(path, "rb") as file:
        file.seek(offset)
        return file.read(length)


def parse_extents(text):
    return [tuple(int(number) for number in extent.split("+")) for extent in text.split(",")]


def fresh_log(path):
    """QEMU writes the first super block itself; the file has to exist."""
    Path(path).write_bytes(b"")
