"""The daemon as a service: its process, its streams and signals, its messages, and a second instance."""

import os
import re
import signal

import pytest

from world import observe
from world.harness import INTERFACE, MISSING_HARDWARE, OBJECT_PATH, wait_for
from world.namespace_world import SERVICE_NAME, needs_one_thread
from world.observe import needs_strace
from world.stalled_bus import stalled_start
from test_start_failures import DIED_EARLY

IGNORED = {signal.SIGTSTP, signal.SIGTTOU, signal.SIGTTIN, signal.SIGUSR1, signal.SIGPIPE, signal.SIGXFSZ}
TERMINATION = {getattr(signal, name) for name in observe.TERMINATION_SIGNALS}
# A sanitizer handles these itself.
FAULTS = {signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, signal.SIGILL, signal.SIGTRAP, signal.SIGABRT}


def signals(pid):
    """Returns the ignored, handled and blocked signals, without those of real time and those of a sanitizer."""
    masks = [int(observe.status(pid)[field], 16) for field in ("SigIgn", "SigCgt", "SigBlk")]
    ignored, handled, blocked = ({signal.Signals(number) for number in range(1, 32) if mask & 1 << (number - 1)}
                                 for mask in masks)
    return ignored, handled - FAULTS, blocked


@pytest.mark.parametrize("arguments", [(), ("-x",), ("--help",), ("",), ("-dk",), ("-K",), ("d",), ("-x", "-d")],
                         ids=lambda arguments: " ".join(map(repr, arguments)) or "none")
def test_service_answers_as_soon_as_the_start_command_has_returned(machine, arguments):
    client = machine.client()
    daemon = machine.start(*arguments)
    assert client.read("net", "ip") == ""
    assert observe.status(daemon.pid)["Name"] == SERVICE_NAME
    assert daemon.owns_the_name()


@needs_one_thread
def test_start_command_waits_in_one_thread_after_it_has_written_the_pid_file(machine):
    machine.pid_file.write_text("4294967295".ljust(100) + "\n")
    with stalled_start(machine) as (bus, starter, daemon):
        assert machine.pid_file.read_text() == f"{daemon.inner_pid}\n"
        assert list(observe.thread_names(starter.pid).values()) == [observe.PROCESS_NAME]
        assert list(observe.thread_names(daemon.pid).values()) == [SERVICE_NAME]
        assert starter.status is None
        bus.release()
        assert starter.result() == (0, "")
        wait_for(lambda: observe.thread_named(daemon.pid, observe.WORKER_NAME), "the worker has its name")
        assert observe.thread_named(daemon.pid, SERVICE_NAME) == daemon.pid


def test_daemon_is_detached_from_its_starter(machine):
    reader, writer = os.pipe()
    daemon = machine.start(wrapper=("env", f"--chdir={machine.path}"), umask=0o027, stdin=reader, stdout=writer,
                           pass_fds=[writer])
    # There was one fork: the daemon is the starter's child, and the starter is gone.
    assert set(machine.processes()) == {1, daemon.inner_pid}
    assert int(observe.status(daemon.pid)["PPid"]) == machine.processes()[1]
    assert os.getsid(daemon.pid) == os.getpgid(daemon.pid) == daemon.pid
    with open(f"/proc/{daemon.pid}/stat", encoding="ascii") as file:
        assert file.read().rsplit(")", 1)[1].split()[4] == "0", "it has no terminal"
    assert os.readlink(f"/proc/{daemon.pid}/cwd") == "/"
    assert observe.status(daemon.pid)["Umask"] == "0027"
    found = observe.descriptors(daemon.pid)
    assert [(found.pop(fd), observe.open_flags(daemon.pid, fd) & os.O_ACCMODE) for fd in (0, 1, 2)] == [
        ("/dev/null", os.O_RDONLY), ("/dev/kmsg", os.O_WRONLY), ("/dev/kmsg", os.O_WRONLY)]
    # Inherited descriptors stay open.
    assert found.pop(writer) == os.readlink(f"/proc/self/fd/{writer}")
    # The pipe that wakes the loop, and the connection to the bus.
    assert sorted(target.split(":")[0] for target in found.values()) == ["pipe", "pipe", "socket"]
    os.close(writer)
    machine.stop()
    assert os.read(reader, 1) == b""
    os.close(reader)


def test_missing_kernel_log_is_replaced_by_the_null_device(machine):
    machine.lay_over_dev()
    machine.registry.mkdir()
    daemon = machine.start()
    found = observe.descriptors(daemon.pid)
    assert [found[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3
    # It had something to print.
    assert daemon.client().section_list() == []
    assert machine.kernel_log.read() == ""


@pytest.mark.parametrize("options", [
    [],
    ["--ignore-signal=HUP,TERM,INT,QUIT"],
    ["--ignore-signal=USR1", "--block-signal=USR1,CHLD"],
    ["--ignore-signal=CHLD"],
    ["--block-signal=HUP,TERM,INT,QUIT"],
], ids=["nothing", "termination ignored", "handshake blocked", "children ignored", "termination blocked"])
def test_signal_dispositions_do_not_depend_on_what_the_starter_inherits(machine, options):
    daemon = machine.start(wrapper=("env", *options))
    assert signals(daemon.pid) == (IGNORED, TERMINATION, set())
    machine.stop()
    assert daemon.wait_end() == 0


@pytest.mark.parametrize("ignored", [[], ["--ignore-signal=TERM"]], ids=["nothing ignored", "termination ignored"])
def test_signals_have_no_handlers_while_the_hardware_is_read(machine, ignored):
    machine.lay_over_proc()
    os.mkfifo(machine.path / "proc" / "boardid")
    starter = machine.launch(wrapper=("env", "--default-signal", *ignored))
    # Reading the FIFO waits for a writer.
    daemon = machine.unready_service()
    wait_for(daemon.is_detached, "the daemon is detached")
    assert signals(daemon.pid) == (IGNORED | {signal.SIGHUP}, set(), set())
    daemon.signal(signal.SIGHUP)
    daemon.signal(signal.SIGUSR1)
    assert starter.status is None
    daemon.signal(signal.SIGTERM)
    assert starter.result() == (0, DIED_EARLY)


@needs_strace
def test_each_message_is_a_record_of_the_kernel_log(machine):
    machine.registry.mkdir()
    trace = observe.Strace(machine, "-s", "1000", "-e", "trace=write")
    daemon = machine.start(wrapper=trace.wrapper)
    machine.registry.rmdir()
    daemon.client().write("net", "ip", "10.0.0.1")
    machine.bus.close()
    assert daemon.wait_end() == 0
    assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    messages = ["Error reading registry file: 21\n", "ledgerd lost its connection to the bus.\n"]
    assert machine.kernel_log.read() == MISSING_HARDWARE + "".join(messages)
    assert machine.take_log() == "".join(messages)

    def records():
        calls = observe.whole_calls(trace.lines())
        return [match[1] for match in (re.search(r'write\(\d+</dev/kmsg>, "(.*)\\n", \d+\)', call) for call in calls)
                if match]

    # Each write to the device makes a record.
    wait_for(lambda: len(records()) == 4, "strace has logged all")
    assert "\n".join(records()) + "\n" == MISSING_HARDWARE + "".join(messages)


def test_second_instance_waits_for_the_name_and_takes_it_over(machine):
    first, second = machine.start(), machine.start()
    # The PID file has the second one. The first one owns the name.
    assert set(machine.processes_named(SERVICE_NAME)) == {first.inner_pid, second.inner_pid}
    client = machine.client()
    client.write("net", "ip", "first")
    machine.stop()
    assert second.wait_end() == 0
    assert first.owns_the_name() and client.read("net", "ip") == "first"
    assert not machine.registry.exists()

    third = machine.start()
    *_, waiting = machine.bus.call("ListQueuedOwners")
    # It answers calls to its unique name.
    assert client.connection.call_blocking(waiting, OBJECT_PATH, INTERFACE, "Read", "ss", ("net", "ip")) == ""
    assert first.owns_the_name()
    first.signal(signal.SIGTERM)
    assert first.wait_end() == 0
    assert machine.registry_bytes() == b"[net]\nip=first\n"
    wait_for(third.owns_the_name, "the third instance owns the name")
    # It has read the file at its start.
    assert client.read("net", "ip") == ""
    client.write("net", "ip", "third")
    machine.stop()
    assert machine.registry_bytes() == b"[net]\nip=third\n"
