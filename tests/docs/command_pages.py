#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Holds the manual pages of qbackup's commands against what the program says of itself.

usage: command_pages.py QBACKUP CMAKE INSTALL-SCRIPT

INSTALL-SCRIPT is what CMake has made of docs/CMakeLists.txt: the pages are taken from where it installs them.
"""
import glob
import os
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
from manual import Page, tags

qbackup, cmake, install_script = sys.argv[1:4]


class Help:
    """What --help tells: options (name: whether it takes a value), positionals, subcommands."""

    def __init__(self, *command):
        text = subprocess.run([qbackup, *command, "--help"], check=True, text=True, stdout=subprocess.PIPE, timeout=30).stdout
        parts = dict(re.findall(r"^(Options|Positionals|Subcommands):\n((?:  .*\n)+)", text, re.M))
        self.options = {}
        for names, value in re.findall(r"^  (-\S+)(?: (\S+))?", parts["Options"], re.M):
            self.options.update({name: value != "" for name in names.split(",")})
        self.positionals = set(re.findall(r"^  (\w+)", parts.get("Positionals", ""), re.M))
        self.subcommands = re.findall(r"^  (\w+)", parts.get("Subcommands", ""), re.M)


def options_in(page):
    """As Help has them."""
    options = {}
    for _, parts in tags(page.section("OPTIONS")):
        for part in parts:
            found = re.match(r"Fl (\S+)( .*)?$", part)
            if found:
                options["-" + found[1]] = found[2] is not None
    return options


class CommandPages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.installed = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.installed.cleanup)
        subprocess.run([cmake, "-DCMAKE_INSTALL_PREFIX=" + cls.installed.name, "-P", install_script],
                       env=dict(os.environ, DESTDIR=""), check=True, stdout=subprocess.DEVNULL, timeout=60)
        found = glob.glob(cls.installed.name + "/**/man1/qbackup*.1", recursive=True)
        cls.pages = {os.path.basename(path)[:-2]: Page(path) for path in found}
        cls.program = Help()
        cls.commands = {name: Help(name) for name in cls.program.subcommands}

    def test_each_command_has_a_page_and_each_page_a_command(self):
        self.assertTrue(self.commands)
        self.assertEqual({"qbackup-" + name for name in self.commands}, set(self.pages) - {"qbackup"})

    def test_the_page_of_the_program_names_that_of_each_command(self):
        named = re.findall(r"Xr qbackup-(\w+) 1", "\n".join(self.pages["qbackup"].section("COMMANDS")))
        self.assertEqual(sorted(named), sorted(self.commands))

    def test_common_options_are_those_of_the_program(self):
        self.assertEqual(options_in(self.pages["qbackup"]), self.program.options)

    def test_options_of_each_page_are_those_of_its_command(self):
        for name, told in self.commands.items():
            with self.subTest(command=name):
                page = self.pages["qbackup-" + name]
                known = {option: value for option, value in told.options.items() if option not in ("-h", "--help")}
                self.assertEqual(options_in(page), known)
                synopsis = set(re.findall(r"\bFl (\S+)", "\n".join(page.section("SYNOPSIS"))))
                self.assertLessEqual({"-" + option for option in synopsis}, set(known))
                # What is there neither has a name of its own there.
                arguments = set(re.findall(r"\w+", "\n".join(re.findall(r"^\.Ar (.*)", "\n".join(page.section("SYNOPSIS")), re.M))))
                self.assertLessEqual(told.positionals, arguments)

    def test_options_that_are_mentioned_or_used_in_an_example_are_known(self):
        every = set(self.program.options).union(*(told.options for told in self.commands.values()))
        for name, page in self.pages.items():
            with self.subTest(page=name):
                mentioned = {"-" + option for option in re.findall(r"\bFl (\S+)", "\n".join(page.lines))}
                self.assertLessEqual(mentioned, every)
                for _, text in page.literals():
                    for line in text.split("\n"):
                        words = shlex.split(line)
                        if words[:1] == ["qbackup"]:
                            used = {word.split("=")[0] for word in words if word.startswith("-")}
                            self.assertIn(words[1], self.commands)
                            self.assertLessEqual(used, {*self.program.options, *self.commands[words[1]].options}, line)


unittest.main(argv=sys.argv[:1], verbosity=2)
