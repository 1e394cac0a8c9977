"""The init script with Debian's own shell functions and start-stop-daemon, and an installed daemon, in namespaces."""

import os
import pathlib
import re
import signal
import subprocess
import sys

import pytest

from world import observe
from world.harness import wait_for
from world.namespace_world import SERVICE_NAME
from world.observe import needs_strace

RUNNING, DEAD_WITH_PID_FILE, NOT_RUNNING = 0, 1, 3
UNKNOWN_ACTION = 3
# No process of the small namespaces has this ID.
UNUSED_PID = 30000

# Leaves an ended process of the daemon's name that nobody reaps. Prints its ID.
ZOMBIE = f"""
import os, sys
pid = os.fork()
if pid == 0:
    open("/proc/self/comm", "w").write("{SERVICE_NAME}")
    os._exit(0)
os.waitid(os.P_PID, pid, os.WEXITED | os.WNOWAIT)
print(pid, flush=True)
sys.stdin.read()
"""


class InitScript:
    """Runs an action of the script. Returns the exit status and the output."""

    def __init__(self, machine, script):
        self.machine = machine
        self.script = script
        self.daemon = pathlib.Path(re.search(r"(?m)^DAEMON=(.+)$", script.read_text())[1])
        directory = next(directory for directory in self.daemon.parents if directory.exists())
        machine.lay_over_directory(directory, {str(self.daemon.relative_to(directory)): machine.binary}, writable=True)

    def __call__(self, action, *wrapper):
        output = self.machine.path / "init-output"
        with open(output, "wb") as file:
            command = self.machine.spawn(*wrapper, "sh", str(self.script), action, stdout=file,
                                         stderr=subprocess.STDOUT,
                                         environment={"PATH": os.environ["PATH"], "TERM": "dumb"})
            command.wait()
        return command.status, output.read_text()

    def succeeds(self, action, *wrapper):
        status, printed = self(action, *wrapper)
        assert status == 0, printed
        return printed

    def status(self):
        return self("status")[0]

    def daemons(self):
        """The IDs of the daemons in the background."""
        return set(self.machine.processes(SERVICE_NAME))


@pytest.fixture
def init(build, machine):
    return InitScript(machine, build.init_script)


def test_life_of_the_service(machine, init):
    init.succeeds("stop")
    assert init.status() == NOT_RUNNING and not machine.pid_file.exists()
    assert init.succeeds("start") == "Starting settings registry: ledgerd.\n"
    daemon = machine.service()
    assert daemon.owns_the_name()
    assert init("status") == (RUNNING, "The settings registry is running: ledgerd.\n")
    machine.client().write("s", "k", "v")
    assert init.succeeds("stop") == "Stopping settings registry: ledgerd.\n"
    assert daemon.wait_end() == 0
    assert machine.registry.read_bytes() == b"[s]\nk=v\n"
    assert not machine.pid_file.exists()
    status, printed = init("status")
    assert status == NOT_RUNNING and "The settings registry is not running: ledgerd" in printed
    init.succeeds("start")
    assert machine.client().read("s", "k") == "v"


def test_second_start_says_so_and_changes_nothing(machine, init):
    init.succeeds("start")
    daemon = machine.service()
    before = machine.pid_file.stat()
    assert init.succeeds("start") == "The settings registry is already running: ledgerd.\n"
    after = machine.pid_file.stat()
    assert (after.st_ino, after.st_mtime_ns) == (before.st_ino, before.st_mtime_ns)
    assert init.daemons() == {daemon.inner_pid} and daemon.owns_the_name()


def test_daemon_in_the_foreground_keeps_a_second_one_from_starting(machine, init):
    foreground = machine.spawn(str(init.daemon), "-d")
    machine.wait_until_name_is_owned()
    assert "already running" in init.succeeds("start")
    assert not init.daemons() and not machine.pid_file.exists()
    assert init.status() == NOT_RUNNING, "the script does not stop it"
    os.kill(foreground.pid, signal.SIGTERM)
    foreground.wait()
    foreground.take_stderr()
    init.succeeds("start")
    assert machine.service().owns_the_name()


@pytest.mark.parametrize("action, starts", [("restart", True), ("force-reload", True), ("try-restart", False)])
def test_action_replaces_a_running_daemon(machine, init, action, starts):
    init.succeeds(action)
    assert len(init.daemons()) == starts
    init.succeeds("start")
    machine.client().write("s", "k", "v")
    former = machine.service()
    init.succeeds(action)
    assert former.wait_end() == 0
    assert init.daemons() == {machine.service().inner_pid} != {former.inner_pid} and machine.service().owns_the_name()
    assert machine.client().read("s", "k") == "v"


@pytest.mark.parametrize("number", [UNUSED_PID, 1], ids=["of nobody", "of another process"])
def test_stale_pid_file_names_no_daemon(machine, init, number):
    """After a power cut, the PID may be another process's."""
    machine.pid_file.write_text(f"{number}\n")
    assert init.status() in (DEAD_WITH_PID_FILE, NOT_RUNNING)
    init.succeeds("stop")
    machine.pid_file.write_text(f"{number}\n")
    init.succeeds("start")
    assert machine.service().owns_the_name() and init.status() == RUNNING


def test_ended_daemon_that_nobody_reaps_does_not_run(machine, init):
    zombie = machine.spawn(sys.executable, "-c", ZOMBIE, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    with zombie.process.stdin, zombie.process.stdout as number:
        machine.pid_file.write_bytes(number.readline())
        assert len(init.daemons()) == 1
        assert init.status() in (DEAD_WITH_PID_FILE, NOT_RUNNING)
        init.succeeds("stop")
        assert init.succeeds("start").startswith("Starting ")
        assert machine.service().owns_the_name()
    zombie.wait()


def test_killed_daemon_is_noticed_and_started_again(machine, init):
    init.succeeds("start")
    killed = machine.service()
    killed.signal(signal.SIGKILL)
    assert killed.wait_end() == -signal.SIGKILL
    assert init.status() == DEAD_WITH_PID_FILE
    init.succeeds("start")
    (inner_pid,) = init.daemons()
    assert inner_pid != killed.inner_pid and init.status() == RUNNING


def test_daemon_whose_program_was_replaced_is_still_known(machine, init):
    """As in an upgrade: the new package is unpacked before the old daemon is stopped."""
    init.succeeds("start")
    daemon = machine.service()
    program = pathlib.Path(f"/proc/{daemon.pid}/root{init.daemon}")
    assert os.path.samefile(program, f"/proc/{daemon.pid}/exe")
    machine.spawn("sh", "-c", 'cp "$0" "$0.new" && mv "$0.new" "$0"', str(init.daemon)).wait()
    assert not os.path.samefile(program, f"/proc/{daemon.pid}/exe")
    assert init.status() == RUNNING
    assert "already running" in init.succeeds("start")
    init.succeeds("stop")
    assert daemon.wait_end() == 0 and not init.daemons()


@needs_strace
def test_stop_waits_for_a_slow_last_write(machine, init):
    """It takes longer than the two seconds after which the daemon's own -k kills."""
    slow = observe.Strace(machine, "-e", "trace=rename", "-e", "inject=rename:delay_enter=2500000")
    init.succeeds("start", *slow.wrapper)
    daemon = machine.service()
    machine.client().write("s", "k", "v")
    init.succeeds("stop")
    assert daemon.wait_end() == 0
    assert machine.registry.read_bytes() == b"[s]\nk=v\n"


def test_failed_start_is_reported(machine, init):
    machine.bus.close()
    status, printed = init("start")
    assert status == 1 and "failed" in printed
    wait_for(lambda: not init.daemons(), "the init has reaped the daemon")
    assert "ledgerd caught exception" in machine.take_log()


def test_modes_of_files_do_not_depend_on_who_starts_it(machine, init):
    machine.registry.parent.rmdir()
    init.succeeds("start", "sh", "-c", 'umask 027; exec "$@"', "umask")
    assert machine.registry.parent.stat().st_mode & 0o777 == 0o755
    assert machine.pid_file.stat().st_mode & 0o777 == 0o644
    machine.client().write("s", "k", "v")
    machine.client().flush()
    assert machine.registry.stat().st_mode & 0o777 == 0o600


def test_unknown_action_prints_the_usage(init):
    for action in ("", "reload", "Start"):
        status, printed = init(action)
        assert status == UNKNOWN_ACTION and printed.startswith("Usage: "), action
    assert not init.daemons()


def test_script_without_its_daemon_is_silent(machine, build):
    """A removed package leaves it."""
    for action in ("start", "stop"):
        command = machine.spawn("sh", str(build.init_script), action)
        command.wait()
        assert (command.status, command.take_stderr()) == (0, "")
