#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs a test program as root on a Debian kernel of its own, in QEMU without KVM. Its second and its
third UART are wired to each other.

runinvm.py CACHE PROGRAM [ARGUMENTS]

The kernel's package is downloaded into CACHE once. Exits 0 if the program does, 1 if it fails, and
77, with the reason, if there is no virtual machine to be had.
"""
import lzma
import os
import re
import shutil
import stat
import struct
import subprocess
import sys
import tempfile

CANNOT_RUN = 77
MEMORY = "1024"
SECONDS = 1500  # 45 on an idle machine, many times that beside twenty busy processes
MODULES = ["drivers/hid/hid", "drivers/hid/hid-generic", "drivers/hid/uhid", "fs/configfs/configfs",
           "drivers/usb/common/usb-common", "drivers/usb/core/usbcore",
           "drivers/hid/usbhid/usbhid", "drivers/usb/gadget/udc/udc-core",
           "drivers/usb/gadget/libcomposite", "drivers/usb/gadget/udc/dummy_hcd",
           "drivers/usb/gadget/function/usb_f_hid"]
# isa-debug-exit makes QEMU exit with twice what is written to its port, plus 1.
INIT = """#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin LC_ALL=C.UTF-8 HOME=/tmp
mount -t proc none /proc
mount -t sysfs none /sys
mount -t devtmpfs none /dev
for module in /modules/*.ko; do insmod $module || echo "cannot load $module"; done
mount -t configfs none /sys/kernel/config
cd /tmp
/test {arguments}
result=$?
echo "test program: $result"
[ $result -eq 0 ] && code='\\000' || code='\\001'
printf "$code" | dd of=/dev/port bs=1 seek=244 2>/dev/null
poweroff -f
"""


def cannot(reason):
    print(f"NOT RUN: {reason}")
    sys.exit(CANNOT_RUN)


def downloaded(cache, name):
    """The path of a package that is in the cache, or None."""
    return next((os.path.join(cache, file) for file in os.listdir(cache)
                 if file.startswith(name + "_") and file.endswith(".deb")), None)


def kernel_package(cache):
    """The path of the current Debian kernel's package."""
    depends = subprocess.run(["apt-cache", "depends", "linux-image-amd64"], text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE).stdout
    found = re.search(r"Depends: (linux-image-\S+)", depends)
    if not found:
        cannot("apt-cache knows no linux-image-amd64; try apt-get update")
    name = found.group(1)
    if package := downloaded(cache, name):
        return package
    done = subprocess.run(["apt-get", "download", "-q", name], cwd=cache, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if package := downloaded(cache, name):
        return package
    cannot(f"apt-get download {name} failed:\n{done.stdout}")


def unpacked(package):
    """The directory with the package's files."""
    directory = package[:-len(".deb")]
    if not os.path.isdir(directory):
        shutil.rmtree(directory + ".part", ignore_errors=True)
        subprocess.run(["dpkg-deb", "-x", package, directory + ".part"], check=True)
        os.rename(directory + ".part", directory)
    return directory


def vmlinux(directory, target):
    """Takes the kernel proper out of the boot image."""
    boot = os.path.join(directory, "boot")
    name = next(file for file in os.listdir(boot) if file.startswith("vmlinuz"))
    with open(os.path.join(boot, name), "rb") as file:
        image = file.read()
    setup_sectors = image[0x1f1] or 4
    offset, length = struct.unpack_from("<II", image, 0x248)
    start = (setup_sectors + 1) * 512 + offset
    with open(target, "wb") as file:
        file.write(lzma.LZMADecompressor().decompress(image[start:start + length]))


class Archive:
    """A cpio archive as the kernel unpacks it."""

    def __init__(self, file):
        self.file = file
        self.count = 0
        self.directories = set()

    def put(self, path, mode, content=b""):
        name = path.lstrip("/").encode() + b"\0"
        self.count += 1
        fields = [self.count, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(name), 0]
        head = b"070701" + b"".join(b"%08X" % field for field in fields) + name
        self.file.write(head + b"\0" * (-len(head) % 4) + content + b"\0" * (-len(content) % 4))

    def directory(self, path):
        if path not in self.directories and path not in ("", "/"):
            self.directory(os.path.dirname(path))
            self.directories.add(path)
            self.put(path, stat.S_IFDIR | 0o755)

    def add(self, path, source):
        self.directory(os.path.dirname(path))
        with open(source, "rb") as file:
            self.put(path, stat.S_IFREG | 0o755, file.read())

    def text(self, path, content):
        self.put(path, stat.S_IFREG | 0o755, content.encode())

    def end(self):
        self.put("TRAILER!!!", 0)


def libraries(program):
    """What a program is linked with; nothing for a static one."""
    listing = subprocess.run(["ldd", program], text=True, stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL).stdout
    return re.findall(r"(?:=> )?(/\S+) \(0x", listing)


def initramfs(target, kernel, busybox, program, arguments):
    tree = os.path.join(kernel, "lib/modules")
    tree = os.path.join(tree, os.listdir(tree)[0], "kernel")
    with open(target, "wb") as file:
        archive = Archive(file)
        for directory in ("/proc", "/sys", "/dev", "/tmp", "/bin", "/modules"):
            archive.directory(directory)
        archive.text("/init", INIT.format(arguments=" ".join(arguments)))
        archive.add("/bin/busybox", busybox)
        archive.add("/test", program)
        for library in sorted({*libraries(busybox), *libraries(program)}):
            archive.add(library, library)
        for number, module in enumerate(MODULES):
            archive.add(f"/modules/{number:02}-{os.path.basename(module)}.ko",
                        os.path.join(tree, module + ".ko"))
        archive.end()


def run(program, arguments, cache, work):
    qemu = shutil.which("qemu-system-x86_64")
    busybox = shutil.which("busybox")
    missing = [package for package, found in
               (("qemu-system-x86", qemu), ("busybox-static", busybox),
                ("dpkg", shutil.which("dpkg-deb")), ("apt", shutil.which("apt-get"))) if not found]
    if missing:
        cannot("these packages are missing: " + " ".join(missing))
    if os.uname().machine != "x86_64":
        cannot("the virtual machine is an x86_64 one")
    kernel = unpacked(kernel_package(cache))
    vmlinux(kernel, os.path.join(work, "vmlinux"))
    initramfs(os.path.join(work, "initramfs"), kernel, busybox, program, arguments)
    wire = "socket,path=" + os.path.join(work, "wire")
    machine = subprocess.run(
        [qemu, "-accel", "tcg", "-machine", "pc", "-m", MEMORY, "-nographic", "-nodefaults",
         "-no-reboot", "-serial", "stdio", "-kernel", os.path.join(work, "vmlinux"),
         "-initrd", os.path.join(work, "initramfs"),
         # On a loaded machine no timer interrupt may come while the kernel looks for one.
         "-append", "console=ttyS0 quiet panic=-1 oops=panic no_timer_check",
         "-chardev", wire + ",id=near,server=on,wait=off", "-chardev", wire + ",id=far",
         "-device", "isa-serial,chardev=near,index=1",
         "-device", "isa-serial,chardev=far,index=2,irq=5",
         "-device", "isa-debug-exit,iobase=0xf4,iosize=1"],
        stdin=subprocess.DEVNULL, timeout=SECONDS)
    return 0 if machine.returncode == 1 else 1


def main():
    if len(sys.argv) < 3:
        print(__doc__)
        return 2
    cache, program = sys.argv[1], sys.argv[2]
    os.makedirs(cache, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=cache) as work:
        return run(program, sys.argv[3:], cache, work)


if __name__ == "__main__":
    sys.exit(main())
