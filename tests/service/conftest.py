"""Fixtures: a world, a daemon in it, a client of the daemon. A diagnostic that no test asked for fails the test."""

import contextlib
import pathlib

import pytest

import attacked
from world.booted_system import BootedSystem
from world.harness import PATIENCE, Bus, World
from world.ledgerctl import Ledgerctl
from world.namespace_world import NamespaceWorld


def pytest_addoption(parser):
    parser.addoption("--ledgerd", required=True, type=pathlib.Path, help="the daemon's executable")
    parser.addoption("--ledgerctl", type=pathlib.Path, help="the client's executable")
    parser.addoption("--completion", type=pathlib.Path, help="the folder with the client's completions")
    parser.addoption("--packaging", type=pathlib.Path, help="the folder with the files for the system around it")
    parser.addoption("--unit", type=pathlib.Path, help="the unit of the service")
    parser.addoption("--init-script", type=pathlib.Path, help="the script for an init without units")
    parser.addoption("--activation", type=pathlib.Path, help="what tells the bus how to start the service")
    parser.addoption("--probes", type=pathlib.Path, help="the probes of its tracepoint")
    parser.addoption("--installed-probes", type=pathlib.Path, help="where the daemon looks for its probes")
    parser.addoption("--load-client", type=pathlib.Path, help="the program that loads the daemon")
    parser.addoption("--control-service", type=pathlib.Path, help="a service to compare with")
    parser.addoption("--failing-malloc", type=pathlib.Path, help="the library whose allocations fail")
    parser.addoption("--example", type=pathlib.Path, help="the one among the examples that is compiled")
    parser.addoption("--rounds", type=int, default=60, help="how often a test at random moments is repeated")


def pytest_configure(config):
    config.addinivalue_line("markers", "bus_limits(**limits): limits of the test's bus that differ from the usual ones")


@contextlib.contextmanager
def checked_world(config, make_bus):
    world = World(config.getoption("--ledgerd"), make_bus)
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


@pytest.fixture
def make_bus(request):
    bus_limits = request.node.get_closest_marker("bus_limits")
    limits = bus_limits.kwargs.items() if bus_limits is not None else ()
    return lambda directory: Bus(
        directory, "".join(f'  <limit name="{name}">{value}</limit>\n' for name, value in limits))


@pytest.fixture
def world(request, make_bus):
    with checked_world(request.config, make_bus) as world:
        yield world


@pytest.fixture(scope="module")
def lasting_world(request):
    """One world for all tests of a module: for many short ones."""
    with checked_world(request.config, Bus) as world:
        yield world


@pytest.fixture
def daemon(world):
    return world.start()


@pytest.fixture
def client(daemon):
    client = daemon.client()
    yield client
    client.close()


@pytest.fixture
def victim(world, client):
    """A client that still wants to be served after an attack, and to find its data unchanged."""
    attacked.fill(client)
    client.timeout = 4 * PATIENCE
    yield client
    attacked.check_served_and_untouched(world, client)


@pytest.fixture
def machine(request):
    """A world for daemons that run as services."""
    machine = NamespaceWorld(request.config.getoption("--ledgerd"))
    yield machine
    machine.finish()


@pytest.fixture
def system(request):
    """A system whose service manager runs the daemon by its unit."""
    system = BootedSystem(*map(request.config.getoption, ("--ledgerd", "--packaging", "--unit", "--activation")))
    yield system
    system.close()


@pytest.fixture
def build_without_threads(request):
    if b"__tsan_init" in request.config.getoption("--ledgerd").read_bytes():
        pytest.skip("the thread sanitizer has a thread of its own in each process")


@pytest.fixture
def ledgerctl(request, world):
    return Ledgerctl(request.config.getoption("--ledgerctl"), world)


@pytest.fixture
def open_directory(world):
    """A directory of root where all users can make files, in a world whose bus they can reach."""
    world.path.chmod(0o711)
    directory = world.path / "open"
    directory.mkdir()
    directory.chmod(0o777)
    return directory


@pytest.fixture
def make_world_with_bus(request):
    """A function that makes a world whose bus has more lines in its configuration."""
    with contextlib.ExitStack() as stack:
        yield lambda lines: stack.enter_context(
            checked_world(request.config, lambda directory: Bus(directory, lines)))
