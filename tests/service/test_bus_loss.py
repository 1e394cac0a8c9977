"""A bus that goes away, hangs, cannot be waited for, or sends more than the memory holds."""

import re
import resource
import signal
import time

import dbus.lowlevel
import pytest

from world import observe
from world.harness import BUS_NAME, INTERFACE, OBJECT_PATH, PATIENCE, is_sanitized, wait_for
from world.observe import needs_strace

BOUND_OF_THE_END = 1.0
MOST_TICKS = 5  # of a hundred in a second
LOST = "ledgerd lost its connection to the bus.\n"


def wait_for_zombie(daemon, patience=PATIENCE):
    """Waits until the process has ended, and leaves what /proc tells of it."""
    wait_for(lambda: observe.status(daemon.pid)["State"].startswith("Z"), "the daemon ends", patience)


def stop_bus(world):
    world.bus.process.send_signal(signal.SIGSTOP)
    wait_for(lambda: observe.status(world.bus.process.pid)["State"].startswith("T"), "the bus is stopped")


@pytest.mark.parametrize("pending", [False, True], ids=["nothing pending", "text pending"])
def test_killed_bus_ends_the_daemon_with_one_line_and_a_flush(world, pending):
    daemon = world.start()
    client = daemon.client()
    if pending:
        client.write("net", "ip", "1")
    ticks = observe.cpu_ticks(daemon.pid)
    began = time.monotonic()
    world.bus.process.kill()
    wait_for_zombie(daemon)
    assert time.monotonic() - began < BOUND_OF_THE_END
    assert observe.cpu_ticks(daemon.pid) - ticks < MOST_TICKS
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == LOST
    assert world.registry.exists() == pending
    assert world.registry_bytes() == (b"[net]\nip=1\n" if pending else b"")


def test_bus_that_ends_in_order_ends_the_daemon_too(world, daemon):
    world.bus.process.terminate()
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == LOST


def test_signal_and_lost_bus_at_the_same_time_end_the_daemon(world):
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "1")
    daemon.signal(signal.SIGSTOP)
    world.bus.process.kill()
    world.bus.process.wait()
    daemon.signal(signal.SIGTERM)
    daemon.signal(signal.SIGCONT)
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() in ("", LOST)
    assert world.registry_bytes() == b"[net]\nip=1\n"


def test_wait_that_fails_ends_the_daemon(world, daemon, client):
    """The kernel refuses to wait for more descriptors than a process may have."""
    if is_sanitized(world):
        pytest.skip("a sanitizer needs descriptors of its own")
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (1, 1))
    # A wait that has begun goes on until there is something to do.
    ask_for_all(client.connection, 1)
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == "ledgerd caught exception: poll: Invalid argument (22)\n"


# Megabytes: too few to receive the message, and enough for that, but not for its copy.
@pytest.mark.parametrize("room", [16, 48])
def test_message_that_does_not_fit_into_memory_ends_the_daemon_with_a_flush(world, room):
    if is_sanitized(world):
        pytest.skip("a sanitizer ends the process if there is no memory")
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "1")
    limit = int(observe.status(daemon.pid)["VmSize"].split()[0]) * 1024 + room * 2**20
    resource.prlimit(daemon.pid, resource.RLIMIT_AS, (limit, limit))
    assert client.error("WriteJson", "x" * 30000000)[0] == "org.freedesktop.DBus.Error.NoReply"
    client.close()
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == "ledgerd caught exception: not enough memory for a message\n"
    assert world.registry_bytes() == b"[net]\nip=1\n"


def test_signal_ends_the_daemon_while_the_bus_hangs(world):
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "1")
    stop_bus(world)
    began = time.monotonic()
    daemon.signal(signal.SIGTERM)
    assert daemon.wait_end() == 0
    assert time.monotonic() - began < BOUND_OF_THE_END
    assert world.registry_bytes() == b"[net]\nip=1\n"


def test_idle_daemon_spends_nothing_while_the_bus_hangs(world, daemon, client):
    client.write("net", "ip", "1")
    stop_bus(world)
    assert ticks_in_a_second(daemon) < MOST_TICKS
    world.bus.process.send_signal(signal.SIGCONT)
    assert client.read("net", "ip") == "1"


def ticks_in_a_second(daemon):
    """The processor time of one second; less if the daemon ends, which fails."""
    ticks = observe.cpu_ticks(daemon.pid)
    with pytest.raises(AssertionError, match="timed out"):
        wait_for(lambda: daemon.process.poll() is not None, "the daemon ends", patience=1)
    return observe.cpu_ticks(daemon.pid) - ticks


def ask_for_all(connection, count):
    """Sends calls with a large reply each, and reads no reply."""
    for _ in range(count):
        connection.send_message(dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, "ReadAllJson"))
    connection.flush()


@needs_strace
def test_daemon_with_replies_to_write_neither_spins_nor_stays_while_the_bus_hangs(world):
    """The daemon is stopped while the calls come, and the bus before the replies go, so that they have to wait."""
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "x" * 16000)
    daemon.signal(signal.SIGSTOP)
    asking = world.bus.connect()
    ask_for_all(asking, 100)
    # The bus answers in order: it has dealt with the calls before.
    for _ in range(3):
        assert asking.name_has_owner(BUS_NAME)
    stop_bus(world)

    log = world.path / "blocked"
    tracer = observe.attached_strace(daemon.pid, log, "-e", "trace=sendmsg,sendto,write,writev,poll")
    wait_for(lambda: log.exists() and "--- stopped by SIGSTOP" in log.read_text(), "strace is attached")
    daemon.signal(signal.SIGCONT)
    wait_for(lambda: "EAGAIN" in log.read_text(), "the bus takes no more replies")
    # While it writes it does not read: that is what holds back a client that never reads its replies.
    writing = re.compile(r"\d+ +poll\(\[\{fd=(\d+), events=POLLOUT\}, \{fd=(?!\1)\d+, events=POLLIN\}\], 2,")
    wait_for(lambda: writing.match(log.read_text().splitlines()[-1]), "the daemon waits to write, and for a signal")
    tracer.send_signal(signal.SIGINT)
    tracer.wait()

    assert ticks_in_a_second(daemon) < MOST_TICKS
    began = time.monotonic()
    daemon.signal(signal.SIGTERM)
    assert daemon.wait_end() == 0
    assert time.monotonic() - began < BOUND_OF_THE_END
    assert world.registry_bytes() == b"[net]\nip=" + b"x" * 16000 + b"\n"
    asking.close()


def test_bus_that_is_killed_while_replies_wait_ends_the_daemon(world):
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "x" * 16000)
    daemon.signal(signal.SIGSTOP)
    ask_for_all(client.connection, 100)
    for _ in range(3):
        assert client.connection.name_has_owner(BUS_NAME)
    stop_bus(world)
    daemon.signal(signal.SIGCONT)
    wait_for(lambda: observe.status(daemon.pid)["State"].startswith("S"), "the daemon waits for the bus")
    world.bus.process.kill()
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == LOST
    assert world.registry_bytes() == b"[net]\nip=" + b"x" * 16000 + b"\n"


def test_replies_that_had_to_wait_all_arrive_when_the_bus_goes_on(world, daemon):
    client = daemon.client()
    client.write("net", "ip", "x" * 16000)
    daemon.signal(signal.SIGSTOP)
    replies = []
    connection = client.connection
    pending = [connection.send_message_with_reply(
        dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, "ReadAllJson"), replies.append, PATIENCE)
        for _ in range(100)]
    connection.flush()
    for _ in range(3):
        assert connection.name_has_owner(BUS_NAME)
    stop_bus(world)
    daemon.signal(signal.SIGCONT)
    wait_for(lambda: observe.status(daemon.pid)["State"].startswith("S"), "the daemon waits for the bus")
    world.bus.process.send_signal(signal.SIGCONT)
    for each in pending:
        each.block()
    assert len(replies) == 100
    assert all(len(str(reply.get_args_list()[0])) > 16000 for reply in replies)
    client.close()
