#!/usr/bin/env python3
"""Every function that the library takes from elsewhere is either one that the sweep lets fail, or listed with the reason
why it cannot fail. What starts with an underscore belongs to the compiler, its runtime and the sanitizers."""
import argparse
import subprocess
import sys


def functions_of(nm, library):
    lines = subprocess.run([nm, "-D", "--undefined-only", library], check=True, capture_output=True, text=True).stdout
    names = {line.split()[-1].split("@")[0] for line in lines.splitlines() if line.split()}
    return {name for name in names if not name.startswith("_")}


def listed_in(path):
    with open(path, encoding="utf-8") as file:
        lines = [line.strip() for line in file]
    return {line.split()[0]: line.split()[1:] for line in lines if line and not line.startswith("#")}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--nm", required=True)
    parser.add_argument("--library", required=True)
    parser.add_argument("--others", required=True)
    parser.add_argument("--wrapped", nargs="+", required=True)
    arguments = parser.parse_args()

    called = functions_of(arguments.nm, arguments.library)
    others = listed_in(arguments.others)
    wrapped = set(arguments.wrapped)
    faults = [f"{name}: the library calls it and the sweep does not know it" for name in called - wrapped - set(others)]
    faults += [f"{name}: without a reason" for name, reason in others.items() if not reason]
    if len(called & wrapped) < 50:
        faults.append("so few calls are known: this test shows nothing")
    for fault in sorted(faults):
        print(fault)
    print(f"{len(called)} functions, {len(called & wrapped)} of them under the sweep")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
