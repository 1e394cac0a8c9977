"""The moments when the daemon writes the file, and its system calls. The real delay has test_flush_deadline.py."""

import re
import time

from file_calls import FILE, NO_FILE, registry_calls, replacement, timed_waits
from world import observe
from world.harness import wait_for

pytestmark = observe.needs_strace

DELAY = 60


def test_flushes_imports_and_the_end_replace_the_file_without_a_sync(world):
    strace = observe.Strace(world, "-s", "40000", "-e", f"trace={observe.FILE_CALLS}")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    client.flush()
    client.write("net", "ip", "1")
    assert not world.registry.exists()
    client.flush()
    assert world.registry.stat().st_mode & 0o7777 == 0o600

    # Nothing is pending.
    client.flush()
    assert client.read("net", "ip") == "1"
    client.delete_key("net", "absent")
    client.flush()

    for i in range(500):
        client.write("net", f"key{i:03}", "value")
    client.flush()
    many = r"[net]\nip=1\n" + "".join(rf"key{i:03}=value\n" for i in range(500))

    # A refused change leaves the pending text; an import writes it, and writes if nothing is pending.
    client.delete_all()
    client.write("net", "ip", "22")
    assert client.error("Write", "net", "ip", "x" * 20000)[0].endswith(".Full")
    client.write_json("{}")
    assert world.registry_bytes() == b"[net]\nip=22\n"
    client.write_json("{}")

    client.delete_all()
    client.flush()
    assert world.registry.exists() and world.registry_bytes() == b""
    client.write("net", "ip", "3")
    client.write("net", "ip", "44")
    client.close()
    daemon.stop()
    assert registry_calls(strace.finished_lines(daemon)) == [
        f'openat(AT_FDCWD, "{FILE}", O_RDONLY|O_CLOEXEC) = {NO_FILE}',
        *replacement(r"[net]\nip=1\n", NO_FILE),
        *replacement(many),
        *replacement(r"[net]\nip=22\n"),
        *replacement(r"[net]\nip=22\n"),
        *replacement(""),
        *replacement(r"[net]\nip=44\n"),
    ]


def test_deadline_is_on_the_monotonic_clock_and_nothing_waits_on_the_wall_clock(world):
    """So a jump of the wall clock moves no deadline. The cases of the deadline have unit tests."""
    strace = observe.Strace(world, "-e", r"trace=futex,%clock,/timer|nanosleep|alarm|timedwait")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    assert timed_waits(strace.lines()) == []
    earliest = time.monotonic() + DELAY
    client.write("net", "ip", "1")
    latest = time.monotonic() + DELAY
    ((clock, deadline),) = set(wait_for(lambda: timed_waits(strace.lines()), "the worker waits for the deadline"))
    assert clock == "monotonic"
    assert earliest <= deadline <= latest
    client.flush()
    client.write("net", "ip", "2")
    client.close()
    daemon.stop()
    # A wait without an end names a clock too.
    lines = [line for line in strace.finished_lines(daemon) if not re.search(r"FUTEX_WAIT\S*, \d+, NULL", line)]
    assert [line for line in lines if re.search(
        r"REALTIME|settime|adjtime|setitimer|alarm|timer_create|timerfd", line)] == []
