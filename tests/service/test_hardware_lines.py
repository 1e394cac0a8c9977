"""What a start prints about the hardware, on made-up machines without flash."""

import os
import re
import signal

import pytest

from world import observe
from world.harness import MISSING_HARDWARE
from world.observe import needs_strace

BOARD = ("Revision: C\nFamily: plinth\nID: 0x21\nCFE-version: 1.2.3\nSecure-keys: 1\nSecure-boot: 0\n"
         "Secure-ID: 00112233445566778899aabbccddeeff\n")
ODD_BOARD = "\n\nRevision:\nID: junk\n" + "x" * 5000 + " y\nFamily: " + "f" * 5000 + "\n\0\xff no line feed"

TABLE_HEADER = "dev:    size   erasesize  name\n"
OTHER_PARTITIONS = TABLE_HEADER + 'mtd0: 00400000 00020000 "flash0.cfe"\nmtd1: 08000000 00020000 "flash0.kernel"\n'
LONGER_NAME = 'mtd2: 00100000 00020000 "flash0.nvram2"\n'
OTHER_CASE = 'mtd2: 00100000 00020000 "FLASH0.NVRAM"\n'
PARTITION = 'mtd77: 00100000 00020000 "flash0.nvram"\n'


def started(machine, *arguments, **options):
    """Runs the daemon in the foreground until it answers; returns what it printed until its end."""
    daemon = machine.launch("-d", *arguments, **options)
    machine.wait_until_name_is_owned()
    os.kill(daemon.pid, signal.SIGTERM)
    daemon.wait()
    assert daemon.status == 0
    return daemon.take_stderr()


@pytest.mark.parametrize("files", [
    {},
    {"mtd": ""},
    {"mtd": TABLE_HEADER},
    {"mtd": OTHER_PARTITIONS},
    {"mtd": OTHER_PARTITIONS + LONGER_NAME},
    {"mtd": OTHER_PARTITIONS + OTHER_CASE},
    {"mtd": OTHER_PARTITIONS + PARTITION},
    {"mtd": "mtd0: junk\n" * 3000},
    {"boardid": BOARD},
    {"boardid": BOARD, "mtd": OTHER_PARTITIONS},
    {"boardid": BOARD, "mtd": OTHER_PARTITIONS + PARTITION},
    {"boardid": ""},
    {"boardid": ODD_BOARD, "mtd": OTHER_PARTITIONS},
], ids=["neither", "empty table", "no partitions", "table without the partition", "longer name", "other case",
        "partition without a device", "malformed table", "board only", "board and table without the partition",
        "board and partition without a device", "empty board", "odd board"])
def test_machine_without_environment(machine, files):
    machine.lay_over_proc(**files)
    assert started(machine) == MISSING_HARDWARE


def test_file_in_place_of_the_device(machine):
    machine.lay_over_proc(mtd=OTHER_PARTITIONS + PARTITION)
    machine.lay_over_dev(mtd77="\x01\x0d\x00PW_FORMAT=1\x00")
    assert started(machine) == MISSING_HARDWARE


def test_directories_in_place_of_the_files(machine):
    machine.lay_over_proc()
    for name in ("boardid", "mtd"):
        (machine.path / "proc" / name).mkdir()
    assert started(machine) == MISSING_HARDWARE


@needs_strace
@pytest.mark.parametrize("table, device", [
    (None, []),
    (OTHER_PARTITIONS, []),
    (OTHER_PARTITIONS + LONGER_NAME, []),
    (OTHER_PARTITIONS + OTHER_CASE, []),
    (OTHER_PARTITIONS + PARTITION, ['"/dev/mtd77"']),
], ids=["no table", "table without the partition", "longer name", "other case", "table with the partition"])
def test_files_are_looked_for_in_order(machine, table, device):
    machine.lay_over_proc(boardid=BOARD, **({} if table is None else {"mtd": table}))
    trace = observe.Strace(machine, "-e", "trace=openat")
    assert started(machine, wrapper=trace.wrapper) == MISSING_HARDWARE
    paths = [line.split(", ")[1] for line in trace.lines() if "openat(" in line]
    looked_for = [path for path in paths if re.match('"(/proc/boardid|/proc/mtd|/dev/mtd.*)"', path)]
    assert looked_for == ['"/proc/boardid"', '"/proc/mtd"', *device]


def test_machine_is_described_in_the_kernel_log_of_a_service(machine):
    machine.lay_over_proc(boardid=BOARD, mtd=OTHER_PARTITIONS)
    machine.start()
    machine.stop()
    assert machine.kernel_log.read() == MISSING_HARDWARE
