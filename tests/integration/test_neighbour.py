"""How long a well-behaved client waits beside one that is not."""

import contextlib
import subprocess
import time

import pytest

from harness import BUS_NAME, PATIENCE, wait_for
from hostile_neighbour import Neighbour, flood, leave_abruptly, never_read, send_long_texts
from raw_client import METHOD_RETURN, RawClient

CONTROL = "com.tavimesh.Control"

# A window is long enough for several texts of 30 MB.
WINDOW_SECONDS = 1.0
WINDOW_CALLS = 300

MOST_TIMES_QUIET = 20
MOST_TIMES_CONTROL = 3


class Waits:
    """How long each of many calls took, in seconds."""

    def __init__(self, client, service):
        self.seconds = []
        end = time.perf_counter() + WINDOW_SECONDS
        while time.perf_counter() < end or len(self.seconds) < WINDOW_CALLS:
            begin = time.perf_counter()
            assert client.call("Read", "s", "k", destination=service).kind == METHOD_RETURN
            self.seconds.append(time.perf_counter() - begin)
        self.seconds.sort()

    def percentile(self, percent):
        return self.seconds[len(self.seconds) * percent // 100]

    def __str__(self):
        median, high, highest = (1e6 * wait for wait in (self.percentile(50), self.percentile(99), self.seconds[-1]))
        return f"p50 {median:.0f} p99 {high:.0f} max {highest:.0f} us, {len(self.seconds)} calls"


@pytest.fixture
def control(world, request):
    """Another service on the same bus."""
    process = subprocess.Popen([str(request.config.getoption("--control-service")), world.bus.address])
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
def test_hostile_neighbour_makes_others_wait_little(world, daemon, good, behaviour):
    """The neighbour has the processor when nobody else wants it: what is left is the wait for the service."""

    def others_are_served():
        """Noise of the machine passes; what the daemon does to others stays."""
        quiet = Waits(good, BUS_NAME)
        with Neighbour(world.bus, BUS_NAME, behaviour, niceness=19):
            burdened = Waits(good, BUS_NAME)
        print(f"{behaviour.__name__}: quiet {quiet}; burdened {burdened}")
        return burdened.percentile(99) < MOST_TIMES_QUIET * quiet.percentile(50)

    wait_for(others_are_served, "others are served in time", patience=2 * PATIENCE)


@each_behaviour
def test_hostile_neighbour_that_wants_the_processor_delays_others_no_more_than_at_another_service(
        world, daemon, good, control, behaviour):
    """With more processes than processors each waits for its turn, at whatever service. What the bus and the machine
    have to do with it is told by a control, which does next to nothing."""

    def others_are_served():
        with Neighbour(world.bus, BUS_NAME, behaviour):
            burdened = Waits(good, BUS_NAME)
        with Neighbour(world.bus, control, behaviour):
            elsewhere = Waits(good, control)
        print(f"{behaviour.__name__}: burdened {burdened}; control {elsewhere}")
        return burdened.percentile(99) < MOST_TIMES_CONTROL * elsewhere.percentile(99)

    wait_for(others_are_served, "others are served in time", patience=2 * PATIENCE)
