"""The hand-shake of starter and daemon, again and again on a busy machine; and the one thread that it wants."""

import contextlib
import os
import re
import time

import observe
from harness import wait_for
from namespace_world import SERVICE_NAME, needs_one_thread
from observe import needs_strace
from stalled_bus import StalledBus

ROUNDS = 300
# Instrumented builds are slower; they get as many rounds as fit.
TIME_LIMIT = 60
FEWEST_ROUNDS = 40


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
