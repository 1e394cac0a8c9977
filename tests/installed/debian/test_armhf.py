"""The package for 32-bit ARM, installed by apt beside an amd64 system. Its program runs in user-mode emulation, but not by
its init: the machine's kernel starts no ARM program by itself."""

import shutil

import pytest

from world.init_systems import SysvinitMachine

EMULATOR = "/usr/bin/qemu-arm-static"


class ArmMachine(SysvinitMachine):
    # Else the package starts the service, which here can only fail.
    service_policy = '#!/bin/sh\n[ "$1" != ledgerd ] || exit 101\n'

    def prepare(self):
        super().prepare()
        (self.path / "disk/usr/bin").mkdir()
        shutil.copy(EMULATOR, self.path / "disk" / EMULATOR.removeprefix("/"))


@pytest.fixture
def machine(request, results):
    machine = ArmMachine(request.config.getoption("--cache"), results)
    yield machine
    machine.close()


def test_installed_program_serves(machine):
    machine.apt("install", *machine.packages("armhf", "ledgerd"), machine.tracer("armhf") + ":armhf")
    assert machine.run("dpkg-query", "-W", "-f", "${Architecture} ${db:Status-Status}", "ledgerd") == "armhf installed"
    assert "armhf" in machine.run("dpkg-query", "-W", "-f", "${Architecture}", "libdbus-c++-1-0v5:armhf")
    machine.run(EMULATOR, "/usr/sbin/ledgerd")
    assert machine.call("Write", "Net", "ip", "1") == ""
    assert machine.call("Read", "net", "IP") == "1"
    machine.run(EMULATOR, "/usr/sbin/ledgerd", "-k")
    assert machine.run("cat", "/var/lib/plinthware/registry") == "[net]\nip=1"
