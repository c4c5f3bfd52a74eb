#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Tries the project on a bare Debian 12, in a chroot that it makes in WORK and removes.

barechroot.py packages|demo|roads SOURCE WORK

packages: the packages are made, installed, used and purged. demo: scripts/demo comes to its end with
little to download, and never without a sign of life. roads: the commands of docs/host.md lead to a
program with a host of its own, by CMake and by pkg-config, and are few. Exits 77, with the reason,
if there is no chroot to be had.
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

CANNOT_RUN = 77
TOOL_BYTES = 1.5e6
DOWNLOAD_MB = 185
SILENCE_SECONDS = 60
COMMANDS = 10
SERVES = "until grep -q ':03E8 ' /proc/net/udp; do kill -0 $!; sleep 0.1; done" # port 1000
# In a mount namespace, so that nothing stays mounted whatever happens.
ENTER = """
mount -t proc proc "$0/proc"
mount --rbind /dev "$0/dev"
[ "$NETWORK" = yes ] || ip link set lo up
exec chroot "$0" "$@"
"""
CHANGING = ("dev/", "proc/", "sys/", "tmp/", "root/", "run/", "var/cache/", "var/log/",
            "var/lib/apt/", "var/lib/dpkg/")


def say(text):
    print(f"== {text}", flush=True)


def require(condition, complaint):
    if not condition:
        sys.exit(complaint)


class Chroot:
    def __init__(self, work):
        self.root = work / "chroot"

    def __enter__(self):
        if os.geteuid() != 0:
            cannot("a chroot needs root")
        for program in ("mmdebstrap", "unshare", "ip"):
            if not shutil.which(program):
                cannot(f"there is no {program}")
        shutil.rmtree(self.root, ignore_errors=True)
        say("making a bare Debian 12")
        made = subprocess.run(["mmdebstrap", "--mode=root", "--variant=minbase", "bookworm",
                               self.root], capture_output=True, text=True)
        if made.returncode != 0:
            shutil.rmtree(self.root, ignore_errors=True)
            cannot("mmdebstrap: " + made.stderr[-500:])
        shutil.rmtree(self.root / "var/lib/apt/lists", ignore_errors=True)
        shutil.copy("/etc/resolv.conf", self.root / "etc/resolv.conf")
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.root)

    def command(self, *arguments, network=True):
        return ["env", "-i", "PATH=/usr/local/bin:/usr/sbin:/usr/bin", "HOME=/root", "TERM=dumb",
                "DEBIAN_FRONTEND=noninteractive", "AUTOPKGTEST_TMP=/tmp/autopkgtest",
                f"NETWORK={'yes' if network else 'no'}", "unshare", "--mount", "--propagation",
                "private", *([] if network else ["--net"]), "sh", "-ec", ENTER, str(self.root),
                *arguments]

    def run(self, *arguments, network=True):
        done = subprocess.run(self.command(*arguments, network=network), text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, errors="replace")
        require(done.returncode == 0,
                f"{' '.join(arguments)}: exit code {done.returncode}\n{done.stdout[-4000:]}")
        return done.stdout

    def files(self):
        found = set()
        for directory, directories, files in os.walk(self.root):
            here = os.path.relpath(directory, self.root)
            found |= {os.path.normpath(f"{here}/{name}") for name in directories + files}
        return {path for path in found if not f"{path}/".startswith(CHANGING)}


def cannot(reason):
    print(f"NOT RUN: {reason}")
    sys.exit(CANNOT_RUN)


def copy_source(source, target):
    shutil.copytree(source, target, symlinks=True,
                    ignore=lambda folder, names: {".git", "build"} & set(names)
                    if pathlib.Path(folder) == source else set())


def packages(source, work):
    with Chroot(work) as chroot:
        say("making the packages")
        subprocess.run([source / "scripts/package", work / "packages"], check=True)
        shutil.copytree(work / "packages", chroot.root / "packages")
        copy_source(source, chroot.root / "source")
        chroot.run("apt-get", "update")
        install = ["apt-get", "install", "-y", "--no-install-recommends"]
        chroot.run(*install, "systemd")  # of every machine with a service; it leaves files behind
        before = chroot.files()

        say("the tool")
        made = {path.name.split("_")[0]: f"/packages/{path.name}"
                for path in (chroot.root / "packages").glob("*.deb")}
        chroot.run(*install, made["coremanage"], made["libcore-manage1"],
                   made["libcore-manage-capture1"], made["libcore-manage-host1"])
        tools = [chroot.root / path for path in ("usr/bin/coremanage",
                                                 "usr/libexec/core_manage/coremanage")]
        for path in tools:
            size = path.stat().st_size
            print(f"{path.name}: {size} bytes")
            require(size <= TOOL_BYTES, "the tool is too large")
        rules = [path.name for path in (chroot.root / "usr/lib/udev/rules.d").iterdir()
                 if "core-manage" in path.name]
        require(len(rules) == 1 and rules[0] < "73-seat-late.rules", f"udev rules: {rules}")
        for path in ("man/man1/coremanage.1.gz", "bash-completion/completions/coremanage",
                     "zsh/vendor-completions/_coremanage"):
            require((chroot.root / "usr/share" / path).exists(), f"{path} is not installed")

        tests = (source / "debian/tests/control").read_text()
        needed = {name for names in re.findall("^Depends: (.*)", tests, re.M)
                  for name in names.split(", ")}
        for test in re.findall("^Tests: (.*)", tests, re.M):
            say(f"the package test {test}")
            if test != "demo":
                chroot.run(*install, *made.values(), *(needed - made.keys()))
            print(chroot.run("sh", "-ec",
                             f"mkdir -p $AUTOPKGTEST_TMP; cd /source; debian/tests/{test}")[-500:])

        say("purging")
        chroot.run("apt-get", "purge", "-y", "--autoremove", *made, *needed)
        left = chroot.files() - before
        require(not left, f"left behind: {sorted(left)[:50]}")


def watched(command):
    """The output of a command on a terminal, and its longest silence in seconds."""
    ours, its = pty.openpty()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=its, stderr=its)
    os.close(its)
    output, silence, last = b"", 0.0, time.monotonic()
    while True:
        try:
            readable = select.select([ours], [], [], 1)[0]
            chunk = os.read(ours, 65536) if readable else None
        except OSError: # the end of a terminal
            break
        silence = max(silence, time.monotonic() - last)
        if chunk:
            last = time.monotonic()
            output += chunk
            sys.stdout.buffer.write(chunk)
            sys.stdout.flush()
    text = output.decode(errors="replace").replace("\r\n", "\n")
    require(process.wait() == 0, f"exit code {process.returncode}")
    return text, silence


def demo(source, work):
    with Chroot(work) as chroot:
        copy_source(source, chroot.root / "source")
        for asked in ("--help", "-h"):
            begun = time.monotonic()
            require("scripts/demo" in chroot.run("/source/scripts/demo", asked, network=False),
                    "no help")
            require(time.monotonic() - begun < SILENCE_SECONDS, "help takes long")
        text, silence = watched(chroot.command("/source/scripts/demo"))
        units = {"B": 1e-6, "kB": 1e-3, "MB": 1}
        amounts = re.findall(r"([\d.,]+) ([kM]?B) (?:downloaded|to download)", text)
        megabytes = sum(float(amount.replace(",", "")) * units[unit] for amount, unit in amounts)
        say(f"{megabytes:.1f} MB downloaded, {silence:.0f} s of silence at most")
        require(len(amounts) == 2, "it does not say what it downloads")
        require(megabytes <= DOWNLOAD_MB, "that is too much")
        require(silence < SILENCE_SECONDS, "that is too long")
        installed = chroot.run("dpkg-query", "-W", "-f", "${Package}\n")
        more = re.findall(r"^(?:clang|qemu|libgtest|lintian|mmdebstrap).*", installed, re.M)
        require(not more, f"nothing of the demo needs {more}")

        say("what it proposes next")
        following = re.findall("^    (.*)", text.split("Try next:\n")[-1], re.M)
        require(len(following) == 3 and following[1].endswith("&"), f"three commands: {following}")
        encode, simulate, send = following
        shown = chroot.run("sh", "-ec", f"""cd /source
            {encode}
            {simulate[:-1]} >/tmp/simulated 2>&1 &
            until grep -q 'simulated device at' /tmp/simulated; do kill -0 $!; sleep 0.1; done
            {send}
            kill $!""", network=False)
        print(shown)
        require("reply from 127.0.0.1" in shown, "no reply")


def roads(source, work):
    with Chroot(work) as chroot:
        copy_source(source, chroot.root / "source")
        section = (source / "docs/host.md").read_text().split("### From a bare Debian 12")[1]
        blocks = re.findall(r"(?:^    .+\n)+", section.split("\n### ")[0], re.M)
        require(len(blocks) == 2, f"two roads: {blocks}")
        cmake, instead = [[line.strip() for line in block.splitlines()] for block in blocks]
        common, device, program = cmake[:-4], cmake[-4], cmake[-3:]
        for line in common:
            say(line)
            chroot.run("sh", "-ec", f"cd /source; {line}")
        for way in (program, instead):
            say(f"{len(common) + 1 + len(way)} commands")
            require(len(common) + 1 + len(way) <= COMMANDS, "that is too much")
            shown = chroot.run("sh", "-exc", "\n".join(["cd /source", device, SERVES, *way]),
                               network=False)
            print(shown)
            require("127.0.0.1 replied" in shown, "no reply")


if __name__ == "__main__":
    work_directory = pathlib.Path(sys.argv[3])
    work_directory.mkdir(parents=True, exist_ok=True)
    {"packages": packages, "demo": demo, "roads": roads}[sys.argv[1]](pathlib.Path(sys.argv[2]).resolve(),
                                                       work_directory.resolve())
