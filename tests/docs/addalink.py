#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Follows docs/adding-a-link.md in a copy of the sources and runs the test of the link that it adds:
addalink.py SOURCE_DIR WORK_DIR"""
import pathlib, re, shutil, subprocess, sys

source, work = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
copy, build = work / "copy", work / "build"
shutil.rmtree(work, ignore_errors=True)
shutil.copytree(source, copy, ignore=shutil.ignore_patterns("build*", ".git", ".cache"))
page = (copy / "docs/adding-a-link.md").read_text()

new = re.findall(r"^`([^`\n]+)`:\n\n```cpp\n(.*?)```", page, re.S | re.M)
for name, text in new:
    assert not (copy / name).exists(), f"{name} is there already"
    (copy / name).write_text(text)
edits = re.findall(r"```diff\n(.*?)```", page, re.S)
subprocess.run(["git", "apply", "-"], cwd=copy, input="".join(edits), text=True, check=True)
files = re.findall(r"^--- ", "".join(edits), re.M)
lines = re.findall(r"^[-+](?![-+])", "".join(edits), re.M)
assert (len(new), len(lines), len(files)) == (3, 7, 4), (len(new), len(lines), len(files))
assert "three new files and seven lines in four others" in page

subprocess.run([copy / "scripts/check-floors"], check=True)
subprocess.run(["cmake", "-S", copy, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=",
                "-DCMAKE_UNITY_BUILD=ON", "-DCORE_MANAGE_WERROR=ON", "-DCORE_MANAGE_TOOLS=OFF"],
               check=True, stdout=subprocess.DEVNULL)
subprocess.run(["cmake", "--build", build, "--target", "test_core_tcp"], check=True)
subprocess.run([build / "tests/transports/test_core_tcp"], check=True)
