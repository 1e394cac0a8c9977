"""What a start reads and prints about the hardware, on made-up machines without flash."""

import os
import signal

import pytest

from world import observe
from world.harness import MISSING_HARDWARE
from world.observe import needs_strace

BOARD = ("Revision: C\nFamily: plinth\nID: 0x21\nCFE-version: 1.2.3\nSecure-keys: 1\nSecure-boot: 0\n"
         "Secure-ID: 00112233445566778899aabbccddeeff\n")
OTHER_PARTITIONS = ("dev:    size   erasesize  name\n"
                    'mtd0: 00400000 00020000 "flash0.cfe"\nmtd1: 08000000 00020000 "flash0.kernel"\n')
PARTITION = 'mtd77: 00100000 00020000 "flash0.nvram"\n'


@needs_strace
@pytest.mark.parametrize("files, device", [
    ({}, ()),
    ({"boardid": BOARD, "mtd": OTHER_PARTITIONS}, ()),
    ({"boardid": BOARD, "mtd": OTHER_PARTITIONS + PARTITION}, ("/dev/mtd77",)),
], ids=["no files", "no partition", "a partition"])
@pytest.mark.parametrize("made", [{}, {"mtd77": "\x01\x0d\x00PW_FORMAT=1\x00"}], ids=["no device", "a file as device"])
def test_machine_without_environment(machine, files, device, made):
    machine.lay_over_proc(**files)
    machine.lay_over_dev(**made)
    trace = observe.Strace(machine, "-e", "trace=openat")
    daemon = machine.launch("-d", wrapper=trace.wrapper)
    machine.wait_until_name_is_owned()
    os.kill(daemon.pid, signal.SIGTERM)
    assert daemon.result() == (0, MISSING_HARDWARE)
    paths = [line.split('"')[1] for line in trace.lines() if "openat(" in line]
    read = [path for path in paths if path in ("/proc/boardid", "/proc/mtd") or path.startswith("/dev/mtd")]
    assert read == ["/proc/boardid", "/proc/mtd", *device]


def test_service_describes_the_machine_in_the_kernel_log(machine):
    machine.lay_over_proc(boardid=BOARD, mtd=OTHER_PARTITIONS)
    machine.start()
    machine.stop()
    assert machine.kernel_log.read() == MISSING_HARDWARE
