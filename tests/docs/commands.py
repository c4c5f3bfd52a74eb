#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs the commands of README, CONTRIBUTING and docs/ as they stand there:
commands.py SOURCE_DIR BUILD_DIR WORK_DIR

Each page's blocks run in order, each in one shell, in the page's copy of the sources. The build is the
one that runs the test; what is installed goes below WORK_DIR, and simulated devices stand at the
addresses of the pages, in a network namespace of the test's own. A line that ends with & is waited for
until it has said something.

A block of commands is an indented one, or a fenced one without a language or of sh. Behind
<!-- not run: REASON --> it is only listed; a fenced one behind a line `FILE`: is that file. A command of three
words or more inside a sentence must be in some block, too."""
import os, pathlib, re, shlex, shutil, signal, subprocess, sys, textwrap, time

DEVICES = ["udp://192.168.1.20", "osd://10.0.0.5", "osd://10.0.0.6", "osd://10.0.0.7"]
MARK = re.compile(r"<!-- not run: (.+) -->")
FILE = re.compile(r"`(\S+)`:")
INLINE = re.compile(r"`((?:coremanage|scripts/[\w-]+|cmake|ctest|unshare|g\+\+)\s[^`\s]+\s[^`]*)`")
LIMIT = 300  # seconds that a block may take on a machine that is busy with others
SKIPPED = 77

def blocks(page):
    """The line, the text, and the text before of each block of commands and of each named file."""
    lines, found, last, number = page.read_text().splitlines(), [], "", 0
    while number < len(lines):
        line, start = lines[number], number
        fence = re.match(r" *(```+|~~~+)(\S*)", line)
        number += 1
        if fence:
            while not re.match(rf" *{fence[1]}\s*$", lines[number]):
                number += 1
            if fence[2] in ("", "sh") or FILE.fullmatch(last):
                found.append((start + 1, lines[start + 1:number], last))
            number += 1
        elif re.match(" {4}", line) and (start == 0 or not lines[start - 1].strip()):
            while number < len(lines) and (not lines[number].strip() or re.match(" {4}", lines[number])):
                number += 1
            found.append((start + 1, lines[start:number], last))
        if line.strip():
            last = line.strip()
    return [(at, textwrap.dedent("\n".join(text)).strip() + "\n", before) for at, text, before in found]

def patient(script, log):
    """The script, waiting for the first words of what it starts in the background."""
    def started(match):
        said = re.findall(r"\d?>([\w./]+)", match[1]) or [f"{log}.{match.start()}"]
        return (f"{{ {match[1]}; }} >{shlex.quote(f'{log}.{match.start()}')} &\n"
                f"until [ -s {shlex.quote(said[0])} ]; do kill -0 $!; sleep 0.02; done")
    return re.sub(r"^(.*[^&\s])\s*&$", started, script.replace("\\\n", " "), flags=re.M)

def run(script, directory, environment, log):
    """Whether the script succeeds, and what it prints. Nothing that it started is left."""
    with open(log, "w+") as output:
        # No session of its own: its leader would be hung up with the first terminal that it opens.
        shell = subprocess.Popen(["bash", "-euc", patient(script, log)], cwd=directory, env=environment,
                                 stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                 process_group=0)
        try:
            code = shell.wait(LIMIT)
        except subprocess.TimeoutExpired:
            code = f"nothing within {LIMIT} s"
        try:
            os.killpg(shell.pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
        shell.wait()
        output.seek(0)
        return code == 0, f"{output.read()}\nended with {code}"

source, build, work = (pathlib.Path(argument).resolve() for argument in sys.argv[1:4])
if len(sys.argv) == 4:
    alone = ["unshare", "-n"] if os.geteuid() == 0 else ["unshare", "-rn"]
    if subprocess.run(alone + ["true"]).returncode != 0:
        print("skipped: the system gives no network namespace, and the pages' addresses are others' outside of one")
        sys.exit(SKIPPED)
    os.execvp("unshare", alone + [sys.executable, *sys.argv, "inside"])

shutil.rmtree(work, ignore_errors=True)
(work / "home").mkdir(parents=True)
prefix = work / "root/usr/local"
library = re.search("^CMAKE_INSTALL_LIBDIR:.*=(.*)", (build / "CMakeCache.txt").read_text(), re.M)[1]
environment = {name: value for name, value in os.environ.items() if name in ("LANG", "LC_ALL", "TMPDIR")} | {
    "HOME": str(work / "home"), "DESTDIR": str(work / "root"), "PATH": f"{prefix}/bin:{os.environ['PATH']}",
    "CMAKE_PREFIX_PATH": str(prefix), "CMAKE_GENERATOR": "Ninja", "PKG_CONFIG_PATH": f"{prefix / library}/pkgconfig",
    "LD_LIBRARY_PATH": str(prefix / library)}
subprocess.run(["cmake", "--install", build, "--prefix", "/usr/local"], env=environment, check=True,
               stdout=subprocess.DEVNULL)
subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
for address in {link.split("//")[1] for link in DEVICES}:
    subprocess.run(["ip", "address", "add", address, "dev", "lo"], check=True)
devices = [subprocess.Popen(["coremanage", "simulate", "--quiet", link], env=environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
           for link in DEVICES]
for device in devices:
    assert device.stdout.readline(), f"{device.args} does not start"

pages = [source / "README.md", source / "CONTRIBUTING.md", *sorted((source / "docs").glob("*.md"))]
counts, failures = {"run": 0, "not run": 0}, 0
known = "\n".join(script for page in pages for _, script, _ in blocks(page))
for page in pages:
    for command in re.findall(INLINE, page.read_text()):
        if " ".join(command.split()) not in known and not re.search("[A-Z]{4}", command):
            failures += 1
            print(f"FAILED   {page.relative_to(source)}: \"{command}\" is in no block")
    directory = work / page.stem
    for at, script, before in blocks(page):
        name, mark, file = f"{page.relative_to(source)}:{at}", MARK.fullmatch(before), FILE.fullmatch(before)
        if mark:
            counts["not run"] += 1
            print(f"not run  {name}: {mark[1]}")
            continue
        if not directory.exists():
            shutil.copytree(source, directory, ignore=shutil.ignore_patterns("build*", ".git", ".cache"))
            (directory / "build/release").mkdir(parents=True)
            for entry in build.iterdir():
                if entry.name != "Testing":
                    (directory / "build/release" / entry.name).symlink_to(entry)
        if file:
            (directory / file[1]).parent.mkdir(parents=True, exist_ok=True)
            (directory / file[1]).write_text(script)
            continue
        counts["run"] += 1
        start = time.monotonic()
        good, output = run(script, directory, environment, work / f"{page.stem}-{at}.log")
        print(f"{'ran' if good else 'FAILED':8} {name} in {time.monotonic() - start:.1f} s", flush=True)
        if not good:
            failures += 1
            print(textwrap.indent(f"{script}\n--\n{output}", "    "))
for device in devices:
    device.terminate()
print(f"{counts['run']} blocks run, {failures} failed, {counts['not run']} not run")
sys.exit(failures > 0 or counts["run"] == 0)
