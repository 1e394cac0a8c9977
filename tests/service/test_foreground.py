"""The daemon in the foreground: its process, its streams and descriptors, its end, and its system calls."""

import os
import signal
import time

import pytest

from world import observe
from world.harness import is_sanitized, wait_for
from world.observe import needs_strace


def test_process_is_the_started_one_and_writes_no_pid_file(world):
    # Only the first argument counts.
    daemon = world.start("-d", "-k", "surplus")
    assert world.owner() == daemon.pid
    wait_for(lambda: observe.thread_named(daemon.pid, observe.WORKER_NAME), "the worker has its name")
    assert observe.thread_named(daemon.pid, observe.PROCESS_NAME) == daemon.pid
    daemon.stop()
    # mount(8), which made the daemon's world, may leave a directory of its own there.
    assert set(os.listdir(world.path / "run")) <= {"mount"}


@pytest.mark.parametrize("name", observe.TERMINATION_SIGNALS)
@pytest.mark.parametrize("wrapper", [(), ("env", "--ignore-signal"), ("env", "--block-signal")],
                         ids=["usual", "ignored by the starter", "blocked by the starter"])
def test_signal_ends_the_daemon_with_status_0_and_the_pending_text_written(world, wrapper, name):
    daemon = world.start(wrapper=wrapper)
    daemon.client().write("net", "ip", "10.0.0.1")
    assert not world.registry.exists()
    daemon.signal(getattr(signal, name))
    assert daemon.wait_end() == 0
    assert world.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    assert os.listdir(world.registry.parent) == ["registry"]


def test_seven_descriptors_are_enough(world):
    if is_sanitized(world):
        pytest.skip("a sanitizer needs descriptors of its own")
    client = world.start(wrapper=("prlimit", "--nofile=7")).client()
    client.write("net", "ip", "10.0.0.1")
    client.flush()


def test_broken_standard_error_changes_nothing_else(world):
    reader, writer = os.pipe()
    os.close(reader)
    # It prints its first lines before it serves.
    daemon = world.start(stderr=writer)
    os.close(writer)
    daemon.client().write("net", "ip", "10.0.0.1")
    daemon.stop()
    assert world.registry_bytes() == b"[net]\nip=10.0.0.1\n"


def test_closed_standard_streams_are_opened_on_the_null_device(world):
    # A directory in place of the file makes the daemon print a line after all its descriptors are open.
    world.registry.mkdir()
    daemon = world.start(wrapper=("sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"))
    client = daemon.client()
    assert client.section_list() == []
    found = observe.descriptors(daemon.pid)
    assert [found.pop(fd) for fd in (0, 1, 2)] == ["/dev/null"] * 3
    assert sorted(target.split(":")[0] for target in found.values()) == ["pipe", "pipe", "socket"]
    world.registry.rmdir()
    client.write("net", "ip", "10.0.0.1")
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    client.write("net", "ip", "10.0.0.2")
    # It prints another line before the last flush.
    world.bus.close()
    assert daemon.wait_end() == 0
    assert world.registry_bytes() == b"[net]\nip=10.0.0.2\n"


def test_standard_streams_are_kept_and_other_descriptors_are_closed_on_exec(world):
    (reader, writer), (other_reader, other_writer) = os.pipe(), os.pipe()
    daemon = world.start(stdin=reader, stdout=other_writer)
    daemon.client().write("net", "ip", "10.0.0.1")
    found = observe.descriptors(daemon.pid)
    given = [os.readlink(f"/proc/self/fd/{fd}") for fd in (reader, other_writer)]
    assert [found.pop(fd) for fd in (0, 1, 2)] == [*given, str(daemon.stderr_path)]
    assert len(found) == 3
    assert all(observe.open_flags(daemon.pid, fd) & os.O_CLOEXEC for fd in found)
    daemon.stop()
    os.close(other_writer)
    assert os.read(other_reader, 1) == b""
    for fd in (reader, writer, other_reader):
        os.close(fd)


@needs_strace
def test_idle_daemon_makes_no_system_call(world, daemon, client):
    for i in range(20):
        client.write("net", f"key{i}", "value")
        assert client.read("net", f"key{i}") == "value"
    client.flush()
    # Another one has never served: it waits for the name.
    daemons = {daemon: world.path / "idle.served", world.start(wait=False): world.path / "idle.fresh"}
    wait_for(lambda: len(world.bus.call("ListQueuedOwners")) == 2, "the second daemon waits for the name")
    tracers = [observe.attached_strace(each.pid, log) for each, log in daemons.items()]

    def texts():
        return [log.read_text() if log.exists() else "" for log in daemons.values()]

    for each, log in daemons.items():
        # strace interrupts the waiting calls once. Each thread then prints the call that it continues.
        wait_for(lambda: {line.split()[0] for line in log.read_text().splitlines()}
                 >= set(map(str, observe.thread_names(each.pid))), "strace has seen all threads")
    settled = wait_until_unchanged(texts)
    with pytest.raises(AssertionError, match="timed out"):
        wait_for(lambda: texts() != settled, "a system call is made", patience=10)

    # strace notices a call at once.
    assert client.read("net", "key0") == "value"
    wait_for(lambda: texts() != settled, "the call is in the log")
    for tracer in tracers:
        tracer.send_signal(signal.SIGINT)
        tracer.wait()


def wait_until_unchanged(read, seconds=0.3):
    """Waits until read() has returned the same for so long. Returns that."""
    value, since = None, 0.0

    def is_unchanged():
        nonlocal value, since
        if (now := read()) != value:
            value, since = now, time.monotonic()
        return time.monotonic() - since >= seconds

    wait_for(is_unchanged, "the daemon is idle")
    return value
