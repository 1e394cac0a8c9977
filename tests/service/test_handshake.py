"""The hand-shake of starter and daemon: again and again on a busy machine, whatever the starter inherits, with one
thread and in a fixed order of steps."""

import contextlib
import os
import re
import signal
import sys
import time

import pytest

from world import observe
from world.harness import wait_for
from world.namespace_world import SERVICE_NAME, needs_one_thread
from world.observe import needs_strace
from world.stalled_bus import StalledBus

ROUNDS = 300
# Instrumented builds are slower; they get as many rounds as fit.
TIME_LIMIT = 60
FEWEST_ROUNDS = 40

DIED_EARLY = ("ledgd: Child died early\n"
              "ledgerd caught exception: ledgd: Child died early\n")

# Becomes a program for which a signal of the hand-shake is pending, of the process and of the thread.
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

# The steps of a daemon that detaches.
DETACHMENT = [
    'prctl(PR_SET_NAME, "ledgd"',
    "rt_sigprocmask(SIG_UNBLOCK, [USR1 CHLD]",
    "rt_sigaction(SIGCHLD, {sa_handler=SIG_DFL",
    "rt_sigaction(SIGTSTP, {sa_handler=SIG_IGN",
    "rt_sigaction(SIGTTOU, {sa_handler=SIG_IGN",
    "rt_sigaction(SIGTTIN, {sa_handler=SIG_IGN",
    "rt_sigaction(SIGHUP, {sa_handler=SIG_IGN",
    "rt_sigaction(SIGTERM, {sa_handler=SIG_DFL",
    "rt_sigaction(SIGUSR1, {sa_handler=SIG_IGN",
    "setsid()",
    'chdir("/"',
    '"/dev/null", O_RDONLY',
    "= 0</dev/null>",
    '"/dev/kmsg", O_WRONLY',
    "= 1</dev/kmsg>",
    '"/dev/kmsg", O_WRONLY',
    "= 2</dev/kmsg>",
]
# What a step is recognised by. The C library restores whole masks with SIG_SETMASK, which is no step.
STEP = re.compile(r'prctl\(PR_SET_NAME, "[^"]*"|rt_sigprocmask\(SIG_(?:UN)?BLOCK, [^,]*|rt_sigaction\(\w+, {sa_handler=\w+'
                  r'|setsid\(\)|chdir\("[^"]*"|(?<=, )"[^"]*", O_(?:RDONLY|WRONLY|RDWR)|(?<=\) )= [012]<[^>]*>')


@contextlib.contextmanager
def busy_machine(machine):
    loops = [machine.spawn("sh", "-c", "while :; do :; done") for _ in range(2 * os.cpu_count())]
    try:
        yield
    finally:
        for pid in [loop.pid for loop in loops]:
            os.kill(pid, 9)
        for loop in loops:
            loop.wait()


def wait_until_it_waits(machine, starter):
    """Waits until the starter, which has written the PID file, sleeps and has no signal pending."""
    def sleeps():
        # A process may end while it is looked at.
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            return any(int(fields["PPid"]) == starter.process.pid and fields["State"].startswith("S")
                       and int(fields["ShdPnd"], 16) == 0
                       for fields in map(observe.status, machine.processes().values()))
        return False

    wait_for(lambda: starter.status is not None or sleeps(), "the starter sleeps")
    assert starter.status is None, starter.take_stderr()


def test_every_start_on_a_busy_machine_ends_ready(machine):
    client = machine.client()
    began = time.monotonic()
    rounds = 0
    with busy_machine(machine):
        while rounds < ROUNDS and (rounds < FEWEST_ROUNDS or time.monotonic() - began < TIME_LIMIT):
            # Neither may print anything.
            daemon = machine.start()
            assert client.read("round", "number") == (str(rounds - 1) if rounds else "")
            client.write("round", "number", str(rounds))
            machine.stop()
            assert daemon.wait_end() == 0
            assert machine.take_log() == ""
            daemon.close()
            machine.services.remove(daemon)
            rounds += 1
    client.close()
    assert machine.registry_bytes() == f"[round]\nnumber={rounds - 1}\n".encode()


@pytest.mark.parametrize("inherited", INHERITED)
def test_starter_waits_for_the_daemon_whatever_it_inherits(machine, inherited):
    with StalledBus(machine) as bus:
        starter = machine.launch(wrapper=INHERITED[inherited], environment=bus.environment)
        machine.unready_service()
        wait_until_it_waits(machine, starter)
        bus.release()
        starter.wait()
        assert (starter.status, starter.take_stderr()) == (0, "")
        machine.stop()


@pytest.mark.parametrize("outcome", ["ready", "dies"])
def test_only_the_daemons_own_end_counts(machine, outcome):
    with StalledBus(machine) as bus:
        starter = machine.launch(wrapper=("sh", "-c", 'sleep 1000 & exec "$@"', "sh"), environment=bus.environment)
        daemon = machine.unready_service()
        other, = machine.processes_named("sleep").values()
        # Each makes the kernel send SIGCHLD to the starter.
        for pid, number, state in [(daemon.pid, signal.SIGSTOP, "T"), (daemon.pid, signal.SIGCONT, "S"),
                                   (other, signal.SIGKILL, "Z")]:
            wait_until_it_waits(machine, starter)
            os.kill(pid, number)
            wait_for(lambda: observe.status(pid)["State"].startswith(state), "the signal has its effect")
        wait_until_it_waits(machine, starter)
        if outcome == "ready":
            bus.release()
        else:
            daemon.signal(signal.SIGKILL)
        starter.wait()
        assert (starter.status, starter.take_stderr()) == (0, "" if outcome == "ready" else DIED_EARLY)
        if outcome == "ready":
            machine.stop()


@needs_strace
@needs_one_thread
def test_daemon_detaches_in_this_order(machine):
    trace = observe.Strace(machine, "-e", "trace=prctl,rt_sigprocmask,rt_sigaction,setsid,chdir,open,openat,dup2,dup3")
    daemon = machine.start(wrapper=trace.wrapper)

    def steps():
        calls = (line.split(None, 1) for line in observe.whole_calls(trace.lines()))
        return [match[0] for pid, call in calls if pid == str(daemon.inner_pid) for match in [STEP.search(call)] if match]

    wait_for(lambda: DETACHMENT[-1] in steps(), "strace has seen the last step")
    found = steps()
    assert found[:found.index(DETACHMENT[-1]) + 1] == DETACHMENT


@needs_one_thread
def test_waiting_starter_has_one_thread(machine):
    with StalledBus(machine) as bus:
        starter = machine.launch(environment=bus.environment)
        wait_for(lambda: machine.processes_named(SERVICE_NAME), "the daemon has its name")
        assert list(observe.thread_names(starter.pid).values()) == [observe.PROCESS_NAME]
        bus.release()
        starter.wait()
        machine.stop()


@needs_strace
@needs_one_thread
def test_first_new_task_is_the_daemon(machine):
    trace = observe.Strace(machine, "-e", "trace=clone,clone3,fork,vfork,kill,rt_sigprocmask")
    daemon = machine.start(wrapper=trace.wrapper)

    def calls_of(pid):
        return [call for its_pid, call in calls if its_pid == str(pid)]

    wait_for(lambda: any(re.match(rf"{daemon.inner_pid} +clone", line) for line in trace.lines()),
             "strace has seen the worker's start")
    calls = [(line.split()[0], " ".join(line.split()[1:])) for line in observe.whole_calls(trace.lines())]
    births = [(pid, call) for pid, call in calls if call.startswith(("clone", "fork", "vfork"))]
    starter, fork = births[0]
    assert fork.endswith(f"= {daemon.inner_pid}")
    assert "CLONE_THREAD" not in fork
    # The starter makes no other, and no thread.
    assert starter not in [pid for pid, _ in births[1:]]
    # The signals of the hand-shake are blocked before the fork.
    order = calls_of(starter)
    blocked = next(i for i, call in enumerate(order) if call.startswith("rt_sigprocmask(SIG_BLOCK, [USR1 CHLD]"))
    assert blocked < order.index(fork)
    assert [call for call in calls_of(daemon.inner_pid) if call.startswith("kill(")] == [
        f"kill({starter}, SIGUSR1) = 0"]


@needs_strace
def test_daemon_is_ready_when_it_has_read_the_registry(machine):
    trace = observe.Strace(machine, "-e", "trace=openat,kill")
    daemon = machine.start(wrapper=trace.wrapper)

    def index(call):
        return next((i for i, line in enumerate(trace.lines()) if re.match(rf"{daemon.inner_pid} +{call}", line)), None)

    report = r"kill\(\d+, SIGUSR1\)"
    wait_for(lambda: index(report) is not None, "strace has seen the report")
    assert index(r'openat\(.*/registry"') < index(report)
