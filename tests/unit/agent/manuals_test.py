#!/usr/bin/env python3
"""Manual pages, completion and the help of the agent's programs say the same, and the pages are well-formed.

Usage: manuals_test.py BUILD-FOLDER SOURCE-FOLDER. The form is checked by mandoc and man where they are installed.
"""
import os
import re
import shutil
import subprocess
import sys
import unittest

SOURCE = os.path.abspath(sys.argv.pop())
BUILD = os.path.abspath(sys.argv.pop())
DOC = f"{SOURCE}/agent/doc"
PAGES = {f"{BUILD}/agent/ctl/krsdnctl": f"{DOC}/krsdnctl.1", f"{BUILD}/agent/krsdn-ofagentd": f"{DOC}/krsdn-ofagentd.8"}


def said(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False).stdout


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def options_of_help(program):
    return set(re.findall(r"(?m)^ +(?:-\w, )?--([a-z-]+)\b", said(program, "--help")))


class Manuals(unittest.TestCase):
    def test_every_option_is_in_the_page_and_no_other(self):
        for program, page in PAGES.items():
            options = options_of_help(program)
            self.assertGreater(len(options), 6)
            self.assertEqual(set(re.findall(r"Fl -([a-z-]+)", read(page))), options)

    def test_every_command_is_in_the_page(self):
        program = f"{BUILD}/agent/ctl/krsdnctl"
        commands = set(re.findall(r"(?m)^  ([a-z]+) ", said(program, "--help").split("Options:")[0]))
        self.assertEqual(len(commands), 11)
        self.assertEqual(set(re.findall(r"(?m)^\.It Cm ([a-z]+)", read(PAGES[program]))), commands)

    def test_completion_knows_commands_and_options(self):
        program = f"{BUILD}/agent/ctl/krsdnctl"
        commands = set(re.findall(r"(?m)^  ([a-z]+) ", said(program, "--help").split("Options:")[0]))
        sentence = said(program, "help", "trace").split("Fields:")[1].split(".")[0]
        fields = set(re.findall(r"[a-z_]+", sentence)) - {"name", "or", "number", "and"}
        self.assertEqual(len(fields), 22)
        for shell in ("bash", "zsh"):
            text = read(f"{DOC}/completion.{shell}")
            self.assertEqual(commands - set(re.findall(r"[a-z]+", text)), set(), shell)
            self.assertEqual(options_of_help(program) - set(re.findall(r"--([a-z]+)", text)), set(), shell)
            self.assertEqual(fields - set(re.findall(r"[a-z_]+", text)), set(), shell)

    def test_completion_for_bash_works(self):
        def completed(*words):
            script = f'. {DOC}/completion.bash; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _krsdnctl; printf "%s\\n" "${{COMPREPLY[@]}}"'
            return said("bash", "-c", script, "bash", "krsdnctl", *words).split()
        self.assertEqual(completed("tr"), ["trace"])
        self.assertEqual(completed("--json", "f"), ["flows"])
        self.assertEqual(completed("--a"), ["--agent", "--all"])
        self.assertEqual(completed("log", "FPT", "w"), ["warning"])
        self.assertEqual(completed("help", "au"), ["audit"])
        self.assertEqual(completed("trace", "in_port=1", "nw_d"), ["nw_dst="])
        self.assertEqual(completed("show", ""), [])

    def test_the_pages_are_well_formed(self):
        if shutil.which("mandoc") is None and shutil.which("man") is None:
            self.skipTest("neither mandoc nor man is installed")
        for page in PAGES.values():
            if shutil.which("mandoc"):
                self.assertEqual(said("mandoc", "-Tlint", "-Wwarning", page), "")
            if shutil.which("man") and os.path.exists("/usr/share/groff/current/tmac/mdoc.tmac"):
                self.assertEqual(said("sh", "-c", f"man --warnings -E UTF-8 -l -Tutf8 -Z {page} >/dev/null"), "")


if __name__ == "__main__":
    unittest.main()
