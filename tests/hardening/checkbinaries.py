#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Looks at every installed binary: how it is hardened, what it needs, and what it exports.

checkbinaries.py SOURCE PREFIX [BUILD]

BUILD is installed into PREFIX first, and its compile commands are looked at: a binary does not tell
whether it was fortified where it calls nothing that could be. Without BUILD, PREFIX is looked at as
it is, for instance an unpacked package. READELF and NM name other programs than these.
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

RUN_TIME = re.compile(r"(libc|libm|libdl|libpthread|libstdc\+\+|libgcc_s|ld-[^.]*)\.so")
# Not vsnprintf: std::to_string calls it through a pointer.
UNCHECKED = {"printf", "fprintf", "vfprintf", "sprintf", "snprintf", "vsprintf", "gets"}
EMULATING = "libexec/core_manage/coremanage"

complaints = []


def require(condition, complaint):
    if not condition:
        complaints.append(complaint)


def read(program, *arguments):
    return subprocess.run([os.environ.get(program.upper(), program), *map(str, arguments)],
                          check=True, capture_output=True, text=True).stdout


def plain(library):
    """libQt5Core.so.5 is libQtCore."""
    return re.sub(r"^libQt[56]", "libQt", library.split(".so")[0])


def expected_needs(path):
    lines = [line for line in path.read_text().splitlines() if line and not line.startswith("#")]
    return {name: set(needs.split()) for name, needs in (line.split(":") for line in lines)}


def look_at(name, file, needs):
    dynamic = read("readelf", "-dW", file)
    segments = read("readelf", "-lW", file)
    require("GNU_RELRO" in segments, f"{name}: no RELRO")
    require(re.search(r"FLAGS\).*BIND_NOW|FLAGS_1\).*NOW", dynamic), f"{name}: no bind-now")
    stack = re.search(r"GNU_STACK +(?:0x\w+ +){5}(\S+) ", segments)
    require(stack and stack[1] == "RW", f"{name}: the stack is executable")
    require("TEXTREL" not in dynamic, f"{name}: its code is written to at its start")
    require(re.search(r"Type: +DYN|file type is DYN", read("readelf", "-hlW", file)),
            f"{name}: its place in memory is fixed")
    paths = re.findall(r"(?:RPATH|RUNPATH).*\[(.*)\]", dynamic)
    require(all(path.startswith("$ORIGIN/") for path in paths), f"{name}: looks in {paths}")

    called = {line.split()[-1].split("@")[0] for line in read("nm", "-Du", file).splitlines()}
    require("__stack_chk_fail" in called, f"{name}: no stack protector")
    require(not called & UNCHECKED, f"{name}: calls {sorted(called & UNCHECKED)}, not fortified")

    needed = re.findall(r"NEEDED.*\[(.*)\]", dynamic)
    found = {plain(library) for library in needed if not RUN_TIME.match(library)}
    require(found == needs, f"{name}: needs {sorted(found)}, not {sorted(needs)}")


def look_at_exports(name, file, symbols):
    bits = re.search(r"Class: +ELF(\d+)", read("readelf", "-h", file))[1]
    listed = {name for tags, name in re.findall(r'\(([^)]*)\)"(.*)@Base"', symbols.read_text())
              if "arch-bits" not in tags or f"arch-bits={bits}" in tags}
    exported = {line.split(" ", 2)[2].split("@")[0]
                for line in read("nm", "-DC", "--defined-only", file).splitlines()}
    for symbol in sorted(exported - listed):
        complaints.append(f"{name} exports {symbol}, which {symbols.name} does not list")
    for symbol in sorted(listed - exported):
        complaints.append(f"{name} does not export {symbol} of {symbols.name}")


def look_at_compilation(commands, source):
    own = [entry for entry in commands
           if pathlib.Path(entry["file"]).is_relative_to(source)
           and pathlib.Path(entry["file"]).relative_to(source).parts[0]
           in ("core", "transports", "osd", "factory", "host", "capture", "tools")]
    require(own, "no compile command")
    for entry in own:
        words = entry["command"].split()
        fortified = [word for word in words if "_FORTIFY_SOURCE" in word]
        require(fortified and re.search(r"-D_FORTIFY_SOURCE=[23]$", fortified[-1]),
                f"{entry['file']}: not fortified")
        require("-fstack-protector-strong" in words and "-fno-stack-protector" not in words,
                f"{entry['file']}: compiled without the stack protector")


def main():
    source, prefix = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
    if len(sys.argv) > 3:
        build = pathlib.Path(sys.argv[3])
        shutil.rmtree(prefix, ignore_errors=True)
        subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True,
                       stdout=subprocess.DEVNULL)
        look_at_compilation(json.loads((build / "compile_commands.json").read_text()), source)

    needs = expected_needs(source / "tests/hardening/binaries.txt")
    packages = {re.search(r"lib\S+\.so", file.read_text())[0]: file
                for file in (source / "debian").glob("*.symbols")}
    seen = set()
    for file in sorted(prefix.rglob("*")):
        if file.is_symlink() or not file.is_file() or file.open("rb").read(4) != b"\x7fELF":
            continue
        name = file.name.split(".so")[0] + ".so" if ".so" in file.name else \
            str(file.relative_to(prefix))
        require(name in needs, f"{name}: a binary that is not listed")
        look_at(name, file, needs.get(name, set()))
        if ".so" in name:
            look_at_exports(name, file, packages[name])
        seen.add(name)
    for name in sorted(needs.keys() - seen - {EMULATING}):
        complaints.append(f"{name} is not installed")
    if complaints:
        sys.exit("\n".join(complaints))
    print(f"{len(seen)} binaries: {', '.join(sorted(seen))}")


main()
