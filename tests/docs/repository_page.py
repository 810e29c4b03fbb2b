#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Holds what the manual pages tell of stored backups and of --json against backups of a daemon's disk.

usage: repository_page.py QUENDRELD QBACKUP SOURCES

The recipes are taken out of the page and run. What the page says of the format is enough for this file to check backups.
"""
import atexit
import ctypes
import glob
import json
import os
import pathlib
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

sys.dont_write_bytecode = True
from manual import Page, fields, flat, is_told

quendreld, qbackup, sources = sys.argv[1:4]
page = Page(sources + "/docs/qbackup-repository.5")
work = tempfile.mkdtemp()
repository, folder = work + "/repository", work + "/repository/tern/sda1"
printed = {}  # command: the objects that it has printed
contents = {}  # id: the bytes that restore gives
tied = ["setpriv", "--pdeathsig", "TERM"]  # ends with this process, however that does


def run(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, timeout=60).stdout


class Daemon:
    """Serves the disk."""

    def __enter__(self):
        self.process = subprocess.Popen([*tied, quendreld, work + "/disk.img", "--run-dir", work + "/d",
                                         "--no-fuse", "--foreground"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        while not self.process.stdout.readline().startswith("log "):
            if self.process.poll() is not None:
                raise RuntimeError("the daemon has ended")
        return self

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.process.wait(60)
        finally:
            self.process.kill()
            self.process.wait()
            self.process.stdout.close()


def tool(command, *arguments):
    """Runs qbackup, and notes what it prints."""
    lines = run(qbackup, "--control", work + "/d/control.sock", "--json", "--quiet", command, *arguments).splitlines()
    printed.setdefault(command, []).extend(map(json.loads, lines))
    return json.loads(lines[-1])


def write(*commands):
    every = [word for command in commands for word in ("-c", command)]
    run("qemu-io", "-f", "raw", *every, "nbd+unix:///sda?socket=%s/d/nbd.sock" % work)


def back_up(*options):
    made = tool("backup", "sda1", "--to", repository, "--host", "tern", *options)
    to = "%s/%s.raw" % (work, made["id"])
    tool("restore", "--from", made["path"], "--to", to)
    contents[made["id"]] = pathlib.Path(to).read_bytes()


def make_disk():
    """A partition with ext4 in it."""
    start, sectors = 2048, 16 * 2048
    with open(work + "/disk.img", "wb") as disk:
        disk.truncate((start + sectors) * 512)
        disk.seek(446)
        disk.write(bytes(4) + b"\x83" + bytes(3) + struct.pack("<II", start, sectors))
        disk.seek(510)
        disk.write(b"\x55\xaa")
    run("mke2fs", "-q", "-t", "ext4", "-b", "4096", "-E", "nodiscard,offset=%d" % (start * 512), work + "/disk.img", str(sectors // 8))


def setUpModule():
    atexit.register(shutil.rmtree, work, True)
    make_disk()
    where = random.Random(1)
    noise = ["write -P %d %dk %dk" % (where.randrange(1, 256), 1024 + where.randrange(0, 16000), where.randrange(1, 300)) for _ in range(12)]
    with Daemon():
        tool("init", repository)
        write(*noise[:4])
        back_up()
        write(*noise[4:8])
        back_up()
        write(*noise[8:], "write -z 8M 1M")
        back_up()
        tool("ledger")
        tool("devices")
        tool("status", "--to", repository)
        with open(work + "/jobs.toml", "w") as jobs:
            jobs.write('[job.one]\ndevices = ["sda1"]\ntarget = "%s/folders"\nlimit-rate = "1G"\n'
                       '[job.two]\ndevices = ["sda1"]\ntarget = "%s"\nhost = "tern"\nkeep = {last = 9}\n' % (work, repository))
        os.mkdir(work + "/folders")
        tool("run", "one", "--config", work + "/jobs.toml")
        tool("run", "--list", "--config", work + "/jobs.toml")
    with Daemon():  # which knows nothing of what was written before: all is compared
        write(noise[0])
        back_up()
        back_up("--mode", "full", "--compress")
        tool("run", "two", "--config", work + "/jobs.toml")
    tool("init", work + "/imported")
    tool("import", work + "/folders", work + "/imported")
    for command in "list", "verify", "show":
        tool(command, "--from", repository)
    ids = sorted(contents)
    tool("diff", "--from", repository, "--ranges", ids[0], ids[2])
    tool("prune", "--from", repository, "--keep-daily", "1", "--dry-run")
    tool("report", "--from", repository, "--keep-last", "1", "--html", work + "/page.html")


def manifest(name):
    return json.loads(pathlib.Path(folder, name + ".json").read_text())


def xxh3(data):
    """XXH3-128 as the page writes it."""
    library = ctypes.CDLL("libxxhash.so.0")

    class Hash(ctypes.Structure):
        _fields_ = [("low", ctypes.c_uint64), ("high", ctypes.c_uint64)]

    library.XXH3_128bits.restype = Hash
    library.XXH3_128bits.argtypes = [ctypes.c_char_p, ctypes.c_size_t]
    value = library.XXH3_128bits(data, len(data))
    return "%016x%016x" % (value.high, value.low)


def records(name):
    """Of the file of sums, by the table in the page."""
    rows = [re.match(r"\.It Va (\w+) Ta (\d+) Ta (\d+)", line) for line in page.section("BACKUPS", "The sums")]
    columns = [(row[1], int(row[2]), int(row[3])) for row in rows if row]
    data = pathlib.Path(folder, name + ".sums").read_bytes()
    for at in range(0, len(data), 32):
        raw = {field: data[at + begin:at + begin + size] for field, begin, size in columns}
        yield {field: value.hex() if field == "hash" else int.from_bytes(value, "little") for field, value in raw.items()}


class RepositoryPage(unittest.TestCase):
    def test_a_manifest_has_the_fields_of_the_page(self):
        told = fields(page.section("BACKUPS", "The manifest"))
        found = {}
        for name in contents:
            found.update(dict(flat(manifest(name))))
        self.assertEqual(set(found), set(told))
        for field, value in found.items():
            kind = str if told[field].startswith("text") else bool if told[field].startswith("truth") else (int, float) if field == "seconds" else int
            self.assertIsInstance(value, kind, field)

    def test_the_other_files_have_the_fields_of_the_page(self):
        for file in "repository.json", "host.json", "device.json":
            (path,) = glob.glob(repository + "/**/" + file, recursive=True)
            document = json.loads(pathlib.Path(path).read_text())
            self.assertEqual(set(document), set(fields(page.section("FOLDERS AND FILES", file))), file)
            for mark in document.get("identity", {}):
                self.assertIn(".Li " + mark, "\n".join(page.section("FOLDERS AND FILES", file)))

    def test_hashes_and_marks_are_what_the_page_says(self):
        for name in contents:
            m = manifest(name)
            sums = pathlib.Path(folder, name + ".sums").read_bytes()
            self.assertEqual(m["sumsHash"], xxh3(sums))
            rest = {field: value for field, value in m.items() if field != "manifestHash"}
            self.assertEqual(m["manifestHash"], xxh3(json.dumps(rest, sort_keys=True, indent=2, ensure_ascii=False).encode()))
            if m["mode"] == "inc":
                below = manifest(m["parent"]["id"])
                self.assertEqual(m["parent"]["mark"], xxh3(" ".join(below[field] for field in ("id", "time", "trackingKey")).encode()))

    def test_sums_tell_what_a_backup_holds(self):
        for name, disk in contents.items():
            m = manifest(name)
            end = data = everything = 0
            for piece in records(name):
                at, length = piece["offset"], piece["length"]
                self.assertGreaterEqual(at, end)
                end = at + length
                self.assertEqual(at % 4096, 0)
                self.assertTrue(end % 4096 == 0 or end == m["blocks"] * m["blockSize"])
                if piece["kind"] == 1:
                    self.assertEqual(at >> 17, (end - 1) >> 17)
                    self.assertEqual(piece["hash"], xxh3(disk[at:end]))
                    data += length
                else:
                    self.assertEqual(piece["kind"], 2)
                    self.assertEqual(piece["hash"], "0" * 32)
                    self.assertEqual(disk[at:end], bytes(length))
                everything += length
            self.assertEqual(data, m["dataBytes"])
            self.assertEqual(everything, m["copiedBlocks"] * m["blockSize"])
            self.assertTrue(m["mode"] == "inc" or m["copiedBlocks"] == m["blocks"])

    def test_recipes_of_the_page_give_what_restore_gives(self):
        self.assertGreaterEqual(len(contents), 3)
        convert = page.recipe("convert")
        pathlib.Path(work, "chain.py").write_text(page.recipe("chain"))
        for name, disk in contents.items():
            to = work + "/recipe.raw"
            text = convert
            for shown, real in ("/mnt/backups/disks/tern/sda1", folder), ("000003-20261121T131641Z", name), ("/tmp/disk.img", to):
                self.assertIn(shown, text)
                text = text.replace(shown, real)
            for command in ["sh", "-ec", text], [sys.executable, work + "/chain.py", folder, name, to]:
                run(*command)
                self.assertTrue(pathlib.Path(to).read_bytes() == disk, command)
                os.remove(to)

    def test_serving_ends_with_success_at_a_signal(self):
        with subprocess.Popen([*tied, qbackup, "--json", "serve", "--from", repository, "--socket", work + "/nbd"], stdout=subprocess.PIPE) as server:
            printed["serve"] = [json.loads(server.stdout.readline())]
            server.send_signal(signal.SIGTERM)
            self.assertEqual(server.wait(30), 0)

    def test_what_is_printed_as_json_is_in_the_pages(self):
        names = "".join(pathlib.Path(path).read_text() for path in glob.glob(sources + "/tools/qbackup/**/*.cpp", recursive=True))
        common = fields(Page(sources + "/docs/qbackup.1").section("JSON OUTPUT"))
        told = {}
        for path in glob.glob(sources + "/docs/qbackup-*.1"):
            one = Page(path)
            if ".Sh JSON OUTPUT" in one.lines:
                told[os.path.basename(path)[8:-2]] = one.section("JSON OUTPUT")
        for command, lines in told.items():
            with self.subTest(command=command):
                # Where a page says so, those of others, too.
                also = re.findall(r"^\.Xr qbackup-(backup|prune|list) 1", "\n".join(lines), re.M)
                also += ["list"] if "backup" in also else []
                known = set().union(*(fields(told[other]) for other in [command, *also]))
                for field in fields(lines):
                    self.assertIn('"%s"' % re.split(r"[.]", field.replace("[]", ""))[-1], names)
                if command in ("mount", "umount"):
                    continue  # for root alone, on a host with loop devices
                self.assertIn(command, printed)
                for field in {field for document in printed[command] for field, _ in flat(document)} - {"ok"}:
                    self.assertTrue(is_told(field, known), field)
        self.assertEqual(set(printed) - set(told), set())
        self.assertIn("ok", common)


unittest.main(argv=sys.argv[:1], verbosity=2)
