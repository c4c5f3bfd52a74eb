#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The manual page and the completions have every option that the tool's own help shows, and nothing
else.

checkpages.py COREMANAGE DIRECTORY
"""
import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import sys
import time

PATIENCE_SECONDS = 60
tool, pages = sys.argv[1], pathlib.Path(sys.argv[2])
faults = []


def require(condition, complaint):
    if not condition:
        faults.append(complaint)


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def options(text):
    return set(re.findall(r"(?<![\w-])--?[a-z][\w-]*", text))


def listed(help_text):
    """The options in front of their descriptions."""
    return set().union(*(options(line.split("  ")[1]) for line in help_text.splitlines()
                         if line.startswith("  -")))


def bash(*words):
    script = (f"source {pages}/coremanage.bash; COMP_WORDS=(coremanage \"$@\"); "
              "COMP_CWORD=$#; _coremanage; printf '%s\\n' \"${COMPREPLY[@]}\"")
    return set(output("bash", "-c", script, "bash", *words).split())


def zsh(lines):
    """What an interactive zsh shows after each line and a tabulator, or nothing where there is no zsh."""
    if not shutil.which("zsh"):
        print("zsh is not installed: its completion was not tried")
        return []
    process, terminal = pty.fork()
    if process == 0:
        os.execlp("env", "env", "-i", f"PATH={os.environ['PATH']}", "TERM=dumb", "zsh", "-f", "-i")
    setup = (f"unsetopt zle_bracketed_paste; PS1=; LISTMAX=1000; fpath=({pages} $fpath); "
             "autoload -Uz compinit; compinit -u -D; COLUMNS=200; LINES=100; print -r -- rea''dy\n")
    os.write(terminal, setup.encode())
    require("\nready" in until(terminal, "\nready"), "zsh does not start")
    shown = []
    for line in lines:
        os.write(terminal, line.encode() + b"\t")
        text = until(terminal, "--help" if line.endswith("-") else "decode")
        os.write(terminal, b"\x15print -r -- do''ne\n")
        shown.append(text + until(terminal, "\ndone"))
    os.close(terminal)
    os.waitpid(process, 0)
    return shown


def until(terminal, expected):
    seen = ""
    end = time.monotonic() + PATIENCE_SECONDS
    while expected not in seen and time.monotonic() < end:
        if select.select([terminal], [], [], 1)[0]:
            seen += os.read(terminal, 65536).decode(errors="replace")
    return seen


general = output(tool, "--help")
subcommands = re.findall(r"^  (\w+)", general.split("Subcommands:")[1].split("\n\n")[0], re.M)
require(len(subcommands) >= 8, f"subcommands: {subcommands}")

warnings = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", pages / "coremanage.1"],
                          capture_output=True, text=True, check=True).stderr
require(not warnings, warnings)
page = (pages / "coremanage.1").read_text().replace("\\-", "-")
parts = dict(zip(["", *re.findall(r"^\.SS coremanage (\w+)$", page, re.M)],
                 re.split(r"^\.SS coremanage \w+$", page, flags=re.M)))
require(list(parts) == ["", *subcommands], f"the page's parts: {list(parts)}")

require(bash("") == {*subcommands, *listed(general)}, f"bash: {bash('')}")
require(bash("se") == {"send"}, f"bash: {bash('se')}")
require({"udp://", "osd://"} <= bash("send", ""), "bash: no links")
require(not bash("send", "--timeout", ""), "bash: a number is no option")
helps = {name: listed(output(tool, name, "--help")) for name in subcommands}
for name, wanted in helps.items():
    tagged = options(" ".join(re.findall(r"^\.TP\n\\fB(.*?)\\fR", parts[name], re.M)))
    require(tagged == wanted, f"manual page, {name}: {tagged ^ wanted}")
    require(bash(name, "-") == wanted, f"bash, {name}: {bash(name, '-') ^ wanted}")
shown = zsh(["coremanage ", *(f"coremanage {name} -" for name in helps)])
if shown:
    missing = helps.keys() - set(re.findall(r"(\w+) +-- ", shown.pop(0)))
    require(not missing, f"zsh: {missing}")
for name, text in zip(helps, shown):
    missing = helps[name] - options(text)
    require(not missing, f"zsh, {name}: {missing}")
print("\n".join(faults) or f"the pages are as the help: {', '.join(subcommands)}")
sys.exit(bool(faults))
