"""The client's watch: real changes, daemons and buses that are restarted, and a command on changes."""

import contextlib
import os
import re
import select
import signal
import time

import pytest

from world import observe
from world.harness import PATIENCE, wait_for
from world.ledgerctl import LOCAL, failure, traced
from world.observe import needs_strace


def read_line(process):
    """Returns the next line of its standard output, or the rest if the output ends."""
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
    written = []

    def change_is_seen():
        written.append(f"change-{len(written)}")
        client.write("s", "k", written[-1])
        return select.select([process.stdout], [], [], 0)[0]

    wait_for(change_is_seen, "the client watches")
    return process, written[-1].encode()


def read_value(process):
    """Returns the value of key k in section s in the next line that has a new value."""
    while not (line := read_line(process)).startswith(b"+ [s] k="):
        assert line, process.stderr.read()
    return line.strip().removeprefix(b"+ [s] k=")


def start_watching(ledgerctl, client, *arguments, **options):
    """As start_watch. The watch has reported that value."""
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
    """No change is printed meanwhile, so no write can fail."""
    process = ledgerctl.start("watch")
    wait_for(lambda: observe.status(process.pid)["Name"] == "ledgerctl", "the client runs")
    process.stdout.close()
    assert process.wait(PATIENCE) == -signal.SIGPIPE
    assert process.stderr.read() == b""
    process.stderr.close()


def finish(process):
    """Ends a watch. Returns what it printed since the last line that was read."""
    process.terminate()
    printed = process.communicate(timeout=PATIENCE)
    assert process.returncode == -signal.SIGTERM
    return printed


@pytest.mark.parametrize("restarted, warning", [
    ("daemon", rb"( any more: it ended before it answered)?\n"),
    ("bus", rb": .*\n(.*\n)?"),
], ids=["daemon", "bus"])
def test_watch_goes_on_after_a_restart(ledgerctl, world, daemon, make_bus, tmp_path, restarted, warning):
    error = tmp_path / "error"
    with open(error, "wb") as file, contextlib.closing(daemon.client()) as client:
        process, value = start_watching(ledgerctl, client, stderr=file)
        if restarted == "bus":
            world.bus.close()
            daemon.wait_end()
            assert daemon.take_stderr()
    if restarted == "daemon":
        daemon.stop()
    wait_for(error.read_bytes, "the client has noticed the end")
    world.registry.write_text("[s]\nk=next\n")
    if restarted == "bus":
        world.bus = make_bus(world.path)
    world.start()
    assert [read_line(process), read_line(process)] == [b"- [s] k=%s\n" % value, b"+ [s] k=next\n"]
    assert finish(process) == (b"", None)
    assert re.fullmatch(rb"ledgerctl: warning: the daemon is not running" + warning +
                        rb"The watch continues when the daemon runs again.\n", error.read_bytes())


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM],
                         ids=lambda number: number.name)
def test_signal_that_ends_watch_ends_its_command(ledgerctl, world, client, number):
    """More than the command's shell must end: each part of a pipeline keeps standard error open."""
    os.mkfifo(world.path / "gate")
    process, _ = start_watch(ledgerctl, client, "--exec", f"echo started; cat '{world.path}/gate' | cat")
    assert read_line(process) == b"started\n"
    process.send_signal(number)
    assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert process.returncode == -number


def test_watch_runs_one_command_at_a_time_and_misses_no_change(ledgerctl, world, client):
    """The next command gets the changes that were made while the last one ran, and were not undone."""
    gate = world.path / "gate"
    os.mkfifo(gate)
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


def test_watch_waits_for_its_command_even_if_sigchld_is_ignored(ledgerctl, client):
    process, value = start_watching(ledgerctl, client, "--exec", "cat; exit 3",
                                    wrapper=("env", "--ignore-signal=CHLD"))
    client.write("s", "k", "2")
    assert [read_line(process), read_line(process)] == [b"- [s] k=%s\n" % value, b"+ [s] k=2\n"]
    output, error = finish(process)
    assert output == b"" and b"ledgerctl: warning: the command failed with status 3\n" in error


@needs_strace
@pytest.mark.parametrize("call, error, text", [
    ("memfd_create", "EMFILE", b"memfd_create: Too many open files"),
    ("clone,clone3,vfork", "EAGAIN", b"/bin/sh: Resource temporarily unavailable"),
], ids=["memory", "process"])
def test_watch_that_cannot_run_its_command(ledgerctl, client, call, error, text):
    process = ledgerctl.start("watch", "-i", "0.01", "--exec", "echo started",
                              wrapper=traced("-e", f"inject={call}:error={error}"))

    def has_ended():
        client.write("s", "k", str(time.monotonic()))
        return process.poll() is not None

    wait_for(has_ended, "the watch has ended")
    assert (process.returncode, *process.communicate()) == failure(LOCAL, text)
