"""The package for 32-bit ARM on an amd64 system. The test starts its program in user-mode emulation, because the kernel
starts no ARM program."""

import shutil

import pytest

from world.packaged_machine import SysvinitMachine

EMULATOR = "/usr/bin/qemu-arm-static"


class ArmMachine(SysvinitMachine):
    # Otherwise the package starts the service, which fails here.
    service_policy = '#!/bin/sh\n[ "$1" != ledgerd ] || exit 101\n'

    def prepare(self):
        super().prepare()
        (self.path / "disk/usr/bin").mkdir()
        shutil.copy(EMULATOR, self.path / "disk" / EMULATOR.removeprefix("/"))


@pytest.fixture
def machine(results):
    machine = ArmMachine(results)
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
