"""The deferred write at its real delay of a minute."""

import time

from file_calls import NO_FILE, registry_calls, replacement, timed_waits
from world import observe
from world.harness import wait_for

pytestmark = observe.needs_strace

DELAY = 60


def test_writes_at_0_30_and_50_seconds_are_one_write_of_the_file_at_60(world):
    """The log of system calls proves the moment of the write, however late a busy machine runs the test."""
    strace = observe.Strace(world, "-e", f"trace=futex,{observe.FILE_CALLS}")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    earliest = time.monotonic() + DELAY
    client.write("net", "ip", "at 0")
    latest = time.monotonic() + DELAY
    for moment in (30, 50):
        wait_for(lambda: time.monotonic() >= earliest - DELAY + moment, "it is time to write", patience=DELAY)
        client.write("net", "ip", f"at {moment}")
    wait_for(world.registry.exists, "the file is written", patience=DELAY)

    # The file is up to date, so neither a flush nor the end writes it again.
    assert client.read("net", "ip") == "at 50"
    client.flush()
    client.close()
    daemon.stop()
    lines = strace.finished_lines(daemon)
    assert registry_calls(lines)[1:] == replacement(r"[net]\nip=at 50\n", NO_FILE)
    calls = observe.whole_calls(lines)
    write = next(number for number, call in enumerate(calls) if "W_OK" in call)
    worker = calls[write].split()[0]
    waits = [call for call in calls[:write] if call.startswith(worker) and timed_waits([call])]
    (deadline,) = {end for _, end in timed_waits(waits)}
    assert earliest <= deadline <= latest
    assert "ETIMEDOUT" in waits[-1], "the write begins after the deadline"
