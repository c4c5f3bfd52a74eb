#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Rewrites sample.cpp: nothing changes unless a change is chosen, and each of them changes something.

checkrewrite.py CXX WORK
Exits 77, with the reason, where clang's Python bindings are missing.
"""
import os
import pathlib
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
try:
    import rewrite
except ImportError as error:
    print(f"skipped: {error}")
    sys.exit(77)

KINDS = {"constant", "comparison", "step", "lock", "statement"}


def build(compiler, source, program):
    subprocess.run([compiler, "-std=c++17", "-w", "-O1", "-o", program, source], check=True)


def result(program, number=None):
    environment = dict(os.environ)
    if number is not None:
        environment["CORE_MANAGE_MUTANT"] = str(number)
    limit = None if number is None else 10  # unchanged it ends; a busy machine may start it late
    try:
        done = subprocess.run([program], env=environment, capture_output=True, timeout=limit)
    except subprocess.TimeoutExpired:
        return "hangs"
    return done.returncode, done.stdout


def main():
    compiler, work = sys.argv[1], pathlib.Path(sys.argv[2])
    work.mkdir(parents=True, exist_ok=True)
    sample = HERE / "sample.cpp"
    command = {"file": str(sample), "command": "c++ -std=c++17"}
    sites = rewrite.find(HERE, ("sample.cpp",), [command])
    changed = work / "changed.cpp"
    changed.write_text(rewrite.rewrite(sample.read_text(), sites, str(HERE / "mutant.h")))
    build(compiler, sample, work / "plain")
    build(compiler, changed, work / "changed")

    expected = result(work / "plain")
    if result(work / "changed") != expected:
        sys.exit("the rewritten program differs, though no change is chosen")
    if {site.kind for site in sites} != KINDS:
        sys.exit(f"only these kinds were found: {sorted({site.kind for site in sites})}")
    missed = [site for site in sites if result(work / "changed", site.number) == expected]
    for site in missed:
        print(f"nothing changes: {site.line}: {site.kind}, {site.change}: {site.text}")
    print(f"{len(sites)} changes")
    sys.exit(1 if missed else 0)


if __name__ == "__main__":
    main()
