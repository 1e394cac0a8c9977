"""Builds the archive that the emulated board boots: Debian's armhf programs, the daemon, the scenarios and an init."""

import pathlib
import re
import shutil
import subprocess
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
CACHE = ROOT / ".cache/armhf"
SYSROOT = CACHE / "sysroot"

# Debian programs that the scenarios call.
PROGRAMS = ["bin/busybox", "usr/bin/dbus-daemon", "usr/bin/dbus-send", "usr/sbin/nandwrite", "usr/sbin/ubiattach",
            "usr/sbin/ubidetach", "usr/sbin/ubiformat", "usr/sbin/ubimkvol"]
MODULES = ["virtio_mmio", "virtio_console", "virtio_blk", "nandsim", "crc16", "crc32c_generic", "mbcache", "jbd2", "ext4",
           "deflate", "zstd_compress", "zstd", "ubi", "ubifs"]
LIBRARY_DIRECTORIES = ["lib", "lib/arm-linux-gnueabihf", "usr/lib/arm-linux-gnueabihf"]
# Files of this project. Of a directory, the shell scripts.
FILES = {"guest/init": "init", "guest/library.sh": "scenario", "scenarios": "scenario", "failures": "scenario",
         "power_cut": "scenario", "../../packaging/com.tavimesh.Registry.conf": "usr/share/dbus-1/system.d"}

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


def with_partition_name(module):
    """Returns nandsim with the partition names of the bootloader. In this kernel no parameter sets the names. Removes
    the module's signature, which is then invalid."""
    old = b"NAND simulator partition %d\0"
    if module.count(old) != 1:
        raise RuntimeError("cannot rename the partitions of this kernel's nandsim")
    module = module.replace(old, b"flash%d.nvram\0".ljust(len(old), b"\0"))
    if not module.endswith(SIGNATURE_MARK):
        return module
    # The mark follows a trailer of twelve bytes. The last four are the length of the signature, big-endian.
    end = len(module) - len(SIGNATURE_MARK)
    return module[:end - 12 - int.from_bytes(module[end - 4:end], "big")]


def add(source, target):
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(source, target)


def add_program(tree, source, path):
    """Adds a program or library, and all libraries that it is linked with."""
    add(source, tree / path)
    output = subprocess.run(["arm-linux-gnueabihf-readelf", "-d", "-l", source], check=True, capture_output=True,
                            text=True).stdout
    for name in re.findall(r"(?:program interpreter: /lib/|\(NEEDED\).*\[)([^]]+)\]", output):
        if not (tree / "lib" / name).exists():
            found = [SYSROOT / directory / name for directory in LIBRARY_DIRECTORIES]
            add_program(tree, next(path for path in found if path.exists()), f"lib/{name}")


def build(product, archive):
    """Writes the archive, with the daemon and the programs of the tests from the build directory `product`."""
    with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as directory:
        tree = pathlib.Path(directory) / "tree"
        for name in ["dev", "proc", "sys", "tmp", "run", "var/lib", "root", "mnt", "etc", "modules"]:
            (tree / name).mkdir(parents=True)
        for program in PROGRAMS:
            add_program(tree, SYSROOT / program, program)
        for path in ["daemon/ledgerd", "tests/device/flush_storm", "tests/device/board_report"]:
            stripped = pathlib.Path(directory) / pathlib.Path(path).name
            subprocess.run(["arm-linux-gnueabihf-strip", "-o", stripped, product / path], check=True)
            add_program(tree, stripped, f"usr/sbin/{stripped.name}")
        add(SYSROOT / "usr/share/dbus-1/system.conf", tree / "usr/share/dbus-1/system.conf")
        (tree / "etc/passwd").write_text(PASSWD)
        (tree / "etc/group").write_text(GROUP)
        for name in MODULES:
            add(next((CACHE / "kernel/lib/modules").rglob(f"{name}.ko")), tree / "modules")
        simulator = tree / "modules/nandsim.ko"
        add(simulator, tree / "modules/nandsim_as_built.ko")
        simulator.write_bytes(with_partition_name(simulator.read_bytes()))
        for source, target in FILES.items():
            path = HERE / source
            for file in sorted(path.glob("*.sh")) if path.is_dir() else [path]:
                add(file, tree / target if target == "init" else tree / target / file.name)
        (tree / "init").chmod(0o755)
        names = subprocess.run(["find", ".", "-print0"], cwd=tree, check=True, capture_output=True).stdout
        with open(archive, "wb") as output:
            subprocess.run(["cpio", "--null", "-o", "--quiet", "-H", "newc", "-R", "0:0"], cwd=tree, input=names,
                           stdout=output, check=True)
