# SPDX-License-Identifier: GPL-2.0-only
"""Manual pages in mdoc, as far as tests look into them."""
import pathlib
import re


class Page:
    def __init__(self, path):
        self.path = path
        self.lines = pathlib.Path(path).read_text(encoding="utf-8").split("\n")

    def section(self, *names):
        """The lines of a section, or of a subsection in it."""
        lines = self.lines
        for macro, name in zip((".Sh ", ".Ss "), names):
            if macro + name not in lines:
                raise KeyError("%s has no section %s" % (self.path, name))
            begin = lines.index(macro + name) + 1
            end = next((at for at in range(begin, len(lines)) if re.match(r"\.S[h%s] " % macro[2], lines[at])), len(lines))
            lines = lines[begin:end]
        return lines

    def literals(self):
        """The text of each literal block, as it is shown, by the line before it."""
        blocks, begin = [], None
        for at, line in enumerate(self.lines):
            if line.startswith(".Bd -literal"):
                begin = at
            elif line == ".Ed" and begin is not None:
                text = "\n".join(self.lines[begin + 1:at]).replace(r"\e", "\\") + "\n"
                blocks.append((self.lines[begin - 1], text))
                begin = None
        return blocks

    def recipe(self, name):
        """The literal block that is marked so."""
        return dict(self.literals())['.\\" recipe: ' + name]


def tags(lines):
    """What a list's items begin with: (text after .It, the parts of it between commas)."""
    for line in lines:
        if line.startswith(".It "):
            yield line[4:], line[4:].split(" , ")


def fields(lines):
    """Fields of JSON objects in lists, as "device.name" or "entries[].time": what stands behind each in parentheses."""
    found = {}
    for text, _ in tags(lines):
        if text.startswith("Va "):
            names, _, kind = text[3:].partition(" Pq ")
            found.update({name: kind for name in names.split(" , ")})
    return found


def flat(value, name=""):
    """The same of an object: its fields, each with a value."""
    if isinstance(value, dict):
        for key, inner in value.items():
            yield from flat(inner, name + "." + key if name else key)
    elif isinstance(value, list):
        for inner in value:
            yield from flat(inner, name + "[]" if isinstance(inner, (dict, list)) else name)
    else:
        yield name, value


def is_told(field, told):
    """Whether a page tells of a field: by its name, or by that of what it is in, when it tells no more of that."""
    if field in told:
        return True
    above = re.sub(r"(\[\]|\.[^.\[]*)$", "", field)
    return above != field and not any(other != above and re.match(re.escape(above) + r"[.\[]", other) and other != above + "[]"
                                      for other in told) and is_told(above, told)
