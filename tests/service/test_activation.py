"""A call starts the daemon: the bus as Debian configures it, without a service manager, by its own setuid launcher."""

import pathlib
import re
import shutil
import signal
import subprocess

import pytest

from world import observe
from world.harness import BUS_NAME, wait_for
from world.namespace_world import NamespaceWorld, SERVICE_NAME, needs_root
from world.raw_client import ERROR, METHOD_RETURN, RawClient
from world.system_bus import ACCOUNTS, LISTED, MEMBER, ROOT, STRANGER

pytestmark = needs_root

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"


class ActivatingMachine(NamespaceWorld):
    """Namespaces with the system bus at its usual place, the shipped policy, and the daemon where it is installed."""

    def __init__(self, build):
        super().__init__(build.ledgerd)
        program = pathlib.Path(re.search(r"(?m)^Exec=(\S+)", build.activation.read_text())[1])
        folder = next(folder for folder in program.parents if folder.exists())
        self.lay_over_directory(folder, {str(program.relative_to(folder)): self.binary})
        system = self.path / "system"
        for name in ("system-services", "system.d", "etc", "accounts"):
            (system / name).mkdir(parents=True)
        shutil.copy(build.activation, system / "system-services")
        shutil.copy(build.packaging / f"{BUS_NAME}.conf", system / "system.d")
        for name in ("system-services", "system.d"):
            self.layers += f"mount --bind {system}/{name} /usr/share/dbus-1/{name}\n"
        self.layers += f"mount --bind {system}/etc /etc/dbus-1\n"
        for name, text in ACCOUNTS.items():
            (system / "accounts" / name).write_text(text)
            self.layers += f"mount --bind {system}/accounts/{name} /etc/{name}\n"
        # Users must be able to reach the bus's socket.
        self.path.chmod(0o711)
        self.socket = self.path / "run" / "dbus" / "system_bus_socket"
        self.socket.parent.mkdir()
        self.system_bus = self.spawn("dbus-daemon", "--system", "--nofork", "--nopidfile", "--nosyslog",
                                     "--print-address", stdout=subprocess.PIPE)
        # The address is printed when the bus listens, and everybody may reach it.
        with self.system_bus.process.stdout as address:
            assert address.readline(), "the bus did not start"

    def daemon(self):
        """The daemon that the bus has started, once it is in the background."""
        return self.unready_service()

    def client_of(self, user):
        with user.acting():
            return RawClient(self)

    def finish(self):
        # The bus tells what it starts, and that it has no right to more file descriptors.
        self.system_bus.take_stderr()
        super().finish()


@pytest.fixture
def machine(build):
    machine = ActivatingMachine(build)
    yield machine
    machine.finish()


def error(reply):
    return reply.error[0] if reply.kind == ERROR else None


def daemons(machine):
    return machine.processes_named(SERVICE_NAME)


@pytest.mark.parametrize("user", [ROOT, MEMBER], ids=["root", "member"])
def test_call_starts_the_daemon_and_is_answered(machine, user):
    client = machine.client_of(user)
    assert not daemons(machine)
    assert error(client.call("Write", "s", "k", "v")) is None
    assert client.call("Read", "s", "k").string() == "v"
    daemon = machine.daemon()
    assert daemons(machine) == {daemon.inner_pid: daemon.pid}
    assert observe.status(daemon.pid)["Uid"].split() == ["0"] * 4
    assert daemon.is_detached(), "its init script finds it as one that it has started itself"


@pytest.mark.parametrize("user", [STRANGER, LISTED], ids=["stranger", "listed"])
def test_call_that_is_refused_starts_nothing(machine, user):
    client = machine.client_of(user)
    assert error(client.call("Read", "s", "k")) == ACCESS_DENIED
    assert error(client.call("Introspect", interface="org.freedesktop.DBus.Introspectable")) == ACCESS_DENIED
    assert "Activating" not in machine.system_bus.take_stderr()
    assert not daemons(machine) and not machine.pid_file.exists()


def test_calls_that_come_meanwhile_start_one_daemon_and_are_all_answered(machine):
    clients = [machine.client_of(MEMBER) for _ in range(8)]
    for number, client in enumerate(clients):
        client.send("Write", "s", f"k{number}", "v")
    for client in clients:
        assert client.receive().kind == METHOD_RETURN
    assert len(daemons(machine)) == 1
    assert machine.system_bus.take_stderr().count("Activating") == 1


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL], ids=["stopped", "killed"])
def test_daemon_that_has_ended_is_started_by_the_next_call(machine, number):
    client = machine.client_of(MEMBER)
    for member, *arguments in (("Write", "s", "k", "v"), ("Flush",)):
        assert error(client.call(member, *arguments)) is None
    first = machine.daemon()
    first.signal(number)
    first.wait_end()
    wait_for(lambda: not owned(client), "the bus knows of the daemon's end")
    assert client.call("Read", "s", "k").string() == "v"
    assert machine.daemon().inner_pid != first.inner_pid


def owned(client):
    reply = client.call_bus("ListNames")
    return BUS_NAME.encode() in reply.body
