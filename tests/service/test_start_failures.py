"""Services that do not get going, and what the start command makes of it."""

import os
import pwd
import re
import signal
import sys
import time

import pytest

from world import observe
from world.harness import BUS_NAME, wait_for
from world.namespace_world import NOBODY_ELSE, SERVICE_NAME, as_user, needs_root, without_leak_check
from world.stalled_bus import StalledBus
from test_handshake import DIED_EARLY, INHERITED

START_TIMEOUT = 5
TOO_SLOW = ("ledgd: Child failed to get going\n"
            "ledgerd caught exception: ledgd: Child failed to report\n")
FORK_FAILED = "ledgerd caught exception: failed to fork: Resource temporarily unavailable\n"

# Runs a program, adopts the orphan that it leaves, waits for its end too and ends with its status. SIGUSR1 is deadly.
ADOPTER = """
import ctypes, os, subprocess, sys
PR_SET_CHILD_SUBREAPER = 36
ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
subprocess.run(sys.argv[1:])
sys.exit(os.waitstatus_to_exitcode(os.wait()[1]))
"""


@pytest.mark.parametrize("inherited", INHERITED)
def test_missing_bus(machine, inherited):
    machine.bus.close()
    began = time.monotonic()
    command = machine.run(wrapper=INHERITED[inherited])
    # The end of the child is noticed, not waited for.
    assert time.monotonic() - began < START_TIMEOUT
    assert (command.status, command.take_stderr()) == (0, DIED_EARLY)
    assert re.fullmatch(r"ledgerd caught exception: Failed to connect to socket [^\n]+\n", machine.take_log())
    # The PID file names the child that is no more.
    child = int(machine.pid_file.read_text())
    assert machine.exit_status(child) == 0
    assert set(machine.processes()) == {1}
    assert machine.pid_file.read_text() == f"{child}\n"


def test_bus_that_refuses_the_name(machine):
    machine.bus.refuse_name()
    command = machine.run()
    assert (command.status, command.take_stderr()) == (0, DIED_EARLY)
    assert re.fullmatch(rf'ledgerd caught exception: [^\n]*not allowed to own the service "{BUS_NAME}"[^\n]*\n',
                        machine.take_log())
    assert machine.exit_status(int(machine.pid_file.read_text())) == 0
    assert set(machine.processes()) == {1}


@pytest.mark.parametrize("name", ["SIGKILL", "SIGSEGV"])
def test_daemon_that_is_killed_before_it_is_ready(machine, name):
    with StalledBus(machine) as bus:
        command = machine.launch(environment=bus.environment)
        child = machine.unready_service()
        wait_for(child.is_detached, "the daemon is detached")
        child.signal(getattr(signal, name))
        command.wait()
    assert (command.status, command.take_stderr()) == (0, DIED_EARLY)
    # A sanitizer may report the fault.
    machine.take_log()


def test_failed_start_does_not_prevent_the_next_one(machine):
    environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={machine.path}/no-such-bus"}
    command = machine.run(environment=environment)
    assert (command.status, command.take_stderr()) == (0, DIED_EARLY)
    assert "Failed to connect to socket" in machine.take_log()
    client = machine.client()
    machine.start()
    assert client.read("net", "ip") == ""
    client.close()
    machine.stop()


@pytest.mark.parametrize("killed", [False, True], ids=["starter gives up", "starter is killed"])
def test_daemon_that_is_ready_too_late_serves_and_signals_nobody(machine, killed):
    with StalledBus(machine) as bus:
        began = time.monotonic()
        adopter = machine.launch(wrapper=(sys.executable, "-S", "-E", "-c", ADOPTER), environment=bus.environment)
        daemon = machine.unready_service()
        if killed:
            starter, = machine.processes_named(observe.PROCESS_NAME).values()
            os.kill(starter, signal.SIGKILL)
        adopting = adopter.pid
        wait_for(lambda: int(observe.status(daemon.pid)["PPid"]) == adopting, "the daemon is adopted")
        if not killed:
            assert START_TIMEOUT <= time.monotonic() - began
        assert adopter.take_stderr() == ("" if killed else TOO_SLOW)
        assert machine.processes_named(SERVICE_NAME) == {daemon.inner_pid: daemon.pid}

        bus.release()
        machine.wait_until_name_is_owned()
        client = daemon.client()
        client.write("net", "ip", "10.0.0.1")
        client.close()
        machine.stop()
        assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"
        # It was adopted by a process that a signal would have ended.
        adopter.wait()
        assert adopter.status == 0


def test_daemon_that_is_too_slow_and_fails_is_reported_in_the_kernel_log(machine):
    with StalledBus(machine) as bus:
        began = time.monotonic()
        command = machine.launch(environment=bus.environment)
        assert START_TIMEOUT <= command.wait() - began < START_TIMEOUT + 1
        assert (command.status, command.take_stderr()) == (0, TOO_SLOW)
        daemon = machine.service()
    assert daemon.wait_end() == 0
    assert re.fullmatch(r"ledgerd caught exception: [^\n]+\n", machine.take_log())


def test_second_instance_gets_ready_and_waits_for_the_name(machine):
    first = machine.start()
    assert first.owns_the_name()
    # Flags of 0: the bus puts it into the queue, which is no error.
    second = machine.start()
    assert machine.pid_file.read_text() == f"{second.inner_pid}\n"
    assert first.inner_pid != second.inner_pid
    assert set(machine.processes_named(SERVICE_NAME)) == {first.inner_pid, second.inner_pid}
    assert first.owns_the_name()
    client = machine.client()
    waiting = client.connection.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                              "ListQueuedOwners", "s", (BUS_NAME,))
    assert len(waiting) == 2
    client.write("net", "ip", "first")

    # The PID file knows the second only.
    machine.stop()
    assert second.wait_end() == 0
    assert client.read("net", "ip") == "first"
    assert not machine.registry.exists()
    client.close()
    first.signal(signal.SIGTERM)
    assert first.wait_end() == 0
    assert machine.registry_bytes() == b"[net]\nip=first\n"


@needs_root
def test_full_process_table(machine):
    command = machine.run(wrapper=as_user(NOBODY_ELSE, processes=1), environment=without_leak_check())
    assert (command.status, command.take_stderr()) == (0, FORK_FAILED)
    assert not machine.pid_file.exists()
    assert machine.kernel_log.read() == ""


def test_missing_kernel_log_is_replaced_by_the_null_device(machine):
    # Nobody can make a file of that name either.
    machine.lay_over_dev(read_only=True)
    machine.registry.mkdir()
    daemon = machine.start()
    found = observe.descriptors(daemon.pid)
    assert [found[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3
    # It had something to print.
    client = daemon.client()
    assert client.section_list() == []
    client.close()
    machine.registry.rmdir()
    machine.stop()
    assert daemon.wait_end() == 0
    assert machine.kernel_log.read() == ""


@needs_root
def test_kernel_log_that_may_not_be_written_is_replaced_by_the_null_device(machine):
    machine.lay_over_dev(kmsg="")
    os.chmod(machine.path / "devices" / "kmsg", 0o600)
    client = machine.client()
    # The bus and the store are open to all.
    for path in (machine.path, machine.registry.parent):
        os.chmod(path, 0o777)
    # The bus wants a user whom it finds in the system's table.
    command = machine.run(wrapper=as_user(pwd.getpwnam("nobody").pw_uid))
    assert (command.status, command.take_stderr()) == (0, "")
    assert client.read("net", "ip") == ""
    client.close()
    # Nor may this user write the PID file.
    assert not machine.pid_file.exists()
    inner_pid, = machine.processes_named(SERVICE_NAME)
    daemon = machine.service_with(inner_pid)
    found = observe.descriptors(daemon.pid)
    assert [found[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3
