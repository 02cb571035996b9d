#!/usr/bin/env python3
"""Compares the library's interface with the baseline's.

  compare_abi.py library --baseline DIR --headers DIR --abidiff PROGRAM --library FILE
      abidiff over the exported functions and variables and all types that they reach. Any difference fails, an addition
      as well: the baseline is renewed on purpose, with tools/renew-abi.
  compare_abi.py headers --baseline DIR --headers DIR... --abidiff PROGRAM --cc COMPILER --work DIR
      Every type of the baseline's headers, also those that only plug-ins see, must be declared with the same layout by
      today's, and every constant must have the same value. Today's headers may declare more.
"""
import argparse
import pathlib
import re
import subprocess
import sys

HEADERS = ["kr_sdn_hal.h", "flow_record.h", "kr_host_ifc.h", "kr_status.h", "kr_connector.h", "kr_log.h"]
TYPE = re.compile(r"^\} (\w+);|^typedef [^;{]*?\(\*(\w+)\)\([^;]*;|^typedef (?!enum|struct|union)[\w ]+ (\w+);"
                  r"|^typedef enum \w+ \{[^}]*\} (\w+);", re.M)
ENUM = re.compile(r"\benum(?:\s+\[\[\w+\]\])?(?:\s+\w+)?(?:\s*:\s*\w+)?\s*\{(.*?)\}", re.S)
MACRO = re.compile(r"^#define (KR_\w+) +(?!_|__attribute__)[-(0-9\"].*$", re.M)


def run(command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)


def abidiff(program, old, new, *options):
    """0 when the two are the same; what abidiff says otherwise is shown."""
    done = run([program, "--exported-interfaces-only", *options, old, new])
    if done.returncode or done.stdout.strip():
        print(done.stdout.strip() or f"{program} ended with {done.returncode}")
        return 1
    return 0


def without_comments(text):
    return re.sub(r"/\*.*?\*/|//[^\n]*", " ", text, flags=re.S).replace("\\\n", " ")


def names_of(folder):
    """Types and constants that the baseline's headers declare."""
    types, constants = [], []
    for header in HEADERS:
        text = without_comments((folder / header).read_text(encoding="utf-8"))
        types += [next(filter(None, match)) for match in TYPE.findall(text)]
        for body in ENUM.findall(re.sub(r"^#.*$", "", text, flags=re.M)):
            constants += [part.split("=")[0].split()[-1] for part in body.split(",") if part.strip()]
        constants += MACRO.findall(text)
    return sorted(set(types)), sorted(set(constants))


def build(arguments, name, includes, types, constants):
    """A library with a variable of each type, and what a program prints of the constants; None when one is missing."""
    work = pathlib.Path(arguments.work)
    work.mkdir(parents=True, exist_ok=True)
    head = "#include <stdio.h>\n" + "".join(f'#include "{header}"\n' for header in HEADERS)
    (work / "surface.c").write_text(head + "".join(f"{t} *surface_{t};\n" for t in types))
    (work / "constants.c").write_text(head + "int main(void) {\n" + "".join(
        f'    printf("{c} %lld\\n", (long long)({c}));\n' for c in constants) + "    return 0;\n}\n")
    flags = ["-std=c11", "-w", *(f"-I{folder}" for folder in includes)]
    for command in ([arguments.cc, *flags, "-g", "-O0", "-fPIC", "-shared", "-o", work / f"{name}.so", work / "surface.c"],
                    [arguments.cc, *flags, "-o", work / name, work / "constants.c"]):
        done = run(command)
        if done.returncode:
            print(f"what the baseline declares does not compile with the {name} headers:\n{done.stdout}")
            return None
    return run([work / name]).stdout.splitlines()


def compare_headers(arguments):
    baseline = pathlib.Path(arguments.baseline) / "include"
    types, constants = names_of(baseline)
    if len(types) < 15 or len(constants) < 60:
        print(f"only {len(types)} types and {len(constants)} constants found: the headers are not read aright")
        return 1
    old = build(arguments, "old", [baseline], types, constants)
    new = build(arguments, "new", arguments.headers, types, constants)
    if old is None or new is None:
        return 1
    bad = 0
    for before, now in zip(old, new, strict=True):
        if before != now:
            print(f"a constant was {before}, is {now}")
            bad = 1
    work = pathlib.Path(arguments.work)
    bad |= abidiff(arguments.abidiff, work / "old.so", work / "new.so")
    print(f"{len(types)} types, {len(constants)} constants")
    return bad


def compare_library(arguments):
    baseline = pathlib.Path(arguments.baseline)
    return abidiff(arguments.abidiff, baseline / "libkrsdnhal.abi", arguments.library, "--headers-dir2",
                   arguments.headers[0], "--drop-private-types")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=["library", "headers"])
    for option in ("--baseline", "--abidiff", "--library", "--cc", "--work"):
        parser.add_argument(option)
    parser.add_argument("--headers", nargs="+")
    arguments = parser.parse_args()
    return {"library": compare_library, "headers": compare_headers}[arguments.what](arguments)


if __name__ == "__main__":
    sys.exit(main())
