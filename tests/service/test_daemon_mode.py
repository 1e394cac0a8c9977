"""The daemon as a service: what the start command guarantees, what the detached process is like, how it ends."""

import os
import re
import signal
import stat

import pytest

from world import observe
from world.harness import BUS_NAME, MISSING_HARDWARE, wait_for
from world.namespace_world import SERVICE_NAME, needs_one_thread
from world.observe import needs_strace
from world.stalled_bus import StalledBus
from test_foreground import ALL_CLOSED_STREAMS, without_streams

IGNORED = {signal.SIGTSTP, signal.SIGTTOU, signal.SIGTTIN, signal.SIGUSR1, signal.SIGPIPE, signal.SIGXFSZ}
TERMINATION = {getattr(signal, name) for name in observe.TERMINATION_SIGNALS}
# A sanitizer reports these itself.
FAULTS = {signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, signal.SIGILL, signal.SIGTRAP, signal.SIGABRT}


def signals(pid, field):
    """The signals, but for the real-time ones, in a mask of /proc/PID/status."""
    mask = int(observe.status(pid)[field], 16)
    return {signal.Signals(number) for number in range(1, 32) if mask & 1 << (number - 1)}


@pytest.mark.parametrize("arguments", [(), ("-x",), ("--help",), ("",), ("-dk",), ("-K",), ("d",), ("-x", "-d")],
                         ids=lambda arguments: " ".join(map(repr, arguments)) or "none")
def test_service_answers_as_soon_as_the_start_command_has_returned(machine, arguments):
    client = machine.client()
    daemon = machine.start(*arguments)
    assert client.read("net", "ip") == ""
    client.close()
    assert observe.status(daemon.pid)["Name"] == SERVICE_NAME
    assert daemon.owns_the_name()


@needs_strace
def test_start_command_waits_for_a_daemon_that_is_slow_with_the_bus(machine):
    client = machine.client()
    slow = observe.Strace(machine, "-s", "1000", "-e", "trace=sendmsg", "-e", "inject=sendmsg:delay_enter=100000")
    machine.start(wrapper=slow.wrapper)
    assert client.read("net", "ip") == ""
    client.close()
    # The slowness was there: this is what was sent.
    assert any("RequestName" in line for line in slow.lines())


def test_pid_file_holds_the_number_of_the_daemon_and_a_line_feed(machine):
    machine.pid_file.write_text("4294967295\nlonger than what replaces it\n")
    daemon = machine.start()
    assert machine.pid_file.read_bytes() == b"%lu\n" % daemon.inner_pid
    assert machine.processes_named(SERVICE_NAME) == {daemon.inner_pid: daemon.pid}


@needs_one_thread
def test_starter_and_daemon_have_names_of_their_own(machine):
    with StalledBus(machine) as bus:
        starter = machine.launch(environment=bus.environment)
        wait_for(lambda: machine.processes_named(SERVICE_NAME), "the daemon has its name")
        assert observe.status(starter.pid)["Name"] == observe.PROCESS_NAME
        assert starter.status is None
        bus.release()
        starter.wait()
        assert (starter.status, starter.take_stderr()) == (0, "")
        daemon = machine.service()
        wait_for(lambda: observe.thread_named(daemon.pid, observe.WORKER_NAME), "the worker has its name")
        assert observe.thread_named(daemon.pid, SERVICE_NAME) == daemon.pid
        machine.stop()


def test_pid_file_is_there_before_the_daemon_is_ready(machine):
    with StalledBus(machine) as bus:
        starter = machine.launch(environment=bus.environment)
        wait_for(lambda: machine.processes_named(SERVICE_NAME) and machine.pid_file.exists()
                 and machine.pid_file.read_text(), "there is a daemon and a PID file")
        assert machine.pid_file.read_text() == f"{next(iter(machine.processes_named(SERVICE_NAME)))}\n"
        assert starter.status is None
        bus.release()
        starter.wait()
        machine.stop()


def test_daemon_leads_a_session_of_its_own(machine):
    daemon = machine.start()
    assert os.getsid(daemon.pid) == daemon.pid != os.getsid(0)
    assert os.getpgid(daemon.pid) == daemon.pid
    # No terminal.
    with open(f"/proc/{daemon.pid}/stat", encoding="ascii") as file:
        assert file.read().rsplit(")", 1)[1].split()[4] == "0"


def test_daemon_works_in_the_root_directory(machine):
    daemon = machine.start(wrapper=("env", f"--chdir={machine.path}"))
    assert os.readlink(f"/proc/{daemon.pid}/cwd") == "/"


def test_file_creation_mask_is_inherited(machine):
    daemon = machine.start(umask=0o027)
    assert observe.status(daemon.pid)["Umask"] == "0027"


def test_daemon_is_orphaned_by_its_starter(machine):
    daemon = machine.start()
    # There was one fork: the daemon is the starter's child, and nobody else is left.
    assert set(machine.processes()) == {1, daemon.inner_pid}
    init = machine.processes()[1]
    assert int(observe.status(daemon.pid)["PPid"]) == init


def assert_standard_streams_are_detached(daemon):
    found = observe.descriptors(daemon.pid)
    assert [found[fd] for fd in (0, 1, 2)] == ["/dev/null", "/dev/kmsg", "/dev/kmsg"]
    modes = []
    for fd in (0, 1, 2):
        with open(f"/proc/{daemon.pid}/fdinfo/{fd}", encoding="ascii") as file:
            flags = next(int(line.split()[1], 8) for line in file if line.startswith("flags:"))
        modes.append(flags & os.O_ACCMODE)
    assert modes == [os.O_RDONLY, os.O_WRONLY, os.O_WRONLY]
    assert stat.S_ISFIFO(os.stat(f"/proc/{daemon.pid}/fd/2").st_mode)


def assert_no_other_descriptors(daemon):
    """Beside the standard streams there are the connection to the bus and the pipe that wakes the loop."""
    kinds = sorted(target.split(":")[0] for fd, target in observe.descriptors(daemon.pid).items() if fd > 2)
    assert kinds == ["pipe", "pipe", "socket"]


def test_standard_streams_are_null_device_and_kernel_log(machine):
    given = os.pipe()
    daemon = machine.start(stdin=given[0], stdout=given[1])
    assert_standard_streams_are_detached(daemon)
    assert_no_other_descriptors(daemon)
    assert os.readlink(f"/proc/self/fd/{given[0]}") not in observe.descriptors(daemon.pid).values()
    for fd in given:
        os.close(fd)


@pytest.mark.parametrize("closed", ALL_CLOSED_STREAMS, ids=lambda closed: "closed" + "".join(map(str, closed)))
def test_closed_standard_streams_end_up_the_same(machine, closed):
    daemon = machine.start(wrapper=without_streams(closed))
    assert_standard_streams_are_detached(daemon)
    assert_no_other_descriptors(daemon)
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    client.flush()
    client.close()
    assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"


def test_inherited_descriptors_stay_open(machine):
    reader, writer = os.pipe()
    daemon = machine.start(pass_fds=[writer])
    assert observe.descriptors(daemon.pid)[writer] == os.readlink(f"/proc/self/fd/{writer}")
    os.close(writer)
    machine.stop()
    # It held the last writing end, and wrote nothing.
    assert os.read(reader, 1) == b""
    os.close(reader)


def test_signal_dispositions_of_a_ready_daemon(machine):
    daemon = machine.start()
    assert signals(daemon.pid, "SigIgn") == IGNORED
    assert signals(daemon.pid, "SigCgt") - FAULTS == TERMINATION
    assert int(observe.status(daemon.pid)["SigBlk"], 16) == 0


@pytest.mark.parametrize("options", [
    ["--ignore-signal=HUP,TERM,INT,QUIT"],
    ["--ignore-signal=USR1", "--block-signal=USR1,CHLD"],
    ["--ignore-signal=CHLD"],
    ["--block-signal=HUP,TERM,INT,QUIT"],
], ids=["termination ignored", "hand-shake blocked", "children ignored", "termination blocked"])
def test_signal_dispositions_do_not_depend_on_the_starting_program(machine, options):
    daemon = machine.start(wrapper=("env", *options))
    assert signals(daemon.pid, "SigIgn") == IGNORED
    assert signals(daemon.pid, "SigCgt") - FAULTS == TERMINATION
    assert int(observe.status(daemon.pid)["SigBlk"], 16) == 0
    machine.stop()
    assert daemon.wait_end() == 0


@pytest.mark.parametrize("wrapper", [(), ("env", "--ignore-signal=TERM")], ids=["none", "termination ignored"])
def test_signal_dispositions_while_the_hardware_is_read(machine, wrapper):
    machine.lay_over_proc()
    os.mkfifo(machine.path / "proc" / "boardid")
    starter = machine.launch(wrapper=wrapper)
    # Reading the FIFO waits for a writer.
    daemon = machine.unready_service()
    wait_for(daemon.is_detached, "the daemon is detached")
    assert signals(daemon.pid, "SigIgn") == IGNORED | {signal.SIGHUP}
    assert signals(daemon.pid, "SigCgt") - FAULTS == set()
    assert int(observe.status(daemon.pid)["SigBlk"], 16) == 0

    daemon.signal(signal.SIGHUP)
    daemon.signal(signal.SIGUSR1)
    assert starter.status is None
    daemon.signal(signal.SIGTERM)
    starter.wait()
    assert starter.status == 0
    assert starter.take_stderr() == ("ledgd: Child died early\n"
                                     "ledgerd caught exception: ledgd: Child died early\n")


@needs_strace
def test_each_diagnostic_line_is_a_record_of_the_kernel_log(machine):
    machine.registry.mkdir()
    trace = observe.Strace(machine, "-s", "1000", "-e", "trace=write")
    machine.start(wrapper=trace.wrapper)
    client = machine.client()
    assert client.section_list() == []
    client.close()
    assert machine.kernel_log.read() == MISSING_HARDWARE + "Error reading registry file: 21\n"
    assert machine.take_log() == "Error reading registry file: 21\n"

    def records():
        calls = observe.whole_calls(trace.lines())
        return [match[1] for match in (re.search(r'write\(\d+</dev/kmsg>, "(.*)", \d+\)', call) for call in calls)
                if match]

    # Each write to the device makes a record.
    wait_for(lambda: len(records()) == 3, "strace has logged all")
    assert records() == [*MISSING_HARDWARE.replace("\n", "\\n\n").splitlines(), "Error reading registry file: 21\\n"]


def test_diagnostics_of_a_running_daemon_go_to_the_kernel_log(machine):
    daemon = machine.start()
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    machine.bus.close()
    assert daemon.wait_end() == 0
    assert machine.take_log() == "ledgerd lost its connection to the bus.\n"
    assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"


@pytest.mark.parametrize("name", observe.TERMINATION_SIGNALS)
def test_signal_ends_the_daemon_with_the_data_written_and_the_pid_file_left(machine, name):
    daemon = machine.start()
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    assert not machine.registry.exists()
    daemon.signal(getattr(signal, name))
    assert daemon.wait_end() == 0
    assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    assert machine.pid_file.read_text() == f"{daemon.inner_pid}\n"
    assert not client.connection.name_has_owner(BUS_NAME)
    client.close()


@pytest.mark.parametrize("name", ["SIGTSTP", "SIGTTIN", "SIGTTOU", "SIGUSR1"])
def test_ignored_signal_changes_nothing(machine, name):
    daemon = machine.start()
    daemon.signal(getattr(signal, name))
    client = daemon.client()
    assert client.read("net", "ip") == ""
    client.close()
    assert observe.status(daemon.pid)["State"] != "T (stopped)"


def test_restart_finds_the_data(machine):
    for generation in range(3):
        daemon = machine.start()
        client = daemon.client()
        if generation:
            assert client.read("net", "ip") == f"10.0.0.{generation - 1}"
        client.write("net", "ip", f"10.0.0.{generation}")
        client.close()
        if generation == 1:
            daemon.signal(signal.SIGTERM)
        else:
            machine.stop()
        assert daemon.wait_end() == 0
        assert machine.pid_file.read_text() == f"{daemon.inner_pid}\n"


def test_pid_file_that_cannot_be_written_is_passed_over(machine):
    machine.pid_file.mkdir()
    client = machine.client()
    command = machine.run()
    assert (command.status, command.take_stderr()) == (0, "")
    assert client.read("net", "ip") == ""
    client.close()
    assert os.listdir(machine.pid_file) == []
    assert len(machine.processes_named(SERVICE_NAME)) == 1
