"""The client's exit statuses, each with its text on standard error: one row for each way to get there."""

import os
import signal
import subprocess
import threading
import time

import pytest

from world import observe
from world.harness import BUS_NAME, ERROR_PREFIX, PATIENCE, wait_for
from world.ledgerctl import (DAEMON_ERROR, DENIED, FULL, FULL_TEXT, INVALID_NAME, LOCAL, MISSING, NO_ANSWER, NO_DOCUMENT,
                       NOT_RUNNING, USAGE, Ledgerctl, failure, fake_daemon)
from world.namespace_world import NOBODY, NOBODY_ELSE, as_user, needs_root
from world.raw_client import MEMBER_FIELD
from world.stalled_bus import StalledBus

REFUSED = '  <policy context="default"><deny send_destination="com.tavimesh.Registry"/></policy>\n'
NOT_RUNNING_TEXT = b"the daemon is not running"

# Every verb, so that none of them tells of its failure in a way of its own.
VERBS = {
    "get": ("get", "s", "k"),
    "set": ("set", "s", "k", "v"),
    "set pairs": ("set", "s", "k", "v", "l", "w"),
    "exists": ("exists", "s", "k"),
    "exists section": ("exists", "s"),
    "list": ("list",),
    "list section": ("list", "s"),
    "show": ("show",),
    "show section": ("show", "s"),
    "unset": ("unset", "s", "k"),
    "unset section": ("unset", "-r", "s"),
    "clear": ("clear", "--yes"),
    "flush": ("flush",),
    "dump": ("dump",),
    "load": ("load", "-"),
    "load --replace": ("load", "--replace"),
    "edit": ("edit",),
    "diff": ("diff", "-"),
    "watch": ("watch",),
    "usage": ("usage",),
}
every_verb = pytest.mark.parametrize("verb", VERBS.values(), ids=VERBS)


def misuse(verb, text):
    return failure(USAGE, f'{verb}: {text}\nTry "ledgerctl help {verb}".'.encode())


def uncarried(status, why):
    return failure(status, b"D-Bus cannot carry the value of key 'k' in section 's': it " + why)


def lost(key, why):
    text = f"lost at a restart: key '{key}' in section 's' ({why})\nNothing changed. Use --force to accept the loss."
    return failure(INVALID_NAME, text.encode())


def stop(process):
    process.send_signal(signal.SIGSTOP)
    wait_for(lambda: observe.status(process.pid)["State"].startswith("T"), "the process is stopped")


@pytest.mark.parametrize("command, expected", [
    (("get", "s", "none"), failure(MISSING, b"no key 'none' in section 's'")),
    (("get", "none", "k"), failure(MISSING, b"no key 'k' in section 'none'")),
    (("show", "none"), failure(MISSING, b"no section 'none'")),
    (("exists", "none"), (MISSING, b"", b"")),
    (("unset", "s", "none"), failure(MISSING, b"no key 'none' in section 's'")),
    (("diff", "-"), (MISSING, b"- [s] k=v\n", b"")),
    (("usage", "--fail-above", "0"), (MISSING, b"8 of 16383 bytes used (0 %), 16375 free\n     8  s\n", b"")),
    (("usage", "--fail-above", "101"), misuse("usage", "--fail-above: 101 is not a percentage from 0 to 100")),
    (("watch", "--exec"), misuse("watch", "--exec needs a value")),
    (("get", "s"), misuse("get", "KEY is required")),
    (("get", "s", "-k"), misuse(
        "get", 'unknown option -k\nWrite "--" before names and values that begin with "-".')),
    (("set", "s", "k", "w", "--flush"), misuse("set", "KEY --flush needs a VALUE\nWrite options before SECTION.")),
    (("set", "s", "k=w"), misuse("set", "KEY 'k=w' has \"=\" in it\nwrite: ledgerctl set s k w")),
    (("set", "s", "k", "w", "K", "x"), misuse("set", "KEY K is given twice")),
    (("set", "s", "k", "-", "l", "-"), misuse("set", 'only one VALUE can be "-"')),
    (("set", "s", "k", b"\xff"), failure(USAGE, b"D-Bus cannot carry the value: it is not UTF-8")),
    (("set", "s", "k", b"\xff", "l", "w"), uncarried(USAGE, b"is not UTF-8")),
    (("get", b"caf\xc3\xa9", "k"), failure(INVALID_NAME, b"invalid name 'caf\xc3\xa9': only ASCII is allowed")),
    (("get", "s", b"\xff"), failure(INVALID_NAME, b"invalid name $'\\xff': only ASCII is allowed")),
    (("set", "new", b"\xff", "v"), failure(INVALID_NAME, b"invalid name $'\\xff': only ASCII is allowed")),
    (("set", "s", "l", "w", "[k", "w"), lost("[k", 'begins with "["')),
    (("set", "s", "", ""), lost("", "without name and value")),
    (("set", "s", "k", "x" * 16384), failure(FULL, FULL_TEXT)),
    (("set", "s", "k", "w", "l", "x" * 16384), failure(FULL, FULL_TEXT)),
    (("dump", "/nonexistent/file"), failure(LOCAL, b"/nonexistent/file: No such file or directory")),
], ids=str)
def test_answer_of_a_running_daemon(ledgerctl, client, command, expected):
    client.write("s", "k", "v")
    assert ledgerctl.run(*command, input=b"{}") == expected
    assert client.read_all_json() == '{"s":{"k":"v"}}'


@pytest.mark.parametrize("value, expected", [
    (b"x" * (32 << 20), failure(FULL, FULL_TEXT)),
    (b"a\0b", uncarried(INVALID_NAME, b"holds a NUL byte")),
], ids=["longer than a message", "NUL byte"])
def test_value_that_no_message_can_hold(ledgerctl, client, value, expected):
    """The bus would close the connection."""
    assert ledgerctl.run("set", "s", "k", "-", input=value) == expected


@pytest.mark.parametrize("name, message, expected", [
    ("InvalidName", "Invalid Name", failure(INVALID_NAME, b"invalid name")),
    ("InvalidJson", "Invalid Json", failure(NO_DOCUMENT, b"not a registry document")),
    ("Full", "Full", failure(FULL, FULL_TEXT)),
    ("Exception", "No space left on device (28)", failure(DAEMON_ERROR, b"No space left on device (28)")),
])
@every_verb
def test_each_error_of_the_daemon(ledgerctl, world, verb, name, message, expected):
    with fake_daemon(world.bus, lambda call: (ERROR_PREFIX + name, message)):
        assert ledgerctl.run(*verb, input=b"{}") == expected


@every_verb
def test_something_else_under_its_name(ledgerctl, world, verb):
    """Answers of another type than the interface has."""
    with fake_daemon(world.bus, lambda call: [7]):
        status, output, error = ledgerctl.run(*verb, input=b"{}")
    if (status, error) != (0, b""):
        assert (status, output, error) == failure(
            DAEMON_ERROR, b"unexpected reply: what has the daemon's name is not ledgerd")
    else:
        assert verb[0] in ("set", "clear", "flush", "load"), "only these take no answer"


def test_own_error_of_the_daemon_is_verbatim(ledgerctl, world, client):
    client.write("s", "k", "v")
    world.registry.mkdir()
    name, message = client.error("Flush")
    assert name == ERROR_PREFIX + "Exception"
    assert ledgerctl.run("flush") == failure(DAEMON_ERROR, message.encode())
    world.registry.rmdir()


@pytest.mark.parametrize("command, output", [
    (("load",), b""),
    (("edit",), b"- [s] k=v\n+ [s] k=w\n"),
    (("set", "--flush", "s", "k", "w"), b""),
    (("set", "s", "k", "w", "l", "w"), b""),
], ids=str)
def test_change_that_the_daemon_cannot_write(ledgerctl, world, client, command, output):
    client.write("s", "k", "v")
    world.registry.mkdir()
    status, printed, error = ledgerctl.run(*command, input=b'{"s":{"k":"w"}}', environment={
        "EDITOR": "sed -i s/=v/=w/"})
    _, message = client.error("Flush")
    world.registry.rmdir()
    assert (status, printed) == (DAEMON_ERROR, output)
    assert error.startswith(b"ledgerctl: changed, but not written: %s\n" % message.encode()), error
    assert client.read("s", "k") == "w"


@pytest.mark.parametrize("registry, prefix", [('{"s":{"k":"v"}}', b""),
                                              ('{"s":{"k":"w"}}', b"changed, but not written: ")])
def test_error_of_a_load_is_told_apart_by_the_registry(ledgerctl, world, registry, prefix):
    """The daemon has the same error for a lack of memory before the change."""
    def answer(call):
        return [registry] if call.fields[MEMBER_FIELD] == "ReadAllJson" else (ERROR_PREFIX + "Exception", "reason")
    with fake_daemon(world.bus, answer):
        assert ledgerctl.run("load", input=b'{"s":{"k":"w"}}') == failure(DAEMON_ERROR, prefix + b"reason")


@every_verb
def test_no_daemon(ledgerctl, verb):
    assert ledgerctl.run(*verb, input=b"{}") == failure(NOT_RUNNING, NOT_RUNNING_TEXT)


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


def test_daemon_that_ends_while_it_is_asked(ledgerctl, world, daemon):
    stop(daemon.process)
    with observed_calls(world) as calls:
        process = ledgerctl.start("get", "s", "k")
        wait_for(calls, "the call is on its way")
        daemon.process.kill()
        daemon.wait_end()
        output, error = process.communicate(timeout=PATIENCE)
    assert (process.returncode, output, error) == failure(
        NOT_RUNNING, b"the daemon is not running any more: it ended before it answered")


class observed_calls:
    """A monitor that tells whether a call of the interface was seen."""

    def __init__(self, world):
        self.path = world.path / "monitor"
        self.environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus.address)

    def __enter__(self):
        with open(self.path, "wb") as file:
            self.process = subprocess.Popen(["dbus-monitor", "--system", "interface='com.tavimesh.Registry'"],
                                            env=self.environment, stdout=file, stderr=subprocess.DEVNULL)
        # It is told of its own name when it watches.
        wait_for(lambda: b"NameLost" in self.path.read_bytes(), "the monitor watches")
        return lambda: b"member=Read" in self.path.read_bytes()

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


def test_access_that_is_denied(build, make_world_with_bus):
    world = make_world_with_bus(REFUSED)
    daemon = world.start(wait=False)
    connection = world.bus.connect()
    wait_for(lambda: connection.name_has_owner(BUS_NAME), "the daemon owns its name")
    connection.close()
    client = Ledgerctl(build.ledgerctl, world)
    for verb in VERBS.values():
        assert client.run(*verb, input=b"{}") == failure(DENIED, b"permission denied by the bus")
    daemon.stop()


@needs_root
@pytest.mark.parametrize("mode, expected", [
    (0o700, failure(DENIED, b"permission denied by the bus")),
    (0o777, failure(NOT_RUNNING, NOT_RUNNING_TEXT + b": the bus closed the connection")),
], ids=["socket", "user"])
def test_bus_that_does_not_know_the_user(ledgerctl, world, daemon, mode, expected):
    world.path.chmod(0o711)
    world.bus.socket.chmod(mode)
    assert ledgerctl.run("list", wrapper=as_user(NOBODY_ELSE)) == expected


@needs_root
@pytest.mark.parametrize("owner, mode, caller, text", [
    (0, 0o777, NOBODY, b"its owner cannot be kept: Operation not permitted"),
    (NOBODY, 0o1777, 0, b"belongs to another user, in a directory that everybody can write to"),
], ids=["user", "root"])
def test_dump_over_the_file_of_another_user(ledgerctl, client, open_directory, owner, mode, caller, text):
    open_directory.chmod(mode)
    file = open_directory / "file"
    file.write_text("old")
    os.chown(file, owner, owner)
    assert ledgerctl.run("dump", str(file), wrapper=as_user(caller)) == failure(LOCAL, b"%s: %s" % (bytes(file), text))
    assert (file.read_text(), list(open_directory.iterdir())) == ("old", [file])


@every_verb
def test_daemon_that_hangs(ledgerctl, daemon, verb):
    stop(daemon.process)
    began = time.monotonic()
    assert ledgerctl.run("--timeout", "0.2", *verb, input=b"{}") == failure(NO_ANSWER, b"no answer in 0.2 s")
    assert time.monotonic() - began >= 0.2
    daemon.process.send_signal(signal.SIGCONT)


def test_bus_that_hangs(ledgerctl, world, daemon):
    stop(world.bus.process)
    assert ledgerctl.run("--timeout", "0.2", "list") == failure(NO_ANSWER, b"no answer in 0.2 s")
    world.bus.process.send_signal(signal.SIGCONT)


def test_bus_that_takes_the_connection_and_hangs(ledgerctl, world, daemon):
    with StalledBus(world) as stalled:
        assert ledgerctl.run("--timeout", "0.2", "list", environment=stalled.environment) == failure(
            NO_ANSWER, b"no answer in 0.2 s")


def test_bus_that_hangs_within_a_call_that_is_larger_than_its_socket(ledgerctl, world, daemon):
    """libdbus waits without a bound until such a call is out."""
    with StalledBus(world) as stalled:
        process = ledgerctl.start("--timeout", "0.2", "load", stdin=subprocess.PIPE, environment=stalled.environment)
        release = threading.Thread(target=stalled.release, args=(4096,))
        release.start()
        output, error = process.communicate(b'{"s":{"k":"%s"}}' % (b"x" * (8 << 20)), timeout=PATIENCE)
        release.join()
    assert (process.returncode, output, error) == failure(NO_ANSWER, b"no answer in 0.2 s")
