"""Fixtures: a world, a daemon in it, a client of the daemon. Output that a test does not expect fails the test."""

import contextlib
import pathlib

import pytest

import attacked
from world.booted_system import BootedSystem
from world.build import Build
from world.harness import PATIENCE, Bus, World
from world.ledgerctl import Ledgerctl
from world.namespace_world import NamespaceWorld


def pytest_addoption(parser):
    parser.addoption("--build", required=True, type=pathlib.Path, help="the directory of the build")
    parser.addoption("--rounds", type=int, default=60, help="the number of rounds of each test at random moments")


def pytest_configure(config):
    config.addinivalue_line("markers", "bus_limits(**limits): limits of the test's bus that differ from the usual ones")


@contextlib.contextmanager
def checked_world(build, make_bus):
    world = World(build.ledgerd, make_bus)
    yield world
    # An orderly end, so that a sanitizer's verdict at exit counts too.
    for daemon in world.daemons:
        if daemon.process.poll() is None:
            daemon.stop()
    printed = [daemon.take_stderr() for daemon in world.daemons]
    logged = world.kernel_log.take()
    world.close()
    assert not any(printed), f"unexpected standard error: {printed}"
    assert not logged, f"unexpected kernel log: {logged}"


@pytest.fixture(scope="session")
def build(request):
    return Build(request.config.getoption("--build"))


@pytest.fixture
def make_bus(request):
    bus_limits = request.node.get_closest_marker("bus_limits")
    limits = bus_limits.kwargs.items() if bus_limits is not None else ()
    return lambda directory: Bus(
        directory, "".join(f'  <limit name="{name}">{value}</limit>\n' for name, value in limits))


@pytest.fixture
def world(build, make_bus):
    with checked_world(build, make_bus) as world:
        yield world


@pytest.fixture(scope="module")
def lasting_world(build):
    """One world for all tests of a module: for many short ones."""
    with checked_world(build, Bus) as world:
        yield world


@pytest.fixture
def make_world_with_bus(build):
    """A function that makes a world whose bus has more lines in its configuration."""
    with contextlib.ExitStack() as stack:
        yield lambda lines: stack.enter_context(checked_world(build, lambda directory: Bus(directory, lines)))


@pytest.fixture
def daemon(world):
    return world.start()


@pytest.fixture
def client(daemon):
    with contextlib.closing(daemon.client()) as client:
        yield client


@pytest.fixture
def victim(world, client):
    """A client that still wants to be served after an attack, and to find its data unchanged."""
    attacked.fill(client)
    client.timeout = 4 * PATIENCE
    yield client
    attacked.check_served_and_untouched(world, client)


@pytest.fixture
def machine(build):
    """A world for daemons that run as services."""
    machine = NamespaceWorld(build.ledgerd)
    yield machine
    machine.finish()


@pytest.fixture
def system(build):
    """A system whose service manager runs the daemon by its unit."""
    with contextlib.closing(BootedSystem(build.ledgerd, build.packaging, build.unit, build.activation)) as system:
        yield system


@pytest.fixture
def build_without_threads(build):
    if b"__tsan_init" in build.ledgerd.read_bytes():
        pytest.skip("the thread sanitizer has a thread of its own in each process")


@pytest.fixture
def ledgerctl(build, world):
    return Ledgerctl(build.ledgerctl, world)


@pytest.fixture
def open_directory(world):
    """A directory of root where all users can create files, in a world whose bus they can reach."""
    world.path.chmod(0o711)
    directory = world.path / "open"
    directory.mkdir()
    directory.chmod(0o777)
    return directory
