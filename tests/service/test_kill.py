"""Stopping a service with "-k": what it stops, what it leaves alone, what it prints."""

import os
import signal
import statistics
import sys
import time

import pytest

from world import observe
from world.harness import MISSING_HARDWARE, wait_for
from world.namespace_world import NOBODY_ELSE, as_user, needs_root
from world.observe import needs_strace
from world.stalled_bus import StalledBus

STOP_TIMEOUT = 2
NO_SUCH_PROCESS = "ledgerd caught exception: ReadPidFile:ledgd: No such process (3)\n"
NOT_RUNNING = "PID file exists but ledgd not running\n" + NO_SUCH_PROCESS
NO_PID_FILE = "ledgerd caught exception: ReadPidFile:ledgd: No such file or directory (2)\n"

# A program that gives itself a name, tells that it has, and lives on.
NAMED_PROGRAM = """
import ctypes, signal, sys
ctypes.CDLL(None).prctl(15, sys.argv[1].encode())
print(flush=True)
signal.pause()
"""


def does_not_exist(number):
    return (f"PID file exists but ledgd process does not exist: /proc/{number}/stat: No such file or directory (2)\n"
            + NO_SUCH_PROCESS)


def named_program(machine, name):
    reader, writer = os.pipe()
    command = machine.spawn(sys.executable, "-S", "-E", "-c", NAMED_PROGRAM, name, stdout=writer)
    os.close(writer)
    assert os.read(reader, 1) == b"\n"
    os.close(reader)
    inner_pid, = machine.processes_named(name)
    return command, inner_pid


def test_daemon_is_stopped_in_silence_with_its_data_written(machine):
    daemon = machine.start()
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    client.close()
    machine.stop()
    # It is gone, not only told to go.
    assert daemon.has_ended()
    assert daemon.wait_end() == 0
    assert set(machine.processes()) == {1}
    assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    assert machine.pid_file.read_text() == f"{daemon.inner_pid}\n"


def test_only_the_first_argument_counts(machine):
    daemon = machine.start()
    machine.stop("-d", "surplus")
    assert daemon.wait_end() == 0


def test_neither_bus_nor_hardware_is_needed(machine):
    daemon = machine.start()
    with StalledBus(machine) as bus:
        machine.stop(environment=bus.environment)
    assert daemon.wait_end() == 0


def delay_of_the_command(machine):
    """Seconds from the daemon's end to that of the command that ended it."""
    daemon = machine.start()
    command = machine.launch("-k")
    ended = daemon.wait_exit()
    delay = command.wait() - ended
    assert (command.status, command.take_stderr()) == (0, "")
    return delay


def test_command_returns_within_50_ms_of_the_daemons_end(machine):
    # A busy machine may delay some.
    delays = [delay_of_the_command(machine) for _ in range(9)]
    print(delays)
    assert statistics.median(delays) <= 0.05


@needs_strace
def test_daemon_is_looked_for_every_10_ms(machine):
    daemon = machine.start()
    daemon.signal(signal.SIGSTOP)
    trace = observe.Strace(machine, "-e", "trace=kill,clock_nanosleep,nanosleep")
    command = machine.launch("-k", wrapper=trace.wrapper)
    probe = f"kill({daemon.inner_pid}, 0)"
    wait_for(lambda: sum(probe in line for line in trace.lines()) >= 5, "the daemon is looked for")
    daemon.signal(signal.SIGCONT)
    command.wait()
    assert (command.status, command.take_stderr()) == (0, "")
    wait_for(lambda: any("+++ exited with 0 +++" in line for line in trace.lines()), "strace has logged the end")
    calls = [" ".join(line.split()[1:]) for line in trace.lines()]
    calls = [call for call in calls if call.startswith(("kill(", "clock_nanosleep(", "nanosleep("))]
    assert calls[0] == f"kill({daemon.inner_pid}, SIGTERM) = 0"
    # Looked for twice at the end: once to leave the loop and once for the verdict.
    gone = [call for call in calls if call.startswith(probe) and "ESRCH" in call]
    assert calls[-2:] == gone
    polls = calls[1:-2]
    assert len(polls) >= 10
    assert all(call.startswith(probe) and call.endswith("= 0") for call in polls[::2])
    assert all("nanosleep(" in call and "tv_sec=0, tv_nsec=10000000}" in call for call in polls[1::2])


def test_no_pid_file(machine):
    command = machine.run("-k")
    assert (command.status, command.take_stderr()) == (0, NO_PID_FILE)


def test_second_stop_finds_the_stale_pid_file(machine):
    daemon = machine.start()
    machine.stop()
    command = machine.run("-k")
    assert (command.status, command.take_stderr()) == (0, does_not_exist(daemon.inner_pid))
    assert machine.pid_file.read_text() == f"{daemon.inner_pid}\n"


@pytest.mark.parametrize("text, number", [
    ("", 0),
    ("\n", 0),
    ("garbage\n", 0),
    ("ledgd 1\n", 0),
    ("0\n", 0),
    ("-1\n", -1),
    ("-5\n", -5),
    ("4294967295\n", -1),
    ("18446744073709551615\n", -1),
    ("99999999999999999999999999\n", -1),
    ("4294967296\n", 0),
    ("4194305\n", 4194305),
    ("2147483648\n", -2147483648),
    ("\0\0\0\0", 0),
    ("7" * 100000, -1),
], ids=lambda value: repr(value)[:24])
def test_pid_file_that_names_no_process(machine, text, number):
    # Had a signal been sent to one of these numbers, it would have ended more than one process.
    bystander, inner_pid = named_program(machine, "bystander")
    machine.pid_file.write_text(text)
    command = machine.run("-k")
    assert (command.status, command.take_stderr()) == (0, does_not_exist(number))
    assert bystander.status is None
    assert machine.processes()[inner_pid] == bystander.pid


@pytest.mark.parametrize("name", ["sleeper", "ledgdp", "ledgd2", "ledg", "LEDGD", "xledgd"])
def test_process_of_another_name_is_left_alone(machine, name):
    bystander, inner_pid = named_program(machine, name)
    machine.pid_file.write_text(f"{inner_pid}\n")
    command = machine.run("-k")
    assert (command.status, command.take_stderr()) == (0, NOT_RUNNING)
    assert bystander.status is None
    assert machine.processes()[inner_pid] == bystander.pid


def test_init_is_left_alone_when_a_wrapped_number_names_it(machine):
    machine.enter()
    machine.pid_file.write_text("4294967297\n")
    command = machine.run("-k")
    assert (command.status, command.take_stderr()) == (0, NOT_RUNNING)


def test_daemon_in_the_foreground_is_left_alone(machine):
    foreground = machine.launch("-d")
    machine.wait_until_name_is_owned()
    inner_pid, = machine.processes_named(observe.PROCESS_NAME)
    machine.pid_file.write_text(f"{inner_pid}\n")
    command = machine.run("-k")
    assert (command.status, command.take_stderr()) == (0, NOT_RUNNING)
    os.kill(foreground.pid, signal.SIGTERM)
    foreground.wait()
    assert (foreground.status, foreground.take_stderr()) == (0, MISSING_HARDWARE)


@pytest.mark.parametrize("text", ["{}", "  {}\n", "+{}\n", "000{}\n", "{} and more\n", "{}\n1\n"])
def test_first_number_of_the_pid_file_counts(machine, text):
    daemon = machine.start()
    machine.pid_file.write_text(text.format(daemon.inner_pid))
    machine.stop()
    assert daemon.wait_end() == 0


def test_directory_in_place_of_the_pid_file_names_no_process(machine):
    machine.pid_file.mkdir()
    command = machine.run("-k")
    assert (command.status, command.take_stderr()) == (0, does_not_exist(0))


@needs_root
def test_unreadable_pid_file_is_reported_as_missing(machine):
    daemon = machine.start()
    machine.pid_file.chmod(0o600)
    command = machine.run("-k", wrapper=as_user(NOBODY_ELSE))
    assert (command.status, command.take_stderr()) == (0, NO_PID_FILE)
    assert not daemon.has_ended()


@needs_root
def test_daemon_that_may_not_be_signalled_lives_on(machine):
    daemon = machine.start()
    machine.pid_file.chmod(0o644)
    command = machine.run("-k", wrapper=as_user(NOBODY_ELSE))
    assert command.status == 0
    assert command.take_stderr() == (f"Failed to send signal 15 to {daemon.inner_pid}.\n"
                                     "ledgerd caught exception: KillProcessAndWait: Operation not permitted (1)\n")
    client = daemon.client()
    assert client.read("net", "ip") == ""
    client.close()


def test_stopped_daemon_is_killed_after_2_seconds(machine):
    machine.registry.write_bytes(b"[net]\nip=old\n")
    daemon = machine.start()
    client = daemon.client()
    client.write("net", "ip", "new")
    client.close()
    daemon.signal(signal.SIGSTOP)
    began = time.monotonic()
    command = machine.launch("-k")
    elapsed = command.wait() - began
    assert command.status == 0
    assert command.take_stderr() == f"PID {daemon.inner_pid} didn't exit from signal 15. Trying harder.\n"
    assert STOP_TIMEOUT <= elapsed < STOP_TIMEOUT + 1
    assert daemon.wait_end() == -signal.SIGKILL
    # There was no orderly end.
    assert machine.registry_bytes() == b"[net]\nip=old\n"


def test_daemon_that_ends_just_in_time_is_not_killed(machine):
    daemon = machine.start()
    client = daemon.client()
    client.write("net", "ip", "new")
    client.close()
    daemon.signal(signal.SIGSTOP)
    command = machine.launch("-k")
    with pytest.raises(AssertionError):
        command.wait(patience=STOP_TIMEOUT / 2)
    daemon.signal(signal.SIGCONT)
    command.wait()
    assert (command.status, command.take_stderr()) == (0, "")
    assert daemon.wait_end() == 0
    assert machine.registry_bytes() == b"[net]\nip=new\n"


