"""A call starts the daemon by the launcher of the bus, in Debian's configuration and without a service manager."""

import pathlib
import re
import shutil
import signal
import subprocess

import pytest

from world import observe
from world.harness import BUS_NAME, wait_for
from world.namespace_world import NamespaceWorld, SERVICE_NAME, needs_root
from world.raw_client import METHOD_RETURN
from world.system_bus import (ACCESS_DENIED, LISTED, MEMBER, MOUNT_SYSTEM, ROOT, STRANGER, error_name, make_system)

pytestmark = needs_root


class ActivatingMachine(NamespaceWorld):
    """Namespaces with the system bus at its usual path, the shipped policy, and the installed daemon."""

    def __init__(self, build):
        super().__init__(build.ledgerd)
        program = pathlib.Path(re.search(r"(?m)^Exec=(\S+)", build.activation.read_text())[1])
        directory = next(directory for directory in program.parents if directory.exists())
        self.lay_over_directory(directory, {str(program.relative_to(directory)): self.binary})
        system = self.path / "system"
        policy = f"{BUS_NAME}.conf"
        make_system(system, {policy: (build.packaging / policy).read_text()})
        (system / "services").mkdir()
        shutil.copy(build.activation, system / "services")
        self.layers += f"system={system}{MOUNT_SYSTEM}mount --bind $system/services /usr/share/dbus-1/system-services\n"
        self.socket = self.path / "run" / "dbus" / "system_bus_socket"
        self.socket.parent.mkdir()
        self.system_bus = self.spawn("dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog",
                                     "--print-address", stdout=subprocess.PIPE)
        # The bus prints the address when it listens and everybody may reach it.
        with self.system_bus.process.stdout as address:
            assert address.readline(), "the bus did not start"

    def started(self):
        """The daemons that the bus has started."""
        return self.processes(SERVICE_NAME)

    def finish(self):
        # The bus reports the programs that it starts, and that it has no right to more file descriptors.
        self.system_bus.take_stderr()
        super().finish()


@pytest.fixture
def machine(build):
    machine = ActivatingMachine(build)
    yield machine
    machine.finish()


@pytest.mark.parametrize("user", [ROOT, MEMBER], ids=["root", "member"])
def test_call_starts_the_daemon_and_is_answered(machine, user):
    client = user.connect(machine)
    assert not machine.started()
    assert error_name(client.call("Write", "s", "k", "v")) is None
    assert client.call("Read", "s", "k").string() == "v"
    daemon = machine.unready_service()
    assert machine.started() == {daemon.inner_pid: daemon.pid}
    assert observe.status(daemon.pid)["Uid"].split() == ["0"] * 4
    assert daemon.is_detached(), "its init script treats it as one that it started"


@pytest.mark.parametrize("user", [STRANGER, LISTED], ids=["stranger", "listed"])
def test_call_that_is_refused_starts_nothing(machine, user):
    client = user.connect(machine)
    assert error_name(client.call("Read", "s", "k")) == ACCESS_DENIED
    assert error_name(client.call("Introspect", interface="org.freedesktop.DBus.Introspectable")) == ACCESS_DENIED
    assert "Activating" not in machine.system_bus.take_stderr()
    assert not machine.started() and not machine.pid_file.exists()


def test_calls_in_parallel_start_one_daemon_and_are_all_answered(machine):
    clients = [MEMBER.connect(machine) for _ in range(8)]
    for number, client in enumerate(clients):
        client.send("Write", "s", f"k{number}", "v")
    for client in clients:
        assert client.receive().kind == METHOD_RETURN
    assert len(machine.started()) == 1
    assert machine.system_bus.take_stderr().count("Activating") == 1


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL], ids=["stopped", "killed"])
def test_daemon_that_has_ended_is_started_by_the_next_call(machine, number):
    client = MEMBER.connect(machine)
    for member, *arguments in (("Write", "s", "k", "v"), ("Flush",)):
        assert error_name(client.call(member, *arguments)) is None
    first = machine.unready_service()
    first.signal(number)
    first.wait_end()
    wait_for(lambda: BUS_NAME.encode() not in client.call_bus("ListNames").body, "the bus knows of the daemon's end")
    assert client.call("Read", "s", "k").string() == "v"
    assert machine.unready_service().inner_pid != first.inner_pid
