#!/usr/bin/env python3
"""Compares the shared library with what it promises.

Its dynamic symbols are exactly those of symbols.txt, unversioned; its soname is fixed; every function of the platform
that it calls stays undefined in it and is defined by the platform's library, and it calls nothing else but the
language's and the system's libraries. The C client of the public header refers to every function of the list.
"""
import argparse
import pathlib
import re
import subprocess
import sys

FUNCTION_COUNT, DATA_COUNT = 44, 13
SONAME = "libkrsdnhal.so.1"
PLATFORM_SONAME = "libkrplatform.so.1"
PLATFORM_NAME = re.compile(r"(kr_(api|lib|acl_rm|log|status)|cl|psort)(_\w+)?$")
HIDDEN_DATA = "kr_HAL_TABLES_API_verb_level"  # exported by nobody, kept for debuggers

problems = []


def expect(condition, text):
    if not condition:
        problems.append(text)


def nm(arguments, *options):
    """(name, type letter) of each symbol that nm prints."""
    lines = subprocess.run([arguments.nm, *options], check=True, capture_output=True, text=True).stdout.splitlines()
    fields = [line.split() for line in lines]
    return [(f[-1], f[-2]) for f in fields if len(f) >= 2]


def read_expected(path):
    lines = path.read_text(encoding="utf-8").splitlines()
    expected = dict(line.split() for line in lines if line)
    expect(len(expected) == len(lines), "symbols.txt names a symbol twice or has an empty line")
    for kind, count in (("function", FUNCTION_COUNT), ("data", DATA_COUNT)):
        found = sum(1 for value in expected.values() if value == kind)
        expect(found == count, f"symbols.txt has {found} of kind {kind}, not {count}")
    return expected


def check_exports(arguments, expected):
    kinds = {"T": "function", "B": "data", "D": "data", "R": "data"}
    exported = {name: kinds.get(letter, letter) for name, letter in nm(arguments, "-D", "--defined-only", arguments.library)}
    for name in sorted(exported.keys() | expected.keys()):
        expect(exported.get(name) == expected.get(name),
               f"{name}: exported as {exported.get(name)}, should be {expected.get(name)}")


def check_dynamic_section(arguments):
    text = subprocess.run([arguments.readelf, "-dW", arguments.library], check=True, capture_output=True, text=True).stdout
    soname = re.findall(r"\(SONAME\).*\[(.*)\]", text)
    expect(soname == [SONAME], f"soname is {soname}")
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", text)
    expect(PLATFORM_SONAME in needed, f"{PLATFORM_SONAME} is not among {needed}")
    strangers = [n for n in needed if n != PLATFORM_SONAME
                 and not re.match(r"(ld-linux.*|lib(stdc\+\+|gcc_s|c|m|asan|ubsan|tsan))\.so\.\d+$", n)]
    expect(not strangers, f"needs {strangers}")


def check_platform(arguments):
    undefined = {name for name, _ in nm(arguments, "-D", "--undefined-only", arguments.library) if PLATFORM_NAME.match(name)}
    offered = {name for name, _ in nm(arguments, "-D", "--defined-only", arguments.platform)}
    declared = "\n".join(h.read_text(encoding="utf-8") for h in sorted(arguments.platform_headers.glob("*.h")))
    expect(len(undefined) > 40, f"only {len(undefined)} symbols of the platform are undefined")
    for name in sorted(undefined):
        expect(name in offered, f"{name} is not defined by {PLATFORM_SONAME}")
        expect(re.search(rf"\b{name}\b", declared), f"{name} is in no contract header")
    # Inline helpers aside nothing of the platform lives in the library: they are lower-case locals there.
    everything = dict(nm(arguments, arguments.library))
    for name in sorted(offered & everything.keys()):
        expect(everything[name] in "Uu", f"{name} of the platform is defined in the library")
    expect(everything.get(HIDDEN_DATA) in ("d", "b"), f"{HIDDEN_DATA} is {everything.get(HIDDEN_DATA)} in the symbol table")


def check_client(arguments, expected):
    used = {name for name, _ in nm(arguments, "--undefined-only", arguments.client)}
    for name, kind in sorted(expected.items()):
        expect(kind != "function" or name in used, f"client.c does not call {name}")


def main():
    parser = argparse.ArgumentParser()
    for name in ("nm", "readelf", "library", "platform", "client"):
        parser.add_argument("--" + name, required=True)
    parser.add_argument("--symbols", required=True, type=pathlib.Path)
    parser.add_argument("--platform-headers", required=True, type=pathlib.Path)
    arguments = parser.parse_args()
    expected = read_expected(arguments.symbols)
    check_exports(arguments, expected)
    check_dynamic_section(arguments)
    check_platform(arguments)
    check_client(arguments, expected)
    print("\n".join(problems) if problems else f"{len(expected)} symbols, as they should be")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
