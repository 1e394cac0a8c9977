"""Starts that fail, and daemons that are ready too late or die early: what the start command reports."""

import os
import re
import signal
import sys
import time

import pytest

from world import observe
from world.harness import BUS_NAME, MISSING_HARDWARE, Bus, is_sanitized, wait_for
from world.namespace_world import SERVICE_NAME
from world.stalled_bus import StalledBus, stalled_start
from test_kill import NO_PID_FILE

START_TIMEOUT = 5
CAUGHT = "ledgerd caught exception: "
DIED_EARLY = f"ledgd: Child died early\n{CAUGHT}ledgd: Child died early\n"
TOO_SLOW = f"ledgd: Child failed to get going\n{CAUGHT}ledgd: Child failed to report\n"
NO_BUS = re.escape(CAUGHT) + r"Failed to connect to socket [^\n]+\n"
NO_NAME = re.escape(CAUGHT) + rf'[^\n]*not allowed to own the service "{BUS_NAME}"[^\n]*\n'
NO_DESCRIPTORS = re.escape(f"{CAUGHT}dispatcher pipe: Too many open files (24)\n")

# Runs a program, adopts the orphan of the program, and ends with the status of the orphan. SIGUSR1 kills it.
ADOPTER = """
import ctypes, os, subprocess, sys
PR_SET_CHILD_SUBREAPER = 36
ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
subprocess.run(sys.argv[1:])
sys.exit(os.waitstatus_to_exitcode(os.wait()[1]))
"""


def assert_start_fails(machine, foreground, message, **options):
    """The message is a regular expression."""
    if foreground:
        status, printed = machine.run("-d", **options)
        assert (status, machine.take_log()) == (0, "")
        assert re.fullmatch(MISSING_HARDWARE + message, printed)
        return
    began = time.monotonic()
    assert machine.run(**options) == (0, DIED_EARLY)
    # It notices the end of the child at once.
    assert time.monotonic() - began < START_TIMEOUT
    assert re.fullmatch(message, machine.take_log())
    # The PID file has the child, which has ended.
    child = int(machine.pid_file.read_text())
    assert machine.exit_status(child) == 0
    assert set(machine.processes()) == {1}
    assert machine.pid_file.read_text() == f"{child}\n"


@pytest.mark.parametrize("foreground", [True, False], ids=["foreground", "service"])
def test_failure_of_the_bus_is_reported_and_does_not_prevent_the_next_start(machine, foreground):
    environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={machine.path}/no-such-bus"}
    assert_start_fails(machine, foreground, NO_BUS, environment=environment)
    machine.bus.close()
    machine.bus = Bus(machine.path, f'  <policy context="default"><deny own="{BUS_NAME}"/></policy>\n')
    assert_start_fails(machine, foreground, NO_NAME)
    machine.bus.close()
    machine.bus = Bus(machine.path)
    assert machine.start().owns_the_name()


@pytest.mark.parametrize("foreground", [True, False], ids=["foreground", "service"])
def test_too_few_descriptors_are_reported(machine, foreground):
    if is_sanitized(machine):
        pytest.skip("a sanitizer needs descriptors of its own")
    for limit in (4, 5, 6):
        assert_start_fails(machine, foreground, NO_DESCRIPTORS, wrapper=("prlimit", f"--nofile={limit}"))
    machine.pid_file.unlink(missing_ok=True)
    # A stop needs only one.
    assert machine.run("-k", wrapper=("prlimit", "--nofile=4")) == (0, NO_PID_FILE)


@pytest.mark.parametrize("killed", [False, True], ids=["starter gives up", "starter is killed"])
def test_daemon_that_is_ready_too_late_serves_and_signals_no_process(machine, killed):
    began = time.monotonic()
    with stalled_start(machine, wrapper=(sys.executable, "-S", "-E", "-c", ADOPTER)) as (bus, adopter, daemon):
        if killed:
            starter, = machine.processes_named(observe.PROCESS_NAME).values()
            os.kill(starter, signal.SIGKILL)
        wait_for(lambda: int(observe.status(daemon.pid)["PPid"]) == adopter.pid, "the daemon is adopted")
        assert killed or START_TIMEOUT <= time.monotonic() - began < START_TIMEOUT + 1
        assert adopter.take_stderr() == ("" if killed else TOO_SLOW)
        assert machine.processes_named(SERVICE_NAME) == {daemon.inner_pid: daemon.pid}

        bus.release()
        machine.wait_until_name_is_owned()
        daemon.client().write("net", "ip", "10.0.0.1")
        machine.stop()
        assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"
        # SIGUSR1 would have killed it.
        assert adopter.result() == (0, "")


def test_daemon_that_fails_after_the_time_limit_reports_it_in_the_kernel_log(machine):
    with StalledBus(machine) as bus:
        assert machine.run(environment=bus.environment) == (0, TOO_SLOW)
        daemon = machine.service()
    assert daemon.wait_end() == 0
    assert re.fullmatch(CAUGHT + r"[^\n]+\n", machine.take_log())
