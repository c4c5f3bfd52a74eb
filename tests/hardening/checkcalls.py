#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Records the system calls of the tool on one link, and compares them with calls.txt.

checkcalls.py COREMANAGE LINK        LINK is udp, serial, vela, osd or usb

The tool sends one command to a simulated device; over USB, whose device only its own process sees, the
demo does. Exits 77, with the reason, where nothing can be recorded.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

CANNOT_RUN = 77
HERE = pathlib.Path(__file__).resolve().parent
PATIENCE = 100
WRITES = re.compile(r"O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|O_APPEND")


def cannot(reason):
    print(f"skipped: {reason}")
    sys.exit(CANNOT_RUN)


def listed():
    lines = [line for line in (HERE / "calls.txt").read_text().splitlines()
             if line and not line.startswith("#")]
    return {name: words.split() for name, words in (line.split(":", 1) for line in lines)}


def in_namespace():
    """Ports are this run's own."""
    if os.environ.get("CHECKCALLS_NAMESPACE"):
        return
    unshare = ["unshare", "--net"] + ([] if os.geteuid() == 0 else ["--map-root-user"])
    if subprocess.run([*unshare, "true"], capture_output=True).returncode != 0:
        cannot("no network namespace is to be had")
    os.environ["CHECKCALLS_NAMESPACE"] = "yes"
    os.execvp("unshare", [*unshare, "sh", "-c", 'ip link set lo up && exec "$@"', "sh",
                          sys.executable, *sys.argv])


def record(tool, link, directory):
    trace = directory / "trace"
    strace = ["strace", "-f", "-qq", "-s", "4096", "-o", str(trace)]
    environment = os.environ | {"HOME": str(directory), "TMPDIR": str(directory),
                                "XDG_STATE_HOME": str(directory)}
    environment.pop("LD_PRELOAD", None)
    line = directory / "line"
    address = {"udp": "udp://127.0.0.1:1000", "osd": "osd://127.0.0.1:10001"}.get(
        link, f"{link}://{line}")
    device = None
    try:
        if link == "usb":
            command = ["demo", "usb"]
        else:
            device = subprocess.Popen([tool, "simulate", address], env=environment,
                                      stdout=subprocess.PIPE)
            if not device.stdout.readline():
                sys.exit(f"no simulated device at {address}")
            what = ["--ch2", "1", "--text", "Gate 7"] if link == "osd" else ["--cmd", "0x10"]
            command = ["send", address, *what, "--timeout", "30000"]
        subprocess.run([*strace, tool, *command], env=environment, check=True, timeout=PATIENCE,
                       stdout=subprocess.DEVNULL)
    finally:
        if device:
            device.terminate()
            device.wait()
    return trace.read_text(errors="replace"), line


def main():
    tool, link = sys.argv[1:]
    if not shutil.which("strace"):
        cannot("strace is missing")
    if subprocess.run(["strace", "-f", "-o", "/dev/null", "true"], capture_output=True).returncode != 0:
        cannot("no process may be traced here")
    in_namespace()
    words = listed()
    with tempfile.TemporaryDirectory() as made:
        directory = pathlib.Path(made).resolve()
        trace, line = record(tool, link, directory)
        opens = [word.replace("LINE", re.escape(str(line)))
                 .replace("TEMPORARY", re.escape(str(directory))) for word in words[f"{link} opens"]]
        opens += [re.escape(str(directory)) + r"/coremanage/coremanage\.log", "/dev/null"]

    calls = re.findall(r"^\d+ +(\w+)\((.*)", trace, re.MULTILINE)
    meant = set(words[f"{link} calls"]).union(*(each for name, each in words.items()
                                                 if " " not in name))
    complaints = [f"calls {name}" for name in sorted({name for name, _ in calls} - meant)]
    for name, arguments in sorted(set(calls)):
        kind = re.match(r"(AF_\w+), (SOCK_\w+)", arguments)
        if name == "socket" and ":".join(kind.groups()) not in words[f"{link} sockets"]:
            complaints.append(f"makes a socket ({arguments}")
        path = re.search(r'"(.*?)"', arguments)
        if name in ("open", "openat") and WRITES.search(arguments) and \
                not any(re.fullmatch(pattern, path[1]) for pattern in opens):
            complaints.append(f"opens for writing ({arguments}")
    programs = {re.search(r'"(.*?)"', arguments)[1] for name, arguments in calls if name == "execve"}
    if any(pathlib.Path(program).name != pathlib.Path(tool).name for program in programs):
        complaints.append(f"starts programs: {sorted(programs)}")
    if len(calls) < 100:
        complaints.append(f"only {len(calls)} calls were recorded")
    if complaints:
        sys.exit("\n".join(f"{link}: {complaint}" for complaint in complaints))
    print(f"{link}: {len(calls)} calls, {len({name for name, _ in calls})} different ones")


main()
