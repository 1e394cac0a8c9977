"""Each error of each system call that reads the file at the start. The table and its rules are in fault_table.py."""

import os

import pytest

from fault_table import READ_FAULTS
from file_calls import FILE, NEW, rule, steps
from victim import OLD
from world import observe


@observe.needs_strace
@pytest.mark.parametrize("fault", READ_FAULTS, ids=str)
def test_file_whose_first_read_fails_is_an_empty_registry(world, fault):
    world.registry.write_bytes(OLD)
    strace = observe.Strace(world, "-P", FILE, rule(fault.step, f"error={fault.error}", fault.when))
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    assert daemon.take_stderr() == fault.printed
    assert client.read_all_json() == ('{"net":{"ip":"old"}}' if fault.is_harmless else "{}")
    # Nothing is pending.
    client.flush()
    assert world.registry_bytes() == OLD
    client.write("net", "mask", "24")
    client.flush()
    client.close()
    daemon.stop()
    assert world.registry_bytes() == (b"[net]\nip=old\nmask=24\n" if fault.is_harmless else b"[net]\nmask=24\n")
    assert os.listdir(world.registry.parent) == ["registry"]
    reading = [line for line in strace.finished_lines(daemon) if NEW not in line and "W_OK" not in line]
    assert steps(reading) == fault.steps
