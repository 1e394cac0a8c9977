"""The tracepoint of an assertion, with LTTng; and a daemon without LTTng, or with a session daemon that hangs."""

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
from world.stalled_bus import stalled_start
from tracer import EVENT, needs_tracer

# The time for which LTTng's library by default waits for a session daemon that does not answer.
TRACER_PATIENCE = 3
# With this the daemon waits until the session daemon knows it, so that each event is recorded.
WAIT_FOR_TRACER = {"LTTNG_UST_REGISTER_TIMEOUT": "-1"}


class Tracer:
    """A session daemon in the namespaces of the machine."""

    def __init__(self, machine):
        self.machine = machine
        self.output = machine.path / "trace"
        self.environment = {"LTTNG_HOME": str(machine.path), "HOME": str(machine.path)}
        self.run("lttng-sessiond", "--no-kernel", "--daemonize")

    def run(self, *command):
        output = self.machine.path / "tool-output"
        with open(output, "wb") as stdout:
            assert self.machine.spawn(*command, environment=self.environment, stdout=stdout).result() == (0, "")
        return output.read_text()

    def lttng(self, *arguments):
        return self.run("lttng", "--no-sessiond", *arguments)

    def known_processes(self):
        """The processes whose probes the session daemon knows."""
        listed = self.lttng("list", "--userspace").split("PID: ")[1:]
        return {int(process.split()[0]) for process in listed if EVENT in process}

    def processes(self):
        return self.machine.processes("lttng-sessiond").values()

    def signal(self, number):
        for pid in self.processes():
            os.kill(pid, number)


def install(machine, build, probes=None):
    """Adds the probes, or another file, at the path where the daemon looks."""
    # Without this, shared memory belongs to the whole machine.
    machine.layers += "mount -t tmpfs tmpfs /dev/shm\n"
    directory = next(directory for directory in build.installed_probes.parents if directory.exists())
    machine.lay_over_directory(directory, {str(build.installed_probes.relative_to(directory)): probes or build.probes})


def without_probes(machine, build):
    if build.installed_probes.exists():
        machine.lay_over_directory(build.installed_probes.parent, hide=[build.installed_probes.name])


def without_tracer(machine, build):
    install(machine, build)
    cache = subprocess.run(["ldconfig", "-p"], stdout=subprocess.PIPE, text=True, check=True).stdout
    for directory in {pathlib.Path(path).resolve().parent for path in re.findall(r"=> (\S+/liblttng-ust\S+)", cache)}:
        machine.lay_over_directory(directory, hide=[path.name for path in directory.glob("liblttng-ust*.so*")])


def with_broken_probes(machine, build):
    broken = machine.path / "broken.so"
    broken.write_text("no library\n")
    install(machine, build, broken)


@pytest.fixture
def traced(machine, build):
    """A machine with the daemon's probes installed."""
    install(machine, build)
    return machine


@pytest.fixture(params=[without_probes, without_tracer, with_broken_probes])
def untraced(request, machine, build):
    """A machine on which the daemon cannot load the tracer, though there is the socket of a session daemon."""
    request.param(machine, build)
    leave_socket(machine)
    return machine


def maps(pid):
    return pathlib.Path(f"/proc/{pid}/maps").read_text()


def is_traceable(pid):
    """Whether the process has loaded the tracer."""
    return "/liblttng-ust.so" in maps(pid)


def leave_socket(machine):
    """Leaves the file that a session daemon leaves if it is killed. Returns its path."""
    path = machine.path / "run" / "lttng" / "lttng-ust-sock-8"
    path.parent.mkdir()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(path))
    return path


def leave_socket_of_another_user(machine):
    os.chown(leave_socket(machine), NOBODY_ELSE, NOBODY_ELSE)


def leave_file(machine):
    path = leave_socket(machine)
    path.unlink()
    path.touch()


@needs_tracer
@pytest.mark.parametrize("prepare, traceable", [
    (lambda machine: None, False),
    (leave_file, False),
    pytest.param(leave_socket_of_another_user, False, marks=needs_root),
    (leave_socket, True),
], ids=["nothing", "file", "socket of another user", "socket of root"])
def test_tracer_is_loaded_only_if_root_has_a_session_daemon(traced, prepare, traceable):
    prepare(traced)
    daemon = traced.start()
    assert is_traceable(daemon.pid) == traceable
    # Other users could truncate this file.
    assert ("/dev/shm/lttng" in maps(daemon.pid)) == traceable


def failed_assertion(machine, foreground, environment=None):
    """Runs the daemon until it aborts. Returns the line of the assertion."""
    # The second write returns 0 without an error: the program asserts that this is impossible.
    fault = observe.Strace(machine, "-P", "/var/lib/plinthware/registry~~new", "-e", "trace=write",
                           "-e", "inject=write:retval=0:when=2")
    options = {"wrapper": fault.wrapper, "environment": environment}
    if foreground:
        daemon = machine.launch("-d", **options)
        machine.wait_until_name_is_owned()
    else:
        daemon = machine.start(**options)
    inner_pid = next(inner_pid for inner_pid, pid in machine.processes().items() if pid == daemon.pid)
    client = machine.client()
    client.write("net", "ip", "10.0.0.1")
    client.flush()
    client.write("net", "ip", "10.0.0.2")
    assert client.error("Flush")[0] == "org.freedesktop.DBus.Error.NoReply"
    if foreground:
        assert daemon.result() == (-signal.SIGABRT, MISSING_HARDWARE)
    else:
        assert daemon.wait_end() == -signal.SIGABRT
    report = re.fullmatch(rf"<2>User space assert from process {inner_pid}: n != 0\n"
                          r"ASSERT Executing lib/platform/posix_helpers\.cpp:(\d+):[^\n]+\n", machine.take_log())
    assert report is not None
    return report[1]


@needs_tracer
@needs_strace
@pytest.mark.parametrize("foreground", [False, True], ids=["service", "foreground"])
def test_only_the_assertion_is_recorded_with_the_line_of_the_kernel_log(traced, foreground):
    tracer = Tracer(traced)
    tracer.lttng("create", "session", f"--output={tracer.output}")
    tracer.lttng("enable-event", "--userspace", EVENT)
    tracer.lttng("start")
    line = failed_assertion(traced, foreground, WAIT_FOR_TRACER)
    tracer.lttng("destroy", "session")
    event, = tracer.run("babeltrace2", str(tracer.output)).splitlines()
    assert f'{EVENT}: ' in event
    assert event.endswith(f'{{ desc = "ASRT", value = {line} }}')


@needs_tracer
@needs_one_thread
def test_tracer_starts_its_threads_only_in_the_daemon(traced):
    Tracer(traced)
    with stalled_start(traced) as (bus, starter, daemon):
        wait_for(daemon.has_connected, "the daemon has its connection")
        assert is_traceable(daemon.pid)
        assert not is_traceable(starter.pid)
        assert list(observe.thread_names(starter.pid).values()) == [observe.PROCESS_NAME]
        assert len(observe.thread_names(daemon.pid)) > 1
        bus.release()
        assert starter.result() == (0, "")


@needs_one_thread
def test_daemon_without_a_tracer_starts_silently_with_one_thread(untraced):
    with stalled_start(untraced) as (bus, starter, daemon):
        wait_for(daemon.has_connected, "the daemon has its connection")
        assert not is_traceable(daemon.pid)
        assert list(observe.thread_names(daemon.pid).values()) == [SERVICE_NAME]
        bus.release()
        assert starter.result() == (0, "")
        assert daemon.client().read("net", "ip") == ""
        untraced.stop()
    assert untraced.kernel_log.read() == MISSING_HARDWARE


@needs_strace
@pytest.mark.parametrize("foreground", [False, True], ids=["service", "foreground"])
def test_assertion_without_a_tracer_is_in_the_kernel_log(untraced, foreground):
    failed_assertion(untraced, foreground)


@needs_tracer
def test_session_daemon_that_hangs_delays_neither_start_nor_end(traced):
    tracer = Tracer(traced)
    client = traced.client()
    tracer.signal(signal.SIGSTOP)
    wait_for(lambda: {observe.status(pid)["State"] for pid in tracer.processes()} == {"T (stopped)"},
             "the session daemon hangs")
    began = time.monotonic()
    daemon = traced.start()
    assert time.monotonic() - began < TRACER_PATIENCE / 2
    assert is_traceable(daemon.pid)
    client.write("net", "ip", "10.0.0.1")
    # It prints a message if it has to kill the daemon after 2 seconds.
    traced.stop()
    assert daemon.wait_end() == 0
    assert traced.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    tracer.signal(signal.SIGCONT)


@needs_tracer
def test_daemon_survives_the_end_of_the_session_daemon(traced):
    tracer = Tracer(traced)
    daemon = traced.start()
    wait_for(lambda: daemon.inner_pid in tracer.known_processes(), "the session daemon knows the daemon")
    tracer.signal(signal.SIGKILL)
    wait_for(lambda: not tracer.processes(), "the session daemon has ended")
    client = daemon.client()
    client.write("net", "ip", "10.0.0.1")
    assert client.read("net", "ip") == "10.0.0.1"
    traced.stop()
    assert daemon.wait_end() == 0
