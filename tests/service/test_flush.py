"""When the file is written and by which system calls. The long waits are in test_flush_deadline."""

import re
import time

import pytest

from world import observe
from world.harness import wait_for
from world.observe import Strace, needs_strace

pytestmark = needs_strace

FILE = "/var/lib/plinthware/registry"
NEW = FILE + "~~new"
DELAY = 60


def registry_calls(lines):
    """The calls on the registry file and those that sync anything, without thread, descriptor numbers and padding."""
    calls = []
    for line in observe.whole_calls(lines):
        call = line.split(" ", 1)[1]
        if FILE in call or re.match(r"f?sync|fdatasync|msync|sync_file_range", call):
            call = re.sub(r"\b\d+(<[^>]*>)", r"\1", call)
            calls.append(re.sub(r"AT_FDCWD<[^>]*>", "AT_FDCWD", re.sub(r"\) += ", ") = ", call)))
    return calls


def replacement(text, access="0"):
    """The calls of one write of the file, in their order; `text` as strace quotes it."""
    size = len(text.encode().decode("unicode_escape"))
    return [
        f'access("{FILE}", W_OK) = {access}',
        f'openat(AT_FDCWD, "{NEW}", O_WRONLY|O_CREAT|O_TRUNC|O_CLOEXEC, 0600) = <{NEW}>',
        f'write(<{NEW}>, "{text}", {size}) = {size}',
        f"close(<{NEW}>) = 0",
        f'rename("{NEW}", "{FILE}") = 0',
    ]


NO_FILE = "-1 ENOENT (No such file or directory)"
FIRST_READ = f'openat(AT_FDCWD, "{FILE}", O_RDONLY|O_CLOEXEC) = {NO_FILE}'


@pytest.fixture
def strace(world):
    return Strace(world, "-s", "40000", "-e", f"trace={observe.FILE_CALLS}")


@pytest.fixture
def traced(world, strace):
    """A daemon whose calls on files are logged."""
    return world.start(wrapper=strace.wrapper)


@pytest.fixture
def traced_client(traced):
    client = traced.client()
    yield client
    client.close()


def test_write_of_the_file_is_a_replacement_without_a_sync(strace, traced, traced_client):
    traced_client.write("net", "ip", "1")
    traced_client.flush()
    traced_client.write("net", "ip", "22")
    traced_client.flush()
    traced.stop()
    assert registry_calls(strace.finished_lines(traced)) == [
        FIRST_READ,
        *replacement(r"[net]\nip=1\n", NO_FILE),
        *replacement(r"[net]\nip=22\n"),
    ]


def test_empty_registry_becomes_an_empty_file(world, strace, traced, traced_client):
    traced_client.delete_all()
    traced_client.flush()
    traced.stop()
    calls = registry_calls(strace.finished_lines(traced))
    assert [call.split("(")[0] for call in calls] in (["openat", "access", "openat", "close", "rename"],
                                                      ["openat", "access", "openat", "write", "close", "rename"])
    assert world.registry.exists() and world.registry_bytes() == b""


def test_burst_of_writes_and_one_flush_is_one_write_of_the_file(world, strace, traced, traced_client):
    for i in range(500):
        traced_client.write("net", f"key{i:03}", "value")
    assert not world.registry.exists()
    traced_client.flush()
    traced.stop()
    text = "[net]\\n" + "".join(f"key{i:03}=value\\n" for i in range(500))
    assert registry_calls(strace.finished_lines(traced)) == [FIRST_READ, *replacement(text, NO_FILE)]


def test_import_of_an_empty_object_writes_at_once(world, strace, traced, traced_client):
    traced_client.write("net", "ip", "1")
    traced_client.write_json("{}")
    assert world.registry_bytes() == b"[net]\nip=1\n"
    traced.stop()
    assert registry_calls(strace.finished_lines(traced)) == [FIRST_READ, *replacement(r"[net]\nip=1\n", NO_FILE)]


def test_flush_with_nothing_pending_makes_no_call_on_the_file(strace, traced, traced_client):
    traced_client.flush()
    traced_client.write("net", "ip", "1")
    traced_client.flush()
    traced_client.flush()
    assert traced_client.read("net", "ip") == "1"
    traced_client.delete_key("net", "absent")
    traced_client.flush()
    traced.stop()
    assert registry_calls(strace.finished_lines(traced)) == [FIRST_READ, *replacement(r"[net]\nip=1\n", NO_FILE)]


def test_pending_text_is_written_once_at_the_end(strace, traced, traced_client):
    traced_client.write("net", "ip", "1")
    traced_client.write("net", "ip", "22")
    traced.stop()
    assert registry_calls(strace.finished_lines(traced)) == [FIRST_READ, *replacement(r"[net]\nip=22\n", NO_FILE)]


def test_file_is_read_once(world, strace):
    world.registry.write_bytes(b"[net]\nip=1\n")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    for _ in range(3):
        assert client.read("net", "ip") == "1"
        assert client.section_list() == ["net"]
    client.close()
    daemon.stop()
    calls = registry_calls(strace.finished_lines(daemon))
    assert [call for call in calls if call.startswith("openat")] == [
        f'openat(AT_FDCWD, "{FILE}", O_RDONLY|O_CLOEXEC) = <{FILE}>']


def test_refused_write_leaves_the_pending_text(world, strace, traced, traced_client):
    traced_client.write("net", "ip", "1")
    assert traced_client.error("Write", "net", "ip", "x" * 20000)[0].endswith(".Full")
    traced.stop()
    assert registry_calls(strace.finished_lines(traced)) == [FIRST_READ, *replacement(r"[net]\nip=1\n", NO_FILE)]


def timed_waits(strace):
    """Clock and end of each wait with an end, in seconds, in the order of the log."""
    waits = []
    for line in strace.lines():
        match = re.search(r"FUTEX_WAIT_BITSET\w*(\|FUTEX_CLOCK_REALTIME)?, \d+, \{tv_sec=(\d+), tv_nsec=(\d+)\}", line)
        if match:
            clock = "realtime" if match.group(1) else "monotonic"
            waits.append((clock, int(match.group(2)) + int(match.group(3)) / 1e9))
    return waits


def waits_without_end(strace):
    return len([line for line in strace.lines() if re.search(r"FUTEX_WAIT_BITSET\S*, \d+, NULL", line)])


def test_deadline_is_a_point_on_the_monotonic_clock_and_later_writes_keep_it(world):
    strace = Strace(world, "-e", "trace=futex")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    wait_for(lambda: waits_without_end(strace) == 1, "the worker waits")
    assert timed_waits(strace) == []

    earliest = time.monotonic() + DELAY
    client.write("net", "ip", "1")
    latest = time.monotonic() + DELAY
    wait_for(lambda: timed_waits(strace), "the worker waits for the deadline")
    for i in range(10):
        client.write("net", "ip", str(i))
    first = set(timed_waits(strace))
    assert len(first) == 1
    (clock, deadline), = first
    assert clock == "monotonic"
    assert earliest <= deadline <= latest

    # A flush disarms, the next change arms anew.
    armed = len(timed_waits(strace))
    client.flush()
    wait_for(lambda: waits_without_end(strace) == 2, "the worker waits without a deadline")
    assert len(timed_waits(strace)) == armed
    earliest = time.monotonic() + DELAY
    client.write("net", "ip", "2")
    wait_for(lambda: len(timed_waits(strace)) > armed, "the worker waits for the new deadline")
    clock, deadline = timed_waits(strace)[-1]
    assert clock == "monotonic"
    assert earliest <= deadline <= time.monotonic() + DELAY
    client.close()
    daemon.stop()


def test_nothing_is_waited_for_on_the_wall_clock(world):
    """In the daemon's whole life: a jump of the clock moves no deadline."""
    strace = Strace(world, "-e", r"trace=futex,%clock,/timer|nanosleep|alarm|timedwait")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    client.write("net", "ip", "1")
    wait_for(lambda: timed_waits(strace), "the worker waits for the deadline")
    client.flush()
    client.write("net", "ip", "2")
    client.close()
    daemon.stop()
    # A wait without an end names a clock too.
    lines = [line for line in strace.finished_lines(daemon) if not re.search(r"FUTEX_WAIT\S*, \d+, NULL", line)]
    assert {clock for clock, _ in timed_waits(strace)} == {"monotonic"}
    assert [line for line in lines if "REALTIME" in line] == []
    assert [line for line in lines if re.search(r"settime|adjtime|setitimer|alarm|timer_create|timerfd", line)] == []
