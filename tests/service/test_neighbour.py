"""How long a well-behaved client waits beside one that is not, compared with a control: another service on the same bus,
at the same time. What the machine and the bus add is added to both."""

import contextlib
import statistics
import subprocess
import time

import pytest

from world.harness import BUS_NAME, wait_for
from hostile_neighbour import Neighbour, flood, leave_abruptly, never_read, send_long_texts
from world.raw_client import METHOD_RETURN, RawClient

CONTROL = "com.tavimesh.Control"

# A window is long enough for several texts of 30 MB.
WINDOW_SECONDS = 1.0
WINDOW_CALLS = 300

# A test measures so often; its verdict is that of the middle one.
ROUNDS = 3

MOST_TIMES_FREE_CONTROL = 10
MOST_TIMES_BURDENED_CONTROL = 3


class Waits:
    """How long each of many calls took, in seconds."""

    def __init__(self):
        self.seconds = []

    def add(self, client, service):
        begin = time.perf_counter()
        assert client.call("Read", "s", "k", destination=service).kind == METHOD_RETURN
        self.seconds.append(time.perf_counter() - begin)

    def percentile(self, percent):
        return sorted(self.seconds)[len(self.seconds) * percent // 100]

    def __str__(self):
        median, high, highest = (1e6 * wait for wait in (self.percentile(50), self.percentile(99), max(self.seconds)))
        return f"p50 {median:.0f} p99 {high:.0f} max {highest:.0f} us, {len(self.seconds)} calls"


def measure(client, *services):
    """Calls the services in turn; returns the waits for each."""
    waits = [Waits() for _ in services]
    end = time.perf_counter() + WINDOW_SECONDS
    while time.perf_counter() < end or len(waits[0].seconds) < WINDOW_CALLS:
        for service, its_waits in zip(services, waits):
            its_waits.add(client, service)
    return waits


def check(rounds, bound):
    """Each round is the waits for the daemon and those for the control."""
    for burdened, control in rounds:
        print(f"daemon {burdened}; control {control}")
    ratios = [burdened.percentile(99) / control.percentile(99) for burdened, control in rounds]
    assert statistics.median(ratios) < bound, ratios


@pytest.fixture
def control(world, request):
    """Another service on the same bus."""
    process = subprocess.Popen([str(request.config.getoption("--control-service")), world.bus.address, CONTROL, "1"])
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
    """The neighbour has the processor when nobody else wants it: what is left is the wait for the service. Nobody burdens
    the control."""
    rounds = []
    for _ in range(ROUNDS):
        with Neighbour(world.bus, BUS_NAME, behaviour, niceness=19):
            rounds.append(measure(good, BUS_NAME, control))
    check(rounds, MOST_TIMES_FREE_CONTROL)


@each_behaviour
def test_hostile_neighbour_that_wants_the_processor_delays_others_no_more_than_at_another_service(
        world, daemon, good, control, behaviour):
    """With more processes than processors each waits for its turn, at whatever service."""
    rounds = []
    for _ in range(ROUNDS):
        waits = []
        for service in (BUS_NAME, control):
            with Neighbour(world.bus, service, behaviour):
                waits += measure(good, service)
        rounds.append(waits)
    check(rounds, MOST_TIMES_BURDENED_CONTROL)
