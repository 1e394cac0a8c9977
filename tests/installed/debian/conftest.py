"""What the tests of this folder are told on the command line, and the systems that they run on."""

import functools
import pathlib
import time

import pytest

from world.harness import wait_for
from world.init_systems import SystemdMachine, SysvinitMachine

START = time.monotonic()


def pytest_addoption(parser):
    parser.addoption("--cache", required=True, type=pathlib.Path, help="the folder with the systems")
    parser.addoption("--results", required=True, type=pathlib.Path, help="the folder with the packages")


@pytest.fixture(scope="session")
def results(request):
    return request.config.getoption("--results")


@pytest.fixture(scope="session", params=[SystemdMachine, SysvinitMachine], ids=["systemd", "sysvinit"])
def make_machine(request, results):
    if not request.param.can_boot():
        pytest.skip("needs a cgroup2 that may be written")
    return functools.partial(request.param, request.config.getoption("--cache"), results)


@pytest.fixture
def machine(make_machine):
    """A Debian system that runs, without the packages."""
    machine = make_machine()
    yield machine
    machine.close()


@pytest.fixture(scope="session")
def installed_disk(make_machine):
    machine = make_machine()
    machine.apt("install", *machine.packages("amd64", "ledgerd"))
    machine.shut_down()
    yield machine.path / "disk"
    machine.close()


@pytest.fixture
def installed(make_machine, installed_disk):
    """A Debian system that runs, and with it the service, which was installed before."""
    machine = make_machine(below=installed_disk)
    wait_for(machine.daemon, "the service runs")
    yield machine
    machine.close()


def pytest_unconfigure(config):
    """The last line, in the form in which scripts/test counts."""
    reporter = config.pluginmanager.get_plugin("terminalreporter")
    counts = {kind: len(reporter.stats.get(kind, ())) for kind in ("passed", "failed", "error")}
    print(f"{counts['passed']} passed, {counts['failed'] + counts['error']} failed, in {time.monotonic() - START:.0f} s")
