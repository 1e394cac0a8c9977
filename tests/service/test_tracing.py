"""The tracepoint of an assertion, with a real tracer; and a daemon that finds none, or one that hangs."""

import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import pytest

from world import observe
from world.harness import MISSING_HARDWARE, wait_for
from world.namespace_world import NOBODY_ELSE, SERVICE_NAME, needs_one_thread, needs_root
from world.observe import needs_strace
from world.stalled_bus import StalledBus
from tracer import EVENT, needs_tracer

# How long the tracer's library by itself waits for a session daemon that does not answer.
TRACER_PATIENCE = 3
# With this the daemon starts only when the session daemon has taken it up, so that nothing goes unrecorded.
WAIT_FOR_TRACER = {"LTTNG_UST_REGISTER_TIMEOUT": "-1"}


class Tracer:
    """A session daemon of the test's own, in its namespaces."""

    def __init__(self, machine):
        self.machine = machine
        self.output = machine.path / "trace"
        self.environment = {"LTTNG_HOME": str(machine.path), "HOME": str(machine.path)}
        self.run("lttng-sessiond", "--no-kernel", "--daemonize")

    def run(self, *command):
        output = self.machine.path / "tool-output"
        with open(output, "wb") as stdout:
            tool = self.machine.spawn(*command, environment=self.environment, stdout=stdout)
            tool.wait()
        printed = tool.take_stderr()
        assert tool.status == 0 and not printed, printed
        return output.read_text()

    def lttng(self, *arguments):
        return self.run("lttng", "--no-sessiond", *arguments)

    def record(self):
        self.lttng("create", "session", f"--output={self.output}")
        self.lttng("enable-event", "--userspace", EVENT)
        self.lttng("start")

    def recorded(self):
        """Ends the recording; returns its events."""
        self.lttng("destroy", "session")
        return self.run("babeltrace2", str(self.output)).splitlines()

    def known_processes(self):
        """Those whose probes the session daemon knows."""
        listed = self.lttng("list", "--userspace").split("PID: ")[1:]
        return {int(process.split()[0]) for process in listed if EVENT in process}

    def signal(self, number):
        for pid in self.machine.processes_named("lttng-sessiond").values():
            os.kill(pid, number)


def install(machine, build, probes=None):
    """Puts the probes, or another file for them, where the daemon looks."""
    # Shared memory belongs to the whole machine otherwise.
    machine.layers += "mount -t tmpfs tmpfs /dev/shm\n"
    installed = build.installed_probes
    folder = next(folder for folder in installed.parents if folder.exists())
    source = probes or build.probes
    machine.lay_over_folder(folder, add={str(installed.relative_to(folder)): source})


def hide_probes(machine, build):
    installed = build.installed_probes
    if installed.exists():
        machine.lay_over_folder(installed.parent, hide=[installed.name])


def tracer_folders():
    """Where the libraries of LTTng are."""
    cache = subprocess.run(["ldconfig", "-p"], stdout=subprocess.PIPE, text=True, check=True).stdout
    return {pathlib.Path(path).resolve().parent for path in re.findall(r"=> (\S+/liblttng-ust\S+)", cache)}


def hide_tracer(machine):
    for folder in tracer_folders():
        machine.lay_over_folder(folder, hide=[path.name for path in folder.glob("liblttng-ust*.so*")])


def broken_library(machine):
    path = machine.path / "broken.so"
    path.write_text("no library\n")
    return path


@pytest.fixture
def traced(machine, build):
    """A machine with the daemon's probes installed."""
    install(machine, build)
    return machine


def maps(pid):
    with open(f"/proc/{pid}/maps", encoding="utf-8") as file:
        return file.read()


def is_traceable(pid):
    """Whether the process has loaded the tracer."""
    return "/liblttng-ust.so" in maps(pid)


def session_daemon_socket(machine):
    """Where the daemon looks for a session daemon; in a directory of its own."""
    path = machine.path / "run" / "lttng" / "lttng-ust-sock-8"
    path.parent.mkdir()
    return path


def leave_socket(machine):
    """As a session daemon that was killed leaves it."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(session_daemon_socket(machine)))


def leave_socket_of_another_user(machine):
    leave_socket(machine)
    os.chown(machine.path / "run" / "lttng" / "lttng-ust-sock-8", NOBODY_ELSE, NOBODY_ELSE)


def leave_file(machine):
    session_daemon_socket(machine).touch()


@needs_tracer
@pytest.mark.parametrize("prepare, traceable", [
    (lambda machine: None, False),
    (leave_file, False),
    pytest.param(leave_socket_of_another_user, False, marks=needs_root),
    (leave_socket, True),
], ids=["nothing", "file", "socket of another user", "socket of root"])
def test_tracer_is_loaded_only_where_root_has_a_session_daemon(traced, prepare, traceable):
    prepare(traced)
    daemon = traced.start()
    assert is_traceable(daemon.pid) == traceable
    # What other users could truncate.
    assert ("/dev/shm/lttng" in maps(daemon.pid)) == traceable


@needs_tracer
@needs_strace
@pytest.mark.parametrize("mode", ["service", "foreground"])
def test_assertion_is_recorded_with_the_line_of_the_kernel_log(traced, mode):
    tracer = Tracer(traced)
    tracer.record()
    # A write that takes nothing, and no error: the program takes that for impossible.
    fault = observe.Strace(traced, "-P", "/var/lib/plinthware/registry~~new", "-e", "trace=write",
                           "-e", "inject=write:retval=0")
    if mode == "service":
        daemon = traced.start(wrapper=fault.wrapper, environment=WAIT_FOR_TRACER)
        inner_pid = daemon.inner_pid
    else:
        daemon = traced.launch("-d", wrapper=fault.wrapper, environment=WAIT_FOR_TRACER)
        traced.wait_until_name_is_owned()
        inner_pid = next(inner for inner, pid in traced.processes().items() if pid == daemon.pid)
    client = traced.client()
    assert inner_pid in tracer.known_processes()
    client.write("net", "ip", "10.0.0.1")
    assert client.error("Flush")[0] == "org.freedesktop.DBus.Error.NoReply"
    client.close()
    if mode == "service":
        assert daemon.wait_end() == -signal.SIGABRT
    else:
        daemon.wait()
        assert daemon.status == -signal.SIGABRT
        assert daemon.take_stderr() == MISSING_HARDWARE
    report = re.fullmatch(rf"<2>User space assert from process {inner_pid}: n != 0\n"
                          r"ASSERT Executing lib/platform/posix_helpers\.cpp:(\d+):[^\n]+\n", traced.take_log())
    assert report is not None
    event, = tracer.recorded()
    assert f'{EVENT}: ' in event
    assert event.endswith(f'{{ desc = "ASRT", value = {report[1]} }}')


@needs_tracer
def test_nothing_is_recorded_without_an_assertion(traced):
    tracer = Tracer(traced)
    tracer.record()
    daemon = traced.start(environment=WAIT_FOR_TRACER)
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    client.flush()
    client.close()
    assert daemon.inner_pid in tracer.known_processes()
    traced.stop()
    assert daemon.wait_end() == 0
    assert tracer.recorded() == []


@needs_tracer
@needs_one_thread
def test_tracer_starts_its_threads_in_the_daemon_only(traced):
    Tracer(traced)
    with StalledBus(traced) as bus:
        starter = traced.launch(environment=bus.environment)
        daemon = traced.unready_service()
        wait_for(daemon.has_connected, "the daemon has its connection")
        assert is_traceable(daemon.pid)
        assert not is_traceable(starter.pid)
        assert list(observe.thread_names(starter.pid).values()) == [observe.PROCESS_NAME]
        assert len(observe.thread_names(daemon.pid)) > 1
        bus.release()
        starter.wait()
        traced.stop()


def without_probes(machine, build):
    hide_probes(machine, build)


def without_tracer(machine, build):
    install(machine, build)
    hide_tracer(machine)


def with_broken_probes(machine, build):
    install(machine, build, broken_library(machine))


@needs_one_thread
@pytest.mark.parametrize("prepare", [without_probes, without_tracer, with_broken_probes])
def test_daemon_without_a_tracer_has_one_thread_and_says_nothing(machine, build, prepare):
    prepare(machine, build)
    leave_socket(machine)
    with StalledBus(machine) as bus:
        starter = machine.launch(environment=bus.environment)
        daemon = machine.unready_service()
        wait_for(daemon.has_connected, "the daemon has its connection")
        assert not is_traceable(daemon.pid)
        assert list(observe.thread_names(daemon.pid).values()) == [SERVICE_NAME]
        bus.release()
        starter.wait()
        assert (starter.status, starter.take_stderr()) == (0, "")
        client = machine.client()
        assert client.read("net", "ip") == ""
        client.close()
        machine.stop()
    assert machine.kernel_log.read() == MISSING_HARDWARE


@pytest.mark.parametrize("prepare", [without_probes, without_tracer, with_broken_probes])
def test_daemon_without_a_tracer_runs_in_the_foreground(machine, build, prepare):
    prepare(machine, build)
    leave_socket(machine)
    command = machine.launch("-d")
    machine.wait_until_name_is_owned()
    os.kill(command.pid, signal.SIGTERM)
    command.wait()
    assert (command.status, command.take_stderr()) == (0, MISSING_HARDWARE)


@needs_strace
def test_assertion_without_a_tracer_is_in_the_kernel_log(machine, build):
    without_tracer(machine, build)
    leave_socket(machine)
    fault = observe.Strace(machine, "-P", "/var/lib/plinthware/registry~~new", "-e", "trace=write",
                           "-e", "inject=write:retval=0")
    daemon = machine.start(wrapper=fault.wrapper)
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    client.error("Flush")
    client.close()
    assert daemon.wait_end() == -signal.SIGABRT
    assert re.fullmatch(rf"<2>User space assert from process {daemon.inner_pid}: n != 0\n"
                        r"ASSERT Executing lib/platform/posix_helpers\.cpp:\d+:[^\n]+\n", machine.take_log())


@needs_tracer
def test_session_daemon_that_hangs_delays_neither_start_nor_end(traced):
    tracer = Tracer(traced)
    client = traced.client()
    tracer.signal(signal.SIGSTOP)
    wait_for(lambda: all(observe.status(pid)["State"] == "T (stopped)"
                         for pid in traced.processes_named("lttng-sessiond").values()), "the session daemon hangs")
    began = time.monotonic()
    daemon = traced.start()
    assert time.monotonic() - began < TRACER_PATIENCE / 2
    assert is_traceable(daemon.pid)
    client.write("net", "ip", "10.0.0.1")
    client.close()
    # Nor would it be killed after two seconds.
    traced.stop()
    assert daemon.wait_end() == 0
    assert traced.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    tracer.signal(signal.SIGCONT)


@needs_tracer
def test_daemon_outlives_the_session_daemon(traced):
    tracer = Tracer(traced)
    daemon = traced.start()
    wait_for(lambda: daemon.inner_pid in tracer.known_processes(), "the session daemon knows the daemon")
    tracer.signal(signal.SIGKILL)
    wait_for(lambda: not traced.processes_named("lttng-sessiond"), "the session daemon is gone")
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    assert client.read("net", "ip") == "10.0.0.1"
    client.close()
    traced.stop()
    assert daemon.wait_end() == 0
