"""A bus that ends, hangs, cannot be waited for, or sends a message that does not fit into the memory."""

import re
import resource
import signal
import time

import dbus.lowlevel
import pytest

from world import observe
from world.harness import BUS_NAME, INTERFACE, OBJECT_PATH, PATIENCE, is_sanitized, wait_for
from world.observe import needs_strace

MAX_SECONDS_TO_END = 1.0
MAX_TICKS = 5  # of a hundred in a second
LOST = "ledgerd lost its connection to the bus.\n"
LONG = "x" * 16000
REPLIES = 100


@pytest.fixture
def pending(client):
    """A client after a write, which is pending."""
    client.write("net", "ip", LONG)
    return client


def assert_written(world):
    assert world.registry_bytes() == f"[net]\nip={LONG}\n".encode()


def wait_for_state(pid, state):
    wait_for(lambda: observe.status(pid)["State"].startswith(state), f"process {pid} has the state {state}")


def stop_bus(world):
    world.bus.process.send_signal(signal.SIGSTOP)
    wait_for_state(world.bus.process.pid, "T")


def assert_ends_soon(daemon, number):
    began = time.monotonic()
    daemon.signal(number)
    assert daemon.wait_end() == 0
    assert time.monotonic() - began < MAX_SECONDS_TO_END


def ticks_in_a_second(daemon):
    """The processor time of one second, in which the daemon must not end."""
    ticks = observe.cpu_ticks(daemon.pid)
    with pytest.raises(AssertionError, match="timed out"):
        wait_for(lambda: daemon.process.poll() is not None, "the daemon ends", patience=1)
    return observe.cpu_ticks(daemon.pid) - ticks


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM], ids=["killed", "stopped"])
@pytest.mark.parametrize("change", [False, True], ids=["nothing pending", "text pending"])
def test_end_of_the_bus_ends_the_daemon_with_a_message_and_a_flush(world, daemon, client, change, number):
    if change:
        client.write("net", "ip", LONG)
    ticks = observe.cpu_ticks(daemon.pid)
    began = time.monotonic()
    world.bus.process.send_signal(number)
    # The zombie still has its processor time.
    wait_for_state(daemon.pid, "Z")
    assert time.monotonic() - began < MAX_SECONDS_TO_END
    assert observe.cpu_ticks(daemon.pid) - ticks < MAX_TICKS
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == LOST
    assert world.registry.exists() == change
    if change:
        assert_written(world)


def test_signal_and_lost_bus_at_the_same_time_end_the_daemon(world, daemon, pending):
    daemon.signal(signal.SIGSTOP)
    world.bus.close()
    daemon.signal(signal.SIGTERM)
    daemon.signal(signal.SIGCONT)
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() in ("", LOST)
    assert_written(world)


def test_wait_that_fails_ends_the_daemon(world, daemon, client):
    """The kernel refuses to wait for more descriptors than a process may have."""
    if is_sanitized(world):
        pytest.skip("a sanitizer needs descriptors of its own")
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (1, 1))
    # A wait that has begun continues until there is an event.
    ask_for_all(client.connection, 1)
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == "ledgerd caught exception: poll: Invalid argument (22)\n"


# In megabytes: too little to receive the message, and enough for the message but not for its copy.
@pytest.mark.parametrize("room", [16, 48])
def test_message_that_does_not_fit_into_memory_ends_the_daemon_with_a_flush(world, daemon, pending, room):
    if is_sanitized(world):
        pytest.skip("a sanitizer ends the process if there is no memory")
    limit = int(observe.status(daemon.pid)["VmSize"].split()[0]) * 1024 + room * 2**20
    resource.prlimit(daemon.pid, resource.RLIMIT_AS, (limit, limit))
    assert pending.error("WriteJson", "x" * 30000000)[0] == "org.freedesktop.DBus.Error.NoReply"
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == "ledgerd caught exception: not enough memory for a message\n"
    assert_written(world)


@pytest.mark.usefixtures("pending")
def test_idle_daemon_uses_no_processor_time_and_ends_on_a_signal_while_the_bus_hangs(world, daemon):
    stop_bus(world)
    assert ticks_in_a_second(daemon) < MAX_TICKS
    assert_ends_soon(daemon, signal.SIGTERM)
    assert_written(world)


def ask_for_all(connection, count):
    """Sends calls with a long reply each. Returns a list to which the replies are added, and the pending calls."""
    replies = []
    calls = [connection.send_message_with_reply(
        dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, "ReadAllJson"), replies.append, PATIENCE)
        for _ in range(count)]
    connection.flush()
    return replies, calls


@pytest.fixture
def waiting_replies(world, daemon, pending):
    """Stops the daemon while calls are sent, and the bus before the daemon has sent its replies: they have to wait."""
    daemon.signal(signal.SIGSTOP)
    asked = ask_for_all(pending.connection, REPLIES)
    # The bus answers in order: it has handled the calls before.
    for _ in range(3):
        assert pending.connection.name_has_owner(BUS_NAME)
    stop_bus(world)
    return asked


@needs_strace
@pytest.mark.usefixtures("waiting_replies")
def test_daemon_with_waiting_replies_uses_no_processor_time_and_ends_on_a_signal_while_the_bus_hangs(world, daemon):
    log = world.path / "blocked"
    tracer = observe.attached_strace(daemon.pid, log, "-e", "trace=sendmsg,sendto,write,writev,poll")
    wait_for(lambda: log.exists() and "--- stopped by SIGSTOP" in log.read_text(), "strace is attached")
    daemon.signal(signal.SIGCONT)
    wait_for(lambda: "EAGAIN" in log.read_text(), "the socket is full")
    # It does not read while it has to write: this holds back a client that never reads its replies.
    writing = re.compile(r"\d+ +poll\(\[\{fd=(\d+), events=POLLOUT\}, \{fd=(?!\1)\d+, events=POLLIN\}\], 2,")
    wait_for(lambda: writing.match(log.read_text().splitlines()[-1]), "the daemon waits to write, and for a signal")
    tracer.send_signal(signal.SIGINT)
    tracer.wait()
    assert ticks_in_a_second(daemon) < MAX_TICKS
    assert_ends_soon(daemon, signal.SIGTERM)
    assert_written(world)


@pytest.mark.usefixtures("waiting_replies")
def test_bus_that_is_killed_while_replies_wait_ends_the_daemon(world, daemon):
    daemon.signal(signal.SIGCONT)
    wait_for_state(daemon.pid, "S")
    world.bus.process.kill()
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == LOST
    assert_written(world)


def test_waiting_replies_all_arrive_when_the_bus_continues(world, daemon, waiting_replies):
    replies, calls = waiting_replies
    daemon.signal(signal.SIGCONT)
    wait_for_state(daemon.pid, "S")
    world.bus.process.send_signal(signal.SIGCONT)
    for call in calls:
        call.block()
    assert len(replies) == REPLIES
    assert all(LONG in reply.get_args_list()[0] for reply in replies)
