#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Writes the first inputs of the fuzzers: whole backups, in the encodings that control_fuzz.cpp and socket_fuzz.cpp
read, and NBD clients in that of nbd_fuzz.cpp."""
import pathlib

COMMANDS = ["block_size", "start", "snapshot", "state", "automap_state", "no_load", "no_start", "load_map", "automap",
            "dirty_block", "read", "version_major", "version_minor", "sync", "shutdown", "reserved"]


def number(value):
    return [0, 5, value & 255, value >> 8]


POINTER = [1, 4, 0]  # into the scratch area
AREA = [1, 3]        # the start of the first mapping
ONE = [0, 4]


def command(name, record=(), extra=(), file=0):
    words = list(record) + [ONE] * (8 - len(record))
    return [5, file, COMMANDS.index(name), 1] + sum(words, []) + list(extra) + [1]


def start(cache=200, file=0):
    return command("start", extra=[1, cache], file=file)


def snapshot(file=0):
    return command("snapshot", [POINTER, number(56)], file=file)


def load_map(file=0):
    return command("load_map", extra=[1, 4, 8, 1], file=file)


def automap(file=0):
    return command("automap", extra=[1, 4, 8, 1], file=file)


def read(first, count, file=0):
    return command("read", [number(first), number(count), AREA], file=file)


def write(sector, count, value):
    return [1, sector & 255, sector >> 8, count - 1, value]


def map_area(area=0, pages=16, file=0):
    return [2, file, area, area, (pages - 1) & 255, (pages - 1) >> 8, 1, 1]


OPEN = [0, 0]
SECOND = [0, 1]
seeds = {
    "full": OPEN + start() + snapshot() + map_area() + write(0, 8, 7) + load_map() + write(64, 16, 9) + read(0, 16)
    + [3, 0, 0, 0, 0, 0] + read(16, 16) + command("state", [POINTER, number(20)]),
    "cache_limit": OPEN + start(2) + snapshot() + map_area() + write(0, 32, 1) + write(100, 32, 2) + read(0, 4),
    "queries": OPEN + command("block_size", [ONE, ONE, POINTER, number(16)], extra=[1]) + command("version_major", [POINTER])
    + command("dirty_block", [POINTER]) + command("automap_state", [POINTER, number(76)]) + command("sync")
    + command("reserved"),
    "snapshot_reads": OPEN + start() + snapshot() + map_area() + map_area(1) + automap() + read(0, 8) + write(8, 8, 3)
    + read(0, 8) + load_map() + read(0, 8) + command("dirty_block", [POINTER]),
    "two_files": OPEN + SECOND + start() + start(file=1) + snapshot() + load_map() + write(8, 8, 3) + command("shutdown", file=1)
    + write(16, 8, 4) + map_area() + read(0, 8),
    "no_tracking": OPEN + start() + command("no_start") + snapshot() + load_map() + map_area() + read(0, 16),
}


class Socket:
    """One input of the socket fuzzer, on one connection at a time."""

    WAIT, NO_WAIT, PASS = [2], [0], [1]

    def __init__(self):
        self.bytes, self.known = [], set()

    def _step(self, op, slot, rest):
        self.bytes += [op, slot] + ([] if slot in self.known else [1]) + rest
        self.known.add(slot)
        return self

    def command(self, name, *record, slot=0, how=WAIT, shape=1):
        words = list(record) + [[0, 3]] * (4 - len(record))
        return self._step(6, slot, [COMMANDS.index(name), 1, shape] + sum(words, []) + [1] + how)

    def map(self, area=0, pages=16, slot=0, how=WAIT):
        return self._step(2, slot, [1, area, 1, (pages - 1) & 255, (pages - 1) >> 8, 1, 1] + how)

    def unmap(self, area=0, slot=0):
        return self._step(3, slot, [1, area, 1] + self.WAIT)

    def raw(self, packet, slot=0, descriptors=()):
        return self._step(1, slot, [len(packet)] + list(packet[:40]) + (list(descriptors) or [0]))

    def words(self, kind, a, b, c=0, d=0, slot=0):
        return self._step(4, slot, [kind] + [w >> s & 255 for w in (a, b) for s in (0, 8, 16, 24)] + [c, d] + self.WAIT)

    def end(self, slot=0):
        return self._step(5, slot, [0])

    def close(self, slot=0):
        self.bytes += [0, slot]
        self.known.discard(slot)
        return self


def value(n):
    return [0, 4, n]


SCRATCH, FIRST_AREA = [1, 3, 0], [1, 2, 0]


def socket_backup(**how):
    return (Socket().command("start").command("state", SCRATCH, value(20)).command("snapshot", SCRATCH, value(56))
            .command("load_map").map().map(1).command("read", value(0), value(16), FIRST_AREA, **how)
            .command("automap_state", SCRATCH, value(76)).unmap(1).unmap())


ioctl = bytes([1, 0, 0, 0]) + bytes(16)
socket_seeds = {
    "full": socket_backup().close(),
    "incremental": socket_backup().close().command("start").command("snapshot", SCRATCH, value(56)).command("automap")
    .command("load_map").command("dirty_block", SCRATCH).close(),
    "left_mapped": Socket().command("start").command("snapshot", SCRATCH, value(56)).map(pages=256).close(),
    "no_wait": socket_backup(how=Socket.NO_WAIT).command("sync", how=Socket.NO_WAIT).end(),
    "passed": Socket().raw(ioctl, descriptors=[1, 1]).close().command("sync", how=Socket.PASS + [3]),
    "sizes": Socket().raw(b"").close().raw(b"x").close().raw(ioctl[:19]).close().raw(ioctl + b"x").close().raw(bytes(200)),
    "others": Socket().command("version_major", SCRATCH).command("sync", slot=1).command("shutdown").close(1)
    .command("reserved").command("block_size", value(8), value(1), SCRATCH, value(16)),
    "overlap": Socket().command("start").map(0, 2).map(0, 1).close().words(2, 0x30000000, 4096, 9).words(3, 0x30000000, 0),
    "no_tracking": Socket().command("no_start").command("no_load").command("start").command("snapshot", SCRATCH, value(0)),
}



def option(number, data=b""):
    return b"IHAVEOPT" + number.to_bytes(4, "big") + len(data).to_bytes(4, "big") + data


def request(command, offset=0, sectors=8):
    return bytes([command, offset & 255, offset >> 8, sectors & 255, sectors >> 8])


FLAGS, RAW, REQUESTS, STRUCTURED = b"\0\0\0\3", 1, 2, 4
GO = option(7, b"\0\0\0\3sda\0\1\0\3")
nbd_seeds = {
    "handshake": bytes([0]) + FLAGS + option(3) + option(8) + option(9, b"\0\0\0\0\0\0\0\0")
    + option(10, b"\0\0\0\3sda\0\0\0\1\0\0\0\x0fbase:allocation") + option(6, b"\0\0\0\0\0\0") + GO,
    "by_name": bytes([0]) + b"\0\0\0\1" + option(1, b"sda") + bytes.fromhex("25609513") + bytes(24),
    "refused": bytes([0]) + FLAGS + option(5) + option(99, b"x" * 40) + option(7, b"\0\0\0\1q\0\0") + option(2),
    "raw_write": bytes([RAW]) + bytes.fromhex("25609513 0000 0001 0000000000000001 0000000000000000 00000200") + b"d" * 512
    + bytes.fromhex("25609513 0000 0002 0000000000000002 0000000000000000 00000000"),
    "requests": bytes([REQUESTS]) + b"".join(request(c, 8 * c, 64) for c in (1, 0, 3, 4, 5, 6, 7, 8, 9, 1, 0)),
    "structured": bytes([REQUESTS + STRUCTURED + 8]) + b"".join(request(c, 8 * c, 64) for c in (1, 0, 7, 4, 7, 6, 7, 3)),
    "large": bytes([REQUESTS]) + b"".join(request(1, 64 * n, 127) for n in range(4)) + request(0, 0, 512),
}

for name, inputs in {"control_fuzz": seeds, "socket_fuzz": {n: s.bytes for n, s in socket_seeds.items()},
                     "nbd_fuzz": nbd_seeds}.items():
    folder = pathlib.Path(__file__).parent / "corpus" / name
    folder.mkdir(parents=True, exist_ok=True)
    for seed, content in inputs.items():
        (folder / seed).write_bytes(bytes(content))
