"""The life of a daemon in the foreground: what it starts with, what it leaves alone, how it ends."""

import contextlib
import itertools
import os
import random
import re
import resource
import signal
import time

import pytest

from world import observe
from world.harness import BUS_NAME, ERROR_PREFIX, INTERFACE, MISSING_HARDWARE, OBJECT_PATH, World, is_sanitized, wait_for
from world.observe import needs_strace
from test_kill import NO_PID_FILE

ALL_CLOSED_STREAMS = [closed for n in (1, 2, 3) for closed in itertools.combinations((0, 1, 2), n)]


def without_streams(closed):
    """A wrapper that starts the daemon with some of the descriptors 0 to 2 closed."""
    return ("sh", "-c", 'exec "$@" ' + " ".join(f"{fd}>&-" for fd in closed), "without-streams")


def test_main_thread_and_worker_have_their_names(daemon):
    wait_for(lambda: observe.thread_named(daemon.pid, observe.WORKER_NAME), "the worker has its name")
    assert observe.thread_named(daemon.pid, observe.PROCESS_NAME) == daemon.pid


def test_only_the_first_argument_counts(world):
    daemon = world.start("-d", "-k", "surplus")
    assert observe.status(daemon.pid)["Name"] == observe.PROCESS_NAME


def test_foreground_neither_forks_nor_writes_a_pid_file(world, daemon):
    # The process that was started owns the name: no child took its place.
    connection = world.bus.connect()
    owner = connection.get_name_owner(BUS_NAME)
    bus = connection.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus")
    assert bus.GetConnectionUnixProcessID(owner, dbus_interface="org.freedesktop.DBus") == daemon.pid
    connection.close()
    # mount(8), which made the daemon's world, may leave a directory of its own there.
    assert set(os.listdir(world.path / "run")) <= {"mount"}
    daemon.stop()
    assert set(os.listdir(world.path / "run")) <= {"mount"}


@pytest.mark.parametrize("name", observe.TERMINATION_SIGNALS)
@pytest.mark.parametrize("wrapper", [(), ("env", "--ignore-signal"), ("env", "--block-signal")],
                         ids=["usual", "ignored by the starter", "blocked by the starter"])
def test_signal_ends_the_daemon_with_status_0_and_the_pending_text_written(world, wrapper, name):
    daemon = world.start(wrapper=wrapper)
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    assert not world.registry.exists()
    daemon.signal(getattr(signal, name))
    assert daemon.wait_end() == 0
    client.close()
    assert world.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    assert os.listdir(world.registry.parent) == ["registry"]


def test_end_without_a_change_leaves_the_file_alone(world):
    world.registry.write_bytes(b"\r\n[net]\r\nip=1\r\n")
    before = world.registry.stat()
    daemon = world.start()
    client = daemon.client()
    assert client.read("net", "ip") == "1"
    client.close()
    daemon.stop()
    after = world.registry.stat()
    assert (before.st_ino, before.st_mtime_ns) == (after.st_ino, after.st_mtime_ns)
    assert world.registry_bytes() == b"\r\n[net]\r\nip=1\r\n"


def test_missing_bus_is_reported_and_the_status_is_0(world):
    world.bus.close()
    daemon = world.start(wait=False)
    assert daemon.wait_end() == 0
    assert re.fullmatch(r"ledgerd caught exception: Failed to connect to socket [^\n]+\n", daemon.take_stderr())


def test_bus_that_refuses_the_name_is_reported_and_the_status_is_0(world):
    world.bus.refuse_name()
    daemon = world.start(wait=False)
    assert daemon.wait_end() == 0
    assert re.fullmatch(rf'ledgerd caught exception: [^\n]*not allowed to own the service "{BUS_NAME}"[^\n]*\n',
                        daemon.take_stderr())


def test_second_instance_waits_for_the_name_and_takes_it_over(world, daemon):
    connection = world.bus.connect()

    def owners():
        return connection.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                        "ListQueuedOwners", "s", (BUS_NAME,))

    second = world.start(wait=False)
    first_owner, waiting = wait_for(lambda: len(found := owners()) == 2 and found, "the second instance queues")
    # Under its own name it answers already, which tells that it has read the file.
    assert connection.call_blocking(waiting, OBJECT_PATH, INTERFACE, "Read", "ss", ("net", "ip")) == ""
    client = daemon.client()
    client.write("net", "ip", "first")
    assert connection.get_name_owner(BUS_NAME) == first_owner
    daemon.stop()
    wait_for(lambda: connection.name_has_owner(BUS_NAME) and connection.get_name_owner(BUS_NAME) == waiting,
             "the second instance has the name")
    # It has its own memory, filled at its start.
    assert client.read("net", "ip") == ""
    client.write("net", "ip", "second")
    assert client.read("net", "ip") == "second"
    client.close()
    connection.close()
    second.stop()
    assert world.registry_bytes() == b"[net]\nip=second\n"


NO_DESCRIPTORS = "ledgerd caught exception: dispatcher pipe: Too many open files (24)\n"
DIED_EARLY = "ledgd: Child died early\nledgerd caught exception: ledgd: Child died early\n"


@pytest.mark.parametrize("arguments, printed, logged", [
    (["-d"], MISSING_HARDWARE + NO_DESCRIPTORS, ""),
    ([], DIED_EARLY, NO_DESCRIPTORS),
    (["-k"], NO_PID_FILE, ""),
], ids=["foreground", "daemon", "stop"])
@pytest.mark.parametrize("limit", [4, 5, 6])
def test_too_few_descriptors_are_reported_and_the_status_is_0(machine, limit, arguments, printed, logged):
    if is_sanitized(machine):
        pytest.skip("a sanitizer needs descriptors of its own")
    command = machine.run(*arguments, wrapper=("prlimit", f"--nofile={limit}"))
    assert (command.status, command.take_stderr()) == (0, printed)
    assert machine.take_log() == logged


def test_seven_descriptors_are_enough(world):
    if is_sanitized(world):
        pytest.skip("a sanitizer needs descriptors of its own")
    daemon = world.start(wrapper=("prlimit", "--nofile=7"))
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    client.flush()
    client.close()


def test_file_size_limit_fails_the_flush_and_the_text_stays_pending(world, daemon, client):
    client.write("net", "ip", "x" * 2000)
    resource.prlimit(daemon.pid, resource.RLIMIT_FSIZE, (1000, resource.RLIM_INFINITY))
    assert client.error("Flush") == (ERROR_PREFIX + "Exception", "File too large (27)")
    assert os.listdir(world.registry.parent) == []
    resource.prlimit(daemon.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=" + b"x" * 2000 + b"\n"


def test_broken_standard_error_changes_nothing_else(world):
    reader, writer = os.pipe()
    os.close(reader)
    # It prints its first lines before it serves.
    daemon = world.start(stderr=writer)
    os.close(writer)
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    client.close()
    daemon.stop()
    assert world.registry_bytes() == b"[net]\nip=10.0.0.1\n"


@pytest.mark.parametrize("closed", ALL_CLOSED_STREAMS, ids=lambda closed: "closed" + "".join(map(str, closed)))
def test_closed_standard_streams_are_taken_by_nothing_else(world, closed):
    # A directory in the file's place makes the daemon print a line, long after its descriptors are open.
    world.registry.mkdir()
    daemon = world.start(wrapper=without_streams(closed))
    client = daemon.client()
    # Once it answers it has read the file, and has all its descriptors.
    assert client.key_exists("net", "ip") is False
    given = {0: "/dev/null", 1: "/dev/null", 2: str(daemon.stderr_path)}
    found = observe.descriptors(daemon.pid)
    for fd in (0, 1, 2):
        assert found[fd] == ("/dev/null" if fd in closed else given[fd])
    kinds = sorted(target.split(":")[0] for fd, target in found.items() if fd > 2)
    assert kinds == ["pipe", "pipe", "socket"]

    world.registry.rmdir()
    client.write("net", "ip", "10.0.0.1")
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    client.write("net", "ip", "10.0.0.2")
    # The lost bus makes it print once more, just before the last flush.
    world.bus.close()
    assert daemon.wait_end() == 0
    assert world.registry_bytes() == b"[net]\nip=10.0.0.2\n"
    expected = "" if 2 in closed else "Error reading registry file: 21\nledgerd lost its connection to the bus.\n"
    assert daemon.take_stderr() == expected


def test_given_standard_streams_are_kept_and_nothing_is_written_to_them(world):
    ends = [os.pipe() for _ in range(2)]
    daemon = world.start(stdin=ends[0][0], stdout=ends[1][1])
    found = observe.descriptors(daemon.pid)
    assert found[0] == os.readlink(f"/proc/self/fd/{ends[0][0]}")
    assert found[1] == os.readlink(f"/proc/self/fd/{ends[1][1]}")
    assert found[2] == str(daemon.stderr_path)
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    client.close()
    daemon.stop()
    os.close(ends[1][1])
    assert os.read(ends[1][0], 1) == b""
    for fd in (*ends[0], ends[1][0]):
        os.close(fd)


def test_descriptors_above_the_standard_streams_do_not_survive_an_exec(daemon, client):
    assert client.section_list() == []
    own = [fd for fd in observe.descriptors(daemon.pid) if fd > 2]
    assert len(own) == 3
    assert [fd for fd in own if not observe.closes_on_exec(daemon.pid, fd)] == []


def test_directory_in_place_of_the_file_is_reported_and_read_as_empty(world):
    world.registry.mkdir()
    daemon = world.start()
    client = daemon.client()
    assert client.section_list() == []
    client.close()
    assert daemon.take_stderr() == "Error reading registry file: 21\n"


def test_missing_file_is_an_empty_registry_without_a_message(daemon, client):
    assert client.section_list() == []
    assert daemon.stderr() == ""


def test_file_of_random_bytes_is_loaded(world):
    for seed in range(20):
        size = (0, 1, 2, 511, 512, 513, 16383, 16384, 100000)[seed % 9]
        # Lines and headers are rare in plain noise, and a NUL ends the text.
        alphabet = bytes(range(256)) if seed % 2 else b"[]=%\r\n" * 8 + bytes(range(1, 256))
        world.registry.write_bytes(bytes(random.Random(seed).choices(alphabet, k=size)))
        daemon = world.start()
        client = daemon.client()
        assert client.key_exists("no such section", "key") is False, f"seed {seed}"
        client.delete_all()
        client.write("net", "ip", "10.0.0.1")
        client.close()
        daemon.stop()
        assert world.registry_bytes() == b"[net]\nip=10.0.0.1\n", f"seed {seed}"


@needs_strace
def test_idle_daemon_makes_no_system_call(world, daemon):
    with contextlib.closing(World(world.binary)) as busy_world:
        served = busy_world.start()
        client = served.client()
        for i in range(20):
            client.write("net", f"key{i}", "value")
            assert client.read("net", f"key{i}") == "value"
        client.flush()

        logs = [world.path / "idle.fresh", world.path / "idle.served"]
        tracers = [observe.attached_strace(each.pid, log) for each, log in zip((daemon, served), logs)]
        for each, log in zip((daemon, served), logs):
            # Attaching interrupts the waiting calls once; each thread then shows the call that it went back to.
            wait_for(lambda: log.exists() and all(any(line.startswith(f"{thread} ") for line in lines)
                                                  for lines in [log.read_text().splitlines()]
                                                  for thread in observe.thread_names(each.pid)),
                     "strace has seen all threads")
        settled = wait_until_settled(logs)
        with pytest.raises(AssertionError, match="timed out"):
            wait_for(lambda: [log.read_text() for log in logs] != settled, "a system call is made", patience=10)

        # The tracers did look: a call shows at once.
        assert client.read("net", "key0") == "value"
        wait_for(lambda: logs[1].read_text() != settled[1], "the call is in the log")
        for tracer in tracers:
            tracer.send_signal(signal.SIGINT)
            tracer.wait()
        client.close()
        served.stop()
        assert served.take_stderr() == ""


def wait_until_settled(logs, quiet=0.3):
    """The texts of the logs once they have not changed for a moment."""
    texts, since = None, 0.0

    def settled():
        nonlocal texts, since
        now = [log.read_text() for log in logs]
        if now != texts:
            texts, since = now, time.monotonic()
        return time.monotonic() - since >= quiet

    wait_for(settled, "the daemon is idle")
    return texts
