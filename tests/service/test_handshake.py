"""The handshake of the start command with the daemon: repeatedly on a busy machine, with inherited signal states, with
SIGCHLD for other reasons than the end of the daemon, and in a fixed order of system calls."""

import contextlib
import os
import re
import signal
import sys

import pytest

from world import observe
from world.harness import wait_for
from world.namespace_world import needs_one_thread
from world.observe import needs_strace
from world.stalled_bus import stalled_start
from test_start_failures import DIED_EARLY

# Executes a program for which a signal is pending, for the process and for the thread.
LEAVE_PENDING = """
import os, signal, sys
number = int(sys.argv[1])
signal.pthread_sigmask(signal.SIG_BLOCK, [number])
os.kill(os.getpid(), number)
signal.raise_signal(number)
os.execvp(sys.argv[2], sys.argv[2:])
"""

INHERITED = {
    "nothing": (),
    "SIGCHLD ignored": ("env", "--ignore-signal=CHLD"),
    "SIGCHLD pending": (sys.executable, "-S", "-E", "-c", LEAVE_PENDING, str(int(signal.SIGCHLD))),
    "SIGUSR1 pending": (sys.executable, "-S", "-E", "-c", LEAVE_PENDING, str(int(signal.SIGUSR1))),
}

# How the daemon detaches, and what it does before it reports that it is ready.
DAEMON_STEPS = [
    r'prctl\(PR_SET_NAME, "ledgd"',
    r"rt_sigprocmask\(SIG_UNBLOCK, \[USR1 CHLD\]",
    r"rt_sigaction\(SIGCHLD, {sa_handler=SIG_DFL",
    r"rt_sigaction\(SIGTSTP, {sa_handler=SIG_IGN",
    r"rt_sigaction\(SIGTTOU, {sa_handler=SIG_IGN",
    r"rt_sigaction\(SIGTTIN, {sa_handler=SIG_IGN",
    r"rt_sigaction\(SIGHUP, {sa_handler=SIG_IGN",
    r"rt_sigaction\(SIGTERM, {sa_handler=SIG_DFL",
    r"rt_sigaction\(SIGUSR1, {sa_handler=SIG_IGN",
    r"setsid\(\)",
    r'chdir\("/"',
    r'open.*"/dev/null", O_RDONLY\)',
    r"dup.* = 0</dev/null>",
    r"dup.* = 1</dev/kmsg>",
    r"dup.* = 2</dev/kmsg>",
    r'open.*"/var/lib/plinthware/registry"',
]


@contextlib.contextmanager
def busy_machine(machine):
    loops = [machine.spawn("sh", "-c", "while :; do :; done") for _ in range(2 * os.cpu_count())]
    yield
    for loop in loops:
        os.kill(loop.pid, signal.SIGKILL)
        loop.wait()


def wait_until_it_waits(starter):
    """Waits until the start command, which has written the PID file, sleeps and has no signal pending."""
    pid = starter.pid

    def sleeps():
        fields = observe.status(pid)
        return fields["State"].startswith("S") and int(fields["ShdPnd"], 16) == 0

    wait_for(sleeps, "the start command sleeps")


def test_each_start_on_a_busy_machine_ends_ready(machine, request):
    client = machine.client()
    rounds = request.config.getoption("--rounds")
    with busy_machine(machine):
        for number in range(rounds):
            daemon = machine.start()
            assert client.read("round", "number") == (str(number - 1) if number else "")
            client.write("round", "number", str(number))
            machine.stop()
            assert daemon.wait_end() == 0
            assert machine.take_log() == ""
    assert machine.registry_bytes() == f"[round]\nnumber={rounds - 1}\n".encode()


def check_result(outcome, bus, starter, daemon):
    """Lets the daemon become ready, or kills it. The start command must report that."""
    if outcome == "ready":
        bus.release()
    else:
        daemon.signal(signal.SIGKILL)
    assert starter.result() == (0, "" if outcome == "ready" else DIED_EARLY)


@pytest.mark.parametrize("inherited", INHERITED)
@pytest.mark.parametrize("outcome", ["ready", "dies"])
def test_start_command_waits_for_the_daemon_whatever_it_inherits(machine, inherited, outcome):
    with stalled_start(machine, wrapper=INHERITED[inherited]) as (bus, starter, daemon):
        wait_until_it_waits(starter)
        check_result(outcome, bus, starter, daemon)


@pytest.mark.parametrize("outcome", ["ready", "dies"])
def test_only_the_end_of_the_daemon_counts(machine, outcome):
    with stalled_start(machine, wrapper=("sh", "-c", 'sleep 1000 & exec "$@"', "sh")) as (bus, starter, daemon):
        other, = wait_for(lambda: machine.processes("sleep"), "the other child runs").values()
        # Each makes the kernel send SIGCHLD to the start command.
        for pid, number, state in [(daemon.pid, signal.SIGSTOP, "T"), (daemon.pid, signal.SIGCONT, "S"),
                                   (other, signal.SIGKILL, "Z")]:
            wait_until_it_waits(starter)
            os.kill(pid, number)
            wait_for(lambda: observe.status(pid)["State"].startswith(state), "the signal has its effect")
        wait_until_it_waits(starter)
        check_result(outcome, bus, starter, daemon)


@needs_strace
@needs_one_thread
def test_start_has_these_steps_in_this_order(machine):
    trace = observe.Strace(machine, "-e", "trace=prctl,rt_sigprocmask,rt_sigaction,setsid,chdir,open,openat,dup2,dup3,"
                                          "clone,clone3,fork,vfork,kill")
    daemon = machine.start(wrapper=trace.wrapper)
    wait_for(lambda: any("kill(" in line for line in trace.lines()), "strace has seen the report")
    lines = [" ".join(line.split()) for line in observe.whole_calls(trace.lines())]
    starter = lines[0].split()[0]
    fork, *others = [line for line in lines if re.match(r"\d+ (clone|fork|vfork)", line)]
    assert "CLONE_THREAD" not in fork
    assert not any(line.startswith(f"{starter} ") for line in others)
    report = f"{daemon.inner_pid} kill({starter}, SIGUSR1) = 0"
    assert [line for line in lines if " kill(" in line] == [report]
    observe.assert_in_order(lines, [
        rf"^{starter} rt_sigprocmask\(SIG_BLOCK, \[USR1 CHLD\]",
        rf"^{starter} (clone|fork|vfork).* = {daemon.inner_pid}$",
        *(f"^{daemon.inner_pid} {step}" for step in DAEMON_STEPS), re.escape(report)])
