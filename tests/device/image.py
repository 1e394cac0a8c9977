"""Builds the archive that the emulated board boots: Debian's armhf programs, the daemon, a scenario and an init."""

import os
import pathlib
import re
import shutil
import subprocess

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
CACHE = ROOT / ".cache/armhf"
SYSROOT = CACHE / "sysroot"

# Debian programs that the scenarios call.
PROGRAMS = ["bin/busybox", "usr/bin/dbus-daemon", "usr/bin/dbus-send", "usr/bin/gdbus", "usr/sbin/nandwrite",
            "usr/sbin/ubiattach", "usr/sbin/ubidetach", "usr/sbin/ubiformat", "usr/sbin/ubimkvol"]
FILES = ["usr/share/dbus-1/system.conf"]
MODULES = ["virtio_mmio", "virtio_console", "virtio_blk", "nandsim", "crc16", "crc32c_generic", "mbcache", "jbd2", "ext4",
           "deflate", "zstd_compress", "zstd", "ubi", "ubifs"]
LIBRARY_DIRECTORIES = ["lib/arm-linux-gnueabihf", "usr/lib/arm-linux-gnueabihf"]

# root, the user of the bus daemon, a member of the group that may use the registry, and a user outside the group.
PASSWD = """\
root:x:0:0:root:/root:/bin/sh
messagebus:x:100:100::/:/bin/false
member:x:1000:1000::/:/bin/sh
stranger:x:1001:1001::/:/bin/sh
"""
GROUP = """\
root:x:0:
messagebus:x:100:
member:x:1000:
stranger:x:1001:
ledger:x:101:member
"""

SIGNATURE_MARK = b"~Module signature appended~\n"


def kernel():
    return next((CACHE / "kernel/boot").glob("vmlinuz-*"))


def without_signature(module):
    """Returns the module without its signature, which is invalid once a byte has changed."""
    if not module.endswith(SIGNATURE_MARK):
        return module
    # The mark follows a trailer of twelve bytes. The last four are the length of the signature, big-endian.
    end = len(module) - len(SIGNATURE_MARK)
    length = int.from_bytes(module[end - 4:end], "big")
    return module[:end - 12 - length]


def with_partition_name(module):
    """Returns nandsim with the partition names of the bootloader. In this kernel no parameter sets the names."""
    old = b"NAND simulator partition %d\0"
    new = b"flash%d.nvram\0"
    if module.count(old) != 1:
        raise RuntimeError("cannot rename the partitions of this kernel's nandsim")
    return without_signature(module.replace(old, new.ljust(len(old), b"\0")))


def needed_libraries(path):
    output = subprocess.run(["arm-linux-gnueabihf-readelf", "-d", "-l", path], check=True, capture_output=True,
                            text=True).stdout
    interpreter = re.findall(r"program interpreter: /lib/(\S+)\]", output)
    return re.findall(r"\(NEEDED\).*\[(.*)\]", output), interpreter


class Image:
    """A tree of files that becomes an archive. Everything in it belongs to root."""

    def __init__(self, tree):
        self.tree = pathlib.Path(tree)
        self._libraries = set()

    def add_text(self, path, text, mode=0o644):
        target = self.tree / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(text)
        target.chmod(mode)

    def add_file(self, source, path, mode=None):
        target = self.tree / path
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)
        if mode is not None:
            target.chmod(mode)

    def add_program(self, source, path):
        """Adds a program and all libraries that it is linked with."""
        self.add_file(source, path, 0o755)
        libraries, interpreter = needed_libraries(source)
        for name in interpreter:
            self.add_file(SYSROOT / "lib" / name, f"lib/{name}", 0o755)
        for name in libraries:
            self._add_library(name)

    def _add_library(self, name):
        if name in self._libraries:
            return
        self._libraries.add(name)
        for directory in LIBRARY_DIRECTORIES:
            source = SYSROOT / directory / name
            if source.exists():
                self.add_program(source, f"lib/{name}")
                return
        raise RuntimeError(f"{name} is not in {SYSROOT}")

    def add_system(self):
        for directory in ["dev", "proc", "sys", "tmp", "run", "var/lib", "root", "mnt"]:
            (self.tree / directory).mkdir(parents=True)
        for program in PROGRAMS:
            self.add_program(SYSROOT / program, program)
        for path in FILES:
            self.add_file(SYSROOT / path, path)
        self.add_text("etc/passwd", PASSWD)
        self.add_text("etc/group", GROUP)
        for name in MODULES:
            for module in (CACHE / "kernel/lib/modules").rglob(f"{name}.ko"):
                content = module.read_bytes()
                target = self.tree / "modules" / module.name
                target.parent.mkdir(exist_ok=True)
                target.write_bytes(content)
                if name == "nandsim":
                    target.write_bytes(with_partition_name(content))
                    target.with_name("nandsim_as_built.ko").write_bytes(content)
        self.add_file(HERE / "guest/init", "init", 0o755)
        self.add_file(HERE / "guest/library.sh", "scenario/library.sh")

    def add_product(self, build):
        """Adds the stripped daemon, its bus policy, and the programs of the tests."""
        for source, path in [("daemon/ledgerd", "usr/sbin/ledgerd"),
                             ("tests/device/flush_storm", "usr/bin/flush_storm"),
                             ("tests/device/hardware_report", "usr/bin/hardware_report"),
                             ("tests/device/nand_report", "usr/bin/nand_report")]:
            stripped = self.tree / "stripped"
            subprocess.run(["arm-linux-gnueabihf-strip", "-o", stripped, build / source], check=True)
            self.add_program(stripped, path)
            os.remove(stripped)
        self.add_file(ROOT / "packaging/com.tavimesh.Registry.conf",
                      "usr/share/dbus-1/system.d/com.tavimesh.Registry.conf")

    def write(self, archive):
        names = subprocess.run(["find", ".", "-print0"], cwd=self.tree, check=True, capture_output=True).stdout
        with open(archive, "wb") as output:
            subprocess.run(["cpio", "--null", "-o", "--quiet", "-H", "newc", "-R", "0:0"], cwd=self.tree, input=names,
                           stdout=output, check=True)
