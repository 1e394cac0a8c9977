"""Termination signals at every moment of the daemon's life, alone and in storms."""

import ctypes
import random
import re
import signal
import time

import dbus
import dbus.lowlevel
import pytest

from world import observe
from world.harness import BUS_NAME, INTERFACE, OBJECT_PATH, wait_for
from world.observe import Strace, needs_strace

SIGNALS = [getattr(signal, name) for name in observe.TERMINATION_SIGNALS]
# How far the random moments reach beyond what an undisturbed start and end take.
MARGIN = 1.5
# The library's own end would wait up to 25 s for a bus that hangs.
BOUND_OF_THE_END = 5.0
MOST_CALLS = 200  # of one kind in a short run
# What the main thread calls after it has its handlers, in every run: calls that wait, change the file, make the worker or
# end it, and ioctl, the last one. Not what comes by chance: memory for the allocator, and the calls that the kernel makes
# where a signal or the tracer interrupted another one.
DISTURBED_CALLS = ("socket", "connect", "poll", "sendto", "read", "sendmsg", "recvmsg", "clone3", "futex", "access",
                   "openat", "write", "close", "rename", "ioctl")


def text_with(value):
    return f"[s]\nk={value}\n".encode()


def send_write(connection, value):
    """Sends a Write whose success nobody learns of."""
    message = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, "Write")
    message.append("s", "k", value, signature="sss")
    message.set_no_reply(True)
    connection.send_message(message)
    connection.flush()


def spend(seconds):
    """Passes the time without giving up the processor, for moments finer than a timer's."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        pass


def undisturbed_times(world):
    """How long the daemon takes from its signal handlers to its name, and from a signal to its end with a flush."""
    daemon = world.start(wait=False)
    wait_for(lambda: observe.handles_termination_signals(daemon), "the handlers are installed")
    began = time.monotonic()
    daemon.wait_ready()
    start = time.monotonic() - began
    client = daemon.client()
    client.write("s", "k", "x" * 16000)
    client.close()
    began = time.monotonic()
    daemon.stop()
    return start, time.monotonic() - began


def end_by_signals(daemon, choice, longest_teardown):
    """Sends one or several signals and waits for the end; returns the exit status."""
    numbers = choice.sample(SIGNALS, choice.choice((1, 1, 2, 3, 4)))
    for i, number in enumerate(numbers):
        if i:
            spend(choice.uniform(0, longest_teardown))
        # A process that has ended is a zombie, which takes signals too, until its status is asked for.
        daemon.signal(number)
    return daemon.wait_end(BOUND_OF_THE_END)


def test_signals_at_random_moments_end_the_daemon_with_a_whole_file(world, request):
    seed = random.SystemRandom().randrange(2**32)
    choice = random.Random(seed)
    start, teardown = undisturbed_times(world)
    connection = world.bus.connect()
    for i in range(request.config.getoption("--rounds")):
        context = f"seed {seed}, round {i}"
        old = text_with(f"old{i}")
        world.registry.write_bytes(old)
        # Most bytes of these values are alike, so that a mixture of two texts would show in the rest.
        values = [f"{i}.{n}." + "x" * choice.choice((1, 500, 4090, 16000)) for n in range(choice.randrange(4))]
        acknowledged = choice.randrange(len(values) + 1)
        daemon = world.start(wait=False)
        wait_for(lambda: observe.handles_termination_signals(daemon), f"the handlers are installed ({context})")
        if values:
            wait_for(lambda: connection.name_has_owner(BUS_NAME), f"the daemon owns its name ({context})")
            for value in values[:acknowledged]:
                connection.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, "Write", "sss", ("s", "k", value))
            for value in values[acknowledged:]:
                send_write(connection, value)
            spend(choice.uniform(0, 0.002))
        else:
            spend(choice.uniform(0, MARGIN * start))
        assert end_by_signals(daemon, choice, MARGIN * teardown) == 0, context
        assert daemon.take_stderr() == "", context
        accepted = [old, *map(text_with, values)][acknowledged:]
        assert world.registry_bytes() in accepted, context
        assert [each.name for each in world.registry.parent.iterdir()] == ["registry"], context
        # Its output was checked; the fixture need not look at hundreds of these.
        daemon.stderr_path.unlink()
        world.daemons.remove(daemon)
    connection.close()


def test_signal_that_the_worker_thread_takes_wakes_the_main_thread(world):
    libc = ctypes.CDLL(None, use_errno=True)
    for number in SIGNALS:
        daemon = world.start()
        client = daemon.client()
        client.write("s", "k", str(number))
        client.close()
        worker = wait_for(lambda: observe.thread_named(daemon.pid, observe.WORKER_NAME), "the worker has its name")
        assert libc.tgkill(daemon.pid, worker, number) == 0
        assert daemon.wait_end(BOUND_OF_THE_END) == 0
        assert world.registry_bytes() == text_with(number)


def calls_after_the_handlers(lines):
    """The system calls that the main thread makes once it has its handlers, each with how often it had been made
    before. strace counts by thread, and the worker inherits the handlers."""
    before, after = {}, {}
    has_handlers = False
    main_thread = lines[0].split(None, 1)[0]
    for line in lines:
        match = re.match(rf"{main_thread} +([a-z]\w*)\(", line)
        if match is None:
            continue
        name = match.group(1)
        counts = after if has_handlers else before
        counts[name] = counts.get(name, 0) + 1
        has_handlers = has_handlers or line.split(None, 1)[1].startswith("rt_sigaction(SIGTERM")
    return {name: before.get(name, 0) for name in after}


def run_with_a_write(world, *strace_options):
    """Runs the daemon under strace; writes once and ends it, unless a signal was faster. Returns the log and whether
    the write was acknowledged."""
    world.registry.unlink(missing_ok=True)
    strace = Strace(world, *strace_options)
    connection = world.bus.connect()
    daemon = world.start(wait=False, wrapper=strace.wrapper)
    wait_for(lambda: connection.name_has_owner(BUS_NAME) or daemon.process.poll() is not None,
             "the daemon owns its name or has ended")
    acknowledged = False
    try:
        connection.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, "Write", "sss", ("s", "k", "value"))
        acknowledged = True
    except dbus.DBusException as e:
        # It has ended before it took the call.
        assert e.get_dbus_name() in ("org.freedesktop.DBus.Error.ServiceUnknown",
                                     "org.freedesktop.DBus.Error.NameHasNoOwner",
                                     "org.freedesktop.DBus.Error.NoReply")
    connection.close()
    if daemon.process.poll() is None:
        daemon.signal(signal.SIGTERM)
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == ""
    return strace.finished_lines(daemon), acknowledged


@needs_strace
def test_start_and_end_keep_their_order(world):
    # Without a registry file, which is looked for all the same; the end writes the change.
    lines, _ = run_with_a_write(world, "-s", "256")
    steps = [r"rt_sigaction\(SIGTERM", r"connect\(\d+<socket:", r"sendmsg\(\d+<socket:.*RequestName",
             r'openat\(.*"/var/lib/plinthware/registry", O_RDONLY', r"--- SIGTERM", r"rename\(", r"close\(\d+<socket:"]
    found = [[i for i, line in enumerate(lines) if re.search(step, line)] for step in steps]
    assert [len(places) for places in found] == [1] * len(steps)
    assert found == sorted(found)


@needs_strace
def test_signal_at_each_system_call_ends_the_daemon_with_a_whole_file(world):
    lines, acknowledged = run_with_a_write(world)
    assert acknowledged
    first = calls_after_the_handlers(lines)
    for name in DISTURBED_CALLS:
        assert name in first
        ordinal = first[name] + 1
        last = ordinal + MOST_CALLS
        while True:
            context = f"signal at {name} number {ordinal}"
            lines, acknowledged = run_with_a_write(world, "-e", f"inject={name}:signal=SIGQUIT:when={ordinal}")
            expected = [text_with("value")] if acknowledged else [b"", text_with("value")]
            assert world.registry_bytes() in expected, context
            if not any("--- SIGQUIT" in line for line in lines):
                break
            ordinal += 1
            assert ordinal < last, context
        # The last run alone was undisturbed, and some were not.
        assert ordinal > first[name] + 1, f"no signal came at {name}"


# Each row delays one call of the file's replacement, in which the storm then comes.
@needs_strace
@pytest.mark.parametrize("call", ["openat", "write", "close", "rename"])
@pytest.mark.parametrize("requested", [False, True], ids=["final flush", "requested flush"])
def test_storm_of_signals_during_a_flush_is_survived(world, call, requested):
    # Paths limit the delay to the replacement: the handler writes too, to its pipe.
    new = f"{world.registry}~~new".replace(str(world.path / "lib"), "/var/lib")
    strace = Strace(world, "-P", new, "-e", f"trace={call}", "-e", f"inject={call}:delay_enter=300000")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    value = "x" * 16000
    client.write("s", "k", value)
    connection = world.bus.connect()
    if requested:
        message = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, "Flush")
        connection.send_message(message)
        connection.flush()
    else:
        daemon.signal(signal.SIGTERM)
    wait_for(lambda: any(f" {call}(" in line for line in strace.lines()), f"{call} has begun")
    assert daemon.process.poll() is None
    for i in range(200):
        daemon.signal(SIGNALS[i % len(SIGNALS)])
    assert daemon.wait_end(BOUND_OF_THE_END) == 0
    connection.close()
    client.close()
    assert world.registry_bytes() == text_with(value)
    assert [each.name for each in world.registry.parent.iterdir()] == ["registry"]
    lines = strace.finished_lines(daemon)
    assert any("(DELAYED)" in line for line in lines)
    assert sum("--- SIG" in line for line in lines) > 1
