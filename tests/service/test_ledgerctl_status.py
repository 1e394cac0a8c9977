"""Each exit status of the client, with its text on standard error: by the real daemon and a real bus."""

import signal
import threading
import time

import pytest

from world import observe
from world.harness import BUS_NAME, ERROR_PREFIX, wait_for
from world.ledgerctl import (DAEMON_ERROR, DENIED, FULL, INVALID_NAME, LOCAL, MISSING, NO_ANSWER, NO_DOCUMENT,
                             NOT_RUNNING, USAGE, Ledgerctl, failure, fake_daemon)
from world.namespace_world import NOBODY_ELSE, as_user, needs_root
from world.stalled_bus import StalledBus

REGISTRY_FULL = failure(FULL, b"registry full (16383 bytes); nothing changed")
ACCESS_DENIED = failure(DENIED, b"permission denied by the bus")
NOT_RUNNING_TEXT = b"the daemon is not running"

COMMANDS = [
    (("get", "s", "none"), failure(MISSING, b"no key 'none' in section 's'")),
    (("exists", "none"), (MISSING, b"", b"")),
    (("diff", "-"), (MISSING, b"- [s] k=v\n", b"")),
    (("get", "s"), failure(USAGE, b'get: KEY is required\nTry "ledgerctl help get".')),
    (("set", "s", "k", b"\xff"), failure(USAGE, b"D-Bus cannot carry the value: it is not UTF-8")),
    (("get", b"caf\xc3\xa9", "k"), failure(INVALID_NAME, b"invalid name 'caf\xc3\xa9': only ASCII is allowed")),
    (("load", "--text"), failure(NO_DOCUMENT, b"standard input: line 1: this key is before the first [section]")),
    (("set", "s", "k", "x" * 16384), REGISTRY_FULL),
    (("set", "s", "k", "w", "l", "x" * 16384), REGISTRY_FULL),
    (("dump", "/nonexistent/file"), failure(LOCAL, b"/nonexistent/file: No such file or directory")),
]


def test_answers_of_a_running_daemon(ledgerctl, client):
    client.write("s", "k", "v")
    for command, expected in COMMANDS:
        assert ledgerctl.run(*command, input=b"{}") == expected, command
    # The bus would close the connection.
    assert ledgerctl.run("set", "s", "k", "-", input=b"x" * (32 << 20)) == REGISTRY_FULL
    assert client.read_all_json() == '{"s":{"k":"v"}}'


def test_registry_that_the_daemon_cannot_write(ledgerctl, world, client):
    client.write("s", "k", "v")
    world.registry.mkdir()
    name, message = client.error("Flush")
    assert name == ERROR_PREFIX + "Exception"
    assert ledgerctl.run("flush") == failure(DAEMON_ERROR, message.encode())
    unwritten = failure(DAEMON_ERROR, b"changed, but not written: " + message.encode())
    for value, command in (b"w", ("load",)), (b"x", ("set", "--flush", "s", "k", "x")):
        assert ledgerctl.run(*command, input=b'{"s":{"k":"w"}}') == unwritten
        assert ledgerctl.output("get", "s", "k") == value + b"\n"
    world.registry.rmdir()


def test_no_daemon(ledgerctl, world):
    assert ledgerctl.run("list") == failure(NOT_RUNNING, NOT_RUNNING_TEXT)
    with fake_daemon(world.bus, lambda call: None):
        assert ledgerctl.run("list") == failure(
            NOT_RUNNING, NOT_RUNNING_TEXT + b" any more: it ended before it answered")


def test_no_bus(ledgerctl, world):
    nowhere = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={world.path}/none"}
    status, output, error = ledgerctl.run("list", environment=nowhere)
    assert (status, output) == (NOT_RUNNING, b"")
    assert error.startswith(b"ledgerctl: the daemon is not running: there is no system bus\n"), error


def test_daemon_that_the_bus_cannot_start(build, make_world_with_bus, tmp_path):
    (tmp_path / f"{BUS_NAME}.service").write_text(
        f"[D-BUS Service]\nName={BUS_NAME}\nExec=/bin/false\nUser=root\n")
    world = make_world_with_bus(
        f"  <servicedir>{tmp_path}</servicedir>\n  <servicehelper>/bin/false</servicehelper>\n")
    status, output, error = Ledgerctl(build.ledgerctl, world).run("list")
    assert (status, output) == (NOT_RUNNING, b"")
    assert error.startswith(b"ledgerctl: the daemon is not running and cannot be started\n"), error


def test_bus_that_denies_access(build, make_world_with_bus):
    world = make_world_with_bus(f'  <policy context="default"><deny send_destination="{BUS_NAME}"/></policy>\n')
    daemon = world.start(wait=False)
    connection = world.bus.connect()
    wait_for(lambda: connection.name_has_owner(BUS_NAME), "the daemon owns its name")
    connection.close()
    assert Ledgerctl(build.ledgerctl, world).run("list") == ACCESS_DENIED
    daemon.stop()


@needs_root
@pytest.mark.parametrize("mode, expected", [
    (0o700, ACCESS_DENIED),
    (0o777, failure(NOT_RUNNING, NOT_RUNNING_TEXT + b": the bus closed the connection")),
], ids=["socket", "user"])
def test_bus_that_does_not_know_the_user(ledgerctl, world, daemon, mode, expected):
    world.path.chmod(0o711)
    world.bus.socket.chmod(mode)
    assert ledgerctl.run("list", wrapper=as_user(NOBODY_ELSE)) == expected


SHORT = ("--timeout", "0.2")
NO_ANSWER_IN_TIME = failure(NO_ANSWER, b"no answer in 0.2 s")


@pytest.mark.parametrize("name", ["daemon", "bus"])
def test_process_that_hangs(ledgerctl, world, daemon, name):
    process = daemon.process if name == "daemon" else world.bus.process
    process.send_signal(signal.SIGSTOP)
    wait_for(lambda: observe.status(process.pid)["State"].startswith("T"), "the process is stopped")
    began = time.monotonic()
    assert ledgerctl.run(*SHORT, "list") == NO_ANSWER_IN_TIME
    assert time.monotonic() - began >= 0.2
    process.send_signal(signal.SIGCONT)


def test_bus_that_accepts_the_connection_and_hangs(ledgerctl, world, daemon):
    with StalledBus(world) as stalled:
        assert ledgerctl.run(*SHORT, "list", environment=stalled.environment) == NO_ANSWER_IN_TIME


def test_bus_that_hangs_within_a_call_that_is_larger_than_its_socket(ledgerctl, world, daemon):
    """libdbus waits without a bound until such a call is sent."""
    with StalledBus(world) as stalled:
        release = threading.Thread(target=stalled.release, args=(4096,))
        release.start()
        assert ledgerctl.run(*SHORT, "load", input=b'{"s":{"k":"%s"}}' % (b"x" * (8 << 20)),
                             environment=stalled.environment) == NO_ANSWER_IN_TIME
        release.join()
