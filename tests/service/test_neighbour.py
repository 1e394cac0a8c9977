"""The waits of a well-behaved client in parallel with a hostile one, compared with the waits for a control: another
service on the same bus, at the same time. The machine and the bus delay both."""

import collections
import contextlib
import multiprocessing
import os
import statistics
import subprocess
import time

import pytest

from world.harness import BUS_NAME, PATIENCE, wait_for
from world.raw_client import METHOD_RETURN, RawClient, pack_call

CONTROL = "com.tavimesh.Control"

# Long enough for several texts of 30 MB.
WINDOW_SECONDS = 1.0
WINDOW_CALLS = 300

# A test takes the median of these.
ROUNDS = 3

MOST_TIMES_FREE_CONTROL = 10
MOST_TIMES_BURDENED_CONTROL = 3

LONG = 30 << 20
CALLS = 120  # The bus lets a client wait for 128 replies.
CONNECTIONS = 8


# The behaviours: each of these functions burdens a service for ever.

def never_read(bus, service):
    """Connects again and again, each time with as many calls as the bus allows, and reads no reply. It waits until the
    service has handled the calls: otherwise the bus's queue to any service grows without end."""
    calls = b"".join(pack_call(number, "ReadAllJson", destination=service) for number in range(2, 2 + CALLS))
    unread = collections.deque()
    pace = RawClient(bus)
    while True:
        hostile = RawClient(bus)
        hostile.socket.sendall(calls)
        pace.call("Read", "s", "k", destination=service)
        unread.append(hostile)
        if len(unread) > CONNECTIONS:
            unread.popleft().close()
        yield


def flood(bus, service):
    """Always waits for many replies."""
    hostile = RawClient(bus)
    call = ("Write", "flood", "k", "x" * 1000)
    for _ in range(CALLS):
        hostile.send(*call, destination=service)
    while True:
        hostile.receive()
        hostile.send(*call, destination=service)
        yield


def leave_abruptly(bus, service):
    """Connects, calls, and leaves in the middle of the next call."""
    call = pack_call(9, "Write", "leave", "k", "x" * 1000, destination=service)
    while True:
        hostile = RawClient(bus)
        hostile.send("KeyList", "s", destination=service)
        hostile.socket.sendall(call[:-100])
        hostile.close()
        yield


def send_long_texts(bus, service):
    """Imports 30 MB, again and again."""
    hostile = RawClient(bus)
    call = pack_call(9, "WriteJson", " " * LONG + "[]", destination=service)
    while True:
        hostile.socket.sendall(call)
        hostile.receive()
        yield


def run(behaviour, bus, service, niceness, begun):
    os.nice(niceness)
    for _ in behaviour(bus, service):
        begun.set()


class Neighbour:
    """A process that burdens the service within the `with` block."""

    def __init__(self, bus, service, behaviour, niceness=0):
        context = multiprocessing.get_context("fork")
        self.begun = context.Event()
        self.process = context.Process(target=run, args=(behaviour, bus, service, niceness, self.begun), daemon=True)

    def __enter__(self):
        self.process.start()
        assert self.begun.wait(PATIENCE), "the neighbour has not started"
        return self

    def __exit__(self, *_):
        has_ended = self.process.exitcode is not None
        self.process.kill()
        self.process.join()
        assert not has_ended, "the neighbour has ended"


def measure(client, *services):
    """Calls the services in turn; returns the seconds of each call of each service, in ascending order."""
    waits = [[] for _ in services]
    end = time.perf_counter() + WINDOW_SECONDS
    while time.perf_counter() < end or len(waits[0]) < WINDOW_CALLS:
        for service, seconds in zip(services, waits):
            begin = time.perf_counter()
            assert client.call("Read", "s", "k", destination=service).kind == METHOD_RETURN
            seconds.append(time.perf_counter() - begin)
    return [sorted(seconds) for seconds in waits]


def percentile(waits, percent):
    return waits[len(waits) * percent // 100]


def describe(waits):
    median, high, highest = (1e6 * wait for wait in (percentile(waits, 50), percentile(waits, 99), waits[-1]))
    return f"p50 {median:.0f} p99 {high:.0f} max {highest:.0f} us, {len(waits)} calls"


def check(rounds, bound):
    """Each round has the waits for the daemon and those for the control."""
    for daemon, control in rounds:
        print(f"daemon {describe(daemon)}; control {describe(control)}")
    ratios = [percentile(daemon, 99) / percentile(control, 99) for daemon, control in rounds]
    assert statistics.median(ratios) < bound, ratios


@pytest.fixture
def control(world, build):
    """Another service on the same bus."""
    process = subprocess.Popen([str(build.control_service), world.bus.address, CONTROL, "1"])
    with contextlib.closing(world.bus.connect()) as connection:
        wait_for(lambda: connection.name_has_owner(CONTROL), "the control service owns its name")
    yield CONTROL
    process.kill()
    process.wait()


each_behaviour = pytest.mark.parametrize("behaviour", [never_read, flood, leave_abruptly, send_long_texts])


@pytest.fixture
def good(world, client):
    client.write("s", "k", "v")
    with contextlib.closing(RawClient(world.bus)) as good:
        yield good
    assert client.read("s", "k") == "v"


@each_behaviour
def test_hostile_neighbour_makes_others_wait_little(world, daemon, good, control, behaviour):
    """The neighbour runs at the lowest priority, so the client waits for the service. Nobody burdens the control."""
    rounds = []
    for _ in range(ROUNDS):
        with Neighbour(world.bus, BUS_NAME, behaviour, niceness=19):
            rounds.append(measure(good, BUS_NAME, control))
    check(rounds, MOST_TIMES_FREE_CONTROL)


@each_behaviour
def test_hostile_neighbour_that_wants_the_processor_delays_others_no_more_than_at_another_service(
        world, daemon, good, control, behaviour):
    """There are more processes than processors, so each waits for its turn."""
    rounds = []
    for _ in range(ROUNDS):
        waits = []
        for service in (BUS_NAME, control):
            with Neighbour(world.bus, service, behaviour):
                waits += measure(good, service)
        rounds.append(waits)
    check(rounds, MOST_TIMES_BURDENED_CONTROL)
