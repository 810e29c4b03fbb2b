#!/usr/bin/env python3
"""Writes the first inputs of the control fuzzer: whole backups, in the encoding that control_fuzz.cpp reads."""
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
folder = pathlib.Path(__file__).parent / "corpus" / "control_fuzz"
folder.mkdir(parents=True, exist_ok=True)
for name, seed in seeds.items():
    (folder / name).write_bytes(bytes(seed))
