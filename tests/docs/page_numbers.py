#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Holds the numbers in the tables of a manual page against a header, by having a compiler judge each of them.

usage: page_numbers.py PAGE HEADER COMPILER [COMPILER-ARGUMENT...]

PAGE is mdoc source. Its tables (.Bl -column) say one of two things:
  - a record: after ".Vt NAME ," and "N bytes", rows of a field, its offset and its size;
  - numbers: rows of a name and its number, for a constant of HEADER.
Every record of HEADER has to be in the page with all its fields, and every number: commands of quendrel.h, and its
states and results in the lists of their sections; constants and kinds of messages of socket_protocol.h.

Exit status: 0 in step; 1 not, and the differences printed; 2 bad arguments.
"""
import re
import subprocess
import sys


class Page:
    def __init__(self, text):
        self.records = {}  # name: (bytes, [(field, offset, size)])
        self.numbers = {}  # name: number
        self.arguments = {}  # command: its record
        self.lists = {}  # section: numbers that its list is of
        section, record, in_table = "", None, False
        lines = text.split("\n")
        for at, line in enumerate(lines):
            if line.startswith(".Sh "):
                section = line[4:]
            elif line.startswith(".Bl -column"):
                in_table = True
                # The nearest record named before it.
                before = "\n".join(lines[max(0, at - 5):at])
                found = re.findall(r"^\.Vt (\w+) ,\n(\d+) bytes", before, re.M)
                record = None
                if found:
                    record = found[-1][0]
                    self.records[record] = (int(found[-1][1]), [])
            elif line.startswith(".El"):
                in_table = False
            elif in_table and line.startswith(".It "):
                cells = [re.sub(r"^(Va|Dv|Vt) ", "", cell.strip()) for cell in line[4:].split(" Ta ")]
                if cells[0].startswith("Sy "):
                    continue
                if record:
                    self.records[record][1].append((cells[0], int(cells[1]), int(cells[2])))
                else:
                    self.numbers[cells[0]] = int(cells[1], 0)
                    self.arguments[cells[0]] = cells[2] if len(cells) > 2 else ""
            elif re.fullmatch(r"\.It \d+", line):
                self.lists.setdefault(section, set()).add(int(line[4:]))


def c_source(page, header, complain):
    """Assertions in C about quendrel.h."""
    text = open(header).read()
    lines = ['#include "%s"' % header]

    def claim(condition, saying):
        lines.append('_Static_assert(%s, "%s");' % (condition, saying))

    commands = set(re.findall(r"^#define (QUENDREL_\w+) QUENDREL_COMMAND\(", text, re.M))
    if commands != set(page.numbers):
        complain("commands of the page and of the header differ: %s" % sorted(commands ^ set(page.numbers)))
    for name in sorted(commands & set(page.numbers)):
        claim("%s == %du" % (name, page.numbers[name]), "%s is not 0x%08x" % (name, page.numbers[name]))
        record = page.arguments[name]
        if record in page.records:
            claim("sizeof(struct _%s) == (%s >> 16 & 0x3fff)" % (record, name), "%s takes no %s" % (name, record))
        elif record not in ("none", "one word"):
            complain("%s: no record %s is described" % (name, record))
    records = set(re.findall(r"^} (\w+);", text, re.M))
    if records != set(page.records):
        complain("records of the page and of the header differ: %s" % sorted(records ^ set(page.records)))
    for name in sorted(records & set(page.records)):
        claim_record(page, name, "struct _" + name, claim, complain)
    for section, enum in ("RESULTS", "quendrel_result"), ("STATES", "quendrel_state"):
        body = re.search(r"enum %s \{(.*?)\n\};" % enum, text, re.S).group(1)
        named = {int(number) for number in re.findall(r"^    QUENDREL_\w+ = (\d+)", body, re.M)}
        if section == "RESULTS":
            named.discard(0)
        if named != page.lists.get(section):
            complain("%s of the page and of the header differ: %s" % (section, sorted(named ^ page.lists.get(section, set()))))
    return lines


def cpp_source(page, header, complain):
    """Assertions in C++ about socket_protocol.h."""
    text = open(header).read()
    lines = ['#include "%s"' % header, "#include <cstddef>", "using namespace quendrel::wire;"]

    def claim(condition, saying):
        lines.append('static_assert(%s, "%s");' % (condition, saying))

    kinds = re.findall(r"(\w+) = \d+", re.search(r"enum class Kind [^{]*\{(.*?)\}", text, re.S).group(1))
    constants = re.findall(r"^constexpr std::uint32_t (\w+)", text, re.M)
    if set(kinds + constants) != set(page.numbers):
        complain("constants of the page and of the header differ: %s" % sorted(set(kinds + constants) ^ set(page.numbers)))
    for name, number in page.numbers.items():
        value = "unsigned(Kind::%s)" % name if name in kinds else name
        claim("%s == %du" % (value, number), "%s is not %d" % (name, number))
    records = set(re.findall(r"^struct (\w+) \{", text, re.M))
    if records != set(page.records):
        complain("messages of the page and of the header differ: %s" % sorted(records ^ set(page.records)))
    for name in sorted(records & set(page.records)):
        claim_record(page, name, name, claim, complain)
    return lines


def claim_record(page, name, c_type, claim, complain):
    size, fields = page.records[name]
    claim("sizeof(%s) == %d" % (c_type, size), "%s has not %d bytes" % (name, size))
    end = 0
    for field, offset, field_size in fields:
        member = "((%s*)0)->%s" % (c_type, field)
        claim("__builtin_offsetof(%s, %s) == %d" % (c_type, field, offset), "%s.%s is not at %d" % (name, field, offset))
        claim("sizeof(%s) == %d" % (member, field_size), "%s.%s has not %d bytes" % (name, field, field_size))
        if offset != end:
            complain("%s: nothing is said of the bytes before %s, at %d" % (name, field, end))
        end = offset + field_size
    if end != size:
        complain("%s: nothing is said of the bytes from %d on" % (name, end))


def main():
    if len(sys.argv) < 4:
        print(__doc__, file=sys.stderr)
        return 2
    page_path, header, compiler = sys.argv[1], sys.argv[2], sys.argv[3:]
    complaints = []
    page = Page(open(page_path).read())
    is_cpp = "namespace" in open(header).read()
    lines = (cpp_source if is_cpp else c_source)(page, header, complaints.append)
    judged = subprocess.run(compiler + ["-fsyntax-only", "-x", "c++" if is_cpp else "c", "-"], input="\n".join(lines) + "\n",
                            text=True, capture_output=True)
    complaints += re.findall(r'error: (.*)', judged.stderr)
    if judged.returncode != 0 and not complaints:
        complaints.append(judged.stderr)
    for complaint in complaints:
        print("%s: %s" % (page_path, complaint))
    if not complaints:
        print("%d records, %d fields and %d numbers are as in %s" %
              (len(page.records), sum(len(fields) for _, fields in page.records.values()), len(page.numbers), header))
    return 1 if complaints else 0


sys.exit(main())
