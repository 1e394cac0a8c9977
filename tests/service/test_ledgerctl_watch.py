"""The client's watch: beside changes, beside daemons and buses that are restarted, and with a command on changes."""

import contextlib
import itertools
import os
import re
import select
import signal
import time

import pytest

from world import observe
from world.harness import ERROR_PREFIX, PATIENCE, wait_for
from world.ledgerctl import DAEMON_ERROR, DENIED, LOCAL, failure, fake_daemon
from world.observe import needs_strace


def read_line(process):
    """The next line on its standard output; what is there if the output ends before."""
    line = b""
    while not line.endswith(b"\n"):
        assert select.select([process.stdout], [], [], PATIENCE)[0], f"no line in time, only {line}"
        # Byte by byte and unbuffered, so that nothing that select() cannot see is left in a buffer.
        byte = os.read(process.stdout.fileno(), 1)
        if not byte:
            break
        line += byte
    return line


def start_watch(ledgerctl, client, *arguments, **options):
    """Returns a watch that has reported a change of key k in section s, and the last value of that key."""
    process = ledgerctl.start("watch", "-i", "0.01", *arguments, **options)
    values = (f"change-{number}" for number in itertools.count())
    written = []

    def change_is_seen():
        written.append(next(values))
        client.write("s", "k", written[-1])
        return select.select([process.stdout], [], [], 0)[0]

    wait_for(change_is_seen, "the client watches")
    return process, written[-1].encode()


def read_value(process):
    """The value of key k in section s in the next line that has a new one."""
    while not (line := read_line(process)).startswith(b"+ [s] k="):
        assert line, process.stderr.read()
    return line.strip().removeprefix(b"+ [s] k=")


def start_watching(ledgerctl, client, *arguments, **options):
    """The same; the watch has reported that value."""
    process, value = start_watch(ledgerctl, client, *arguments, **options)
    while read_value(process) != value:
        pass
    return process, value


def test_watch_prints_changes_until_it_is_interrupted(ledgerctl, client):
    process, value = start_watching(ledgerctl, client)
    client.write("s", "k", "2")
    assert [read_line(process), read_line(process)] == [b"- [s] k=%s\n" % value, b"+ [s] k=2\n"]
    client.delete_section("s")
    assert read_line(process) == b"- [s] k=2\n"
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert process.returncode == -signal.SIGINT


def test_watch_ends_when_nobody_reads(ledgerctl, daemon, client):
    """Nothing changes meanwhile, so nothing is written that could tell."""
    process = ledgerctl.start("watch")
    wait_for(lambda: observe.status(process.pid)["Name"] == "ledgerctl", "the client runs")
    process.stdout.close()
    assert process.wait(PATIENCE) == -signal.SIGPIPE
    assert process.stderr.read() == b""
    process.stderr.close()


def finish(process):
    """Ends a watch; returns what it printed since the last line that was read."""
    process.terminate()
    printed = process.communicate(timeout=PATIENCE)
    assert process.returncode == -signal.SIGTERM
    return printed


@pytest.mark.parametrize("quiet", [(), ("-q",)], ids=["", "quiet"])
def test_watch_goes_on_with_the_next_daemon(ledgerctl, world, daemon, client, tmp_path, quiet):
    error = tmp_path / "error"
    with open(error, "wb") as file:
        process, value = start_watching(ledgerctl, client, *quiet, stderr=file)
    daemon.stop()
    if not quiet:
        wait_for(error.read_bytes, "the client has noticed the end")
    world.registry.write_text("[s]\nk=next\n")
    world.start()
    assert [read_line(process), read_line(process)] == [b"- [s] k=%s\n" % value, b"+ [s] k=next\n"]
    assert finish(process) == (b"", None)
    if quiet:
        assert error.read_bytes() == b""
    else:
        assert re.fullmatch(rb"ledgerctl: warning: the daemon is not running( any more: it ended before it answered)?\n"
                            rb"The watch goes on when the daemon runs again.\n", error.read_bytes())


def test_watch_goes_on_with_the_next_bus(ledgerctl, world, daemon, make_bus, tmp_path):
    error = tmp_path / "error"
    with open(error, "wb") as file, contextlib.closing(daemon.client()) as client:
        process, value = start_watching(ledgerctl, client, stderr=file)
        world.bus.close()
    daemon.wait_end()
    assert daemon.take_stderr()
    wait_for(error.read_bytes, "the client has noticed the end")
    world.registry.write_text("[s]\nk=next\n")
    world.bus = make_bus(world.path)
    world.start()
    assert [read_line(process), read_line(process)] == [b"- [s] k=%s\n" % value, b"+ [s] k=next\n"]
    assert finish(process) == (b"", None)
    assert re.fullmatch(rb"ledgerctl: warning: the daemon is not running: .*\n(.*\n)?"
                        rb"The watch goes on when the daemon runs again.\n", error.read_bytes())


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM],
                         ids=lambda number: number.name)
def test_signal_that_ends_watch_ends_its_command(ledgerctl, world, client, number):
    """More than the command's shell has to end: each part of a pipeline holds standard error open."""
    process, _ = start_watch(ledgerctl, client, "--exec", f"echo started; cat '{hanging(world)}' | cat")
    assert read_line(process) == b"started\n"
    process.send_signal(number)
    assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert process.returncode == -number


def hanging(world):
    """A FIFO that nobody writes to."""
    fifo = world.path / "nothing"
    os.mkfifo(fifo)
    return fifo


def test_watch_runs_one_command_at_a_time_and_misses_no_change(ledgerctl, world, client):
    """The next command gets what changes while one runs and is not undone."""
    gate = hanging(world)
    process, _ = start_watch(ledgerctl, client, "--exec", f"cat; read line <'{gate}'; echo end")
    value = read_value(process)
    client.write("s", "k", "2")
    client.write("s", "l", "undone")
    client.delete_key("s", "l")
    gate.write_text("\n")
    assert [read_line(process) for _ in range(3)] == [b"end\n", b"- [s] k=%s\n" % value, b"+ [s] k=2\n"]
    gate.write_text("\n")
    assert read_line(process) == b"end\n"
    assert finish(process) == (b"", b"")


def test_watch_waits_for_its_command_where_ended_children_are_ignored(ledgerctl, client):
    process, value = start_watching(ledgerctl, client, "--exec", "cat; exit 3",
                                    wrapper=("env", "--ignore-signal=CHLD"))
    client.write("s", "k", "2")
    assert [read_line(process), read_line(process)] == [b"- [s] k=%s\n" % value, b"+ [s] k=2\n"]
    output, error = finish(process)
    assert output == b"" and b"ledgerctl: warning: the command failed with status 3\n" in error


@pytest.mark.parametrize("error, expected", [
    ("org.freedesktop.DBus.Error.ServiceUnknown", failure(DAEMON_ERROR, b"last")),
    ("org.freedesktop.DBus.Error.AccessDenied", failure(DENIED, b"permission denied by the bus")),
    (f"{ERROR_PREFIX}Exception", failure(DAEMON_ERROR, b"no")),
], ids=["not running", "denied", "error"])
def test_watch_ends_with_any_later_failure_but_one(ledgerctl, world, error, expected):
    answers = iter([["{}"], (error, "no"), (error, "no")])
    with fake_daemon(world.bus, lambda call: next(answers, (f"{ERROR_PREFIX}Exception", "last"))):
        assert ledgerctl.run("-q", "watch", "-i", "0.001") == expected


@needs_strace
@pytest.mark.parametrize("call, error, text", [
    ("memfd_create", "EMFILE", b"memfd_create: Too many open files"),
    ("clone,clone3,vfork", "EAGAIN", b"/bin/sh: Resource temporarily unavailable"),
], ids=["memory", "process"])
def test_watch_that_cannot_run_its_command(ledgerctl, client, call, error, text):
    process = ledgerctl.start("watch", "-i", "0.01", "--exec", "echo started", wrapper=(
        *observe.without_leak_check(), "strace", "-o", os.devnull, "-e", f"inject={call}:error={error}"))

    def has_ended():
        client.write("s", "k", str(time.monotonic()))
        return process.poll() is not None

    wait_for(has_ended, "the watch has ended")
    assert (process.returncode, *process.communicate()) == failure(LOCAL, text)
