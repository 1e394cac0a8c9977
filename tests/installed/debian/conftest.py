"""The Debian systems on which the packages are tested. The option --build is the directory of the packages."""

import functools

import pytest

from world.harness import wait_for
from world.packaged_machine import SystemdMachine, SysvinitMachine


@pytest.fixture(scope="session")
def results(request):
    return request.config.getoption("--build")


@pytest.fixture(scope="session", params=[SystemdMachine, SysvinitMachine], ids=["systemd", "sysvinit"])
def make_machine(request, results):
    if not request.param.can_boot():
        pytest.skip("needs a cgroup2 that may be written")
    return functools.partial(request.param, results)


@pytest.fixture
def machine(make_machine):
    """A running Debian system without the packages."""
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
    """A running Debian system whose disk has the service."""
    machine = make_machine(below=installed_disk)
    wait_for(machine.daemon, "the service runs")
    yield machine
    machine.close()
