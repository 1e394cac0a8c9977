"""Termination signals from the start to the end of the daemon, single and many."""

import contextlib
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
# The random moments are in an interval that is longer than an undisturbed start or end by this factor.
MARGIN = 1.5
# With the dispatcher of dbus-c++, the end of the daemon could take 25 s if the bus hangs.
MAX_SECONDS_TO_END = 5.0
MAX_CALLS = 200  # of one kind in a short run
# System calls that the main thread makes in each run after it has installed the signal handlers. They wait, change the
# file, or create or end the worker; ioctl is the last call. Calls of the allocator, and calls that the kernel restarts
# after an interruption, are not in the list, because they do not happen in each run.
DISTURBED_CALLS = ("socket", "connect", "poll", "sendto", "read", "sendmsg", "recvmsg", "clone3", "futex", "access",
                   "openat", "write", "close", "rename", "ioctl")


def text_with(value):
    return f"[s]\nk={value}\n".encode()


def send(connection, member, *arguments):
    """Sends a call whose reply is not awaited."""
    message = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, member)
    message.append(*arguments, signature="s" * len(arguments))
    message.set_no_reply(True)
    connection.send_message(message)
    connection.flush()


def spin(seconds):
    """Waits in a busy loop, because a sleep is not precise enough."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        pass


def wait_for_handlers(daemon):
    wait_for(lambda: observe.handles_termination_signals(daemon), "the handlers are installed")


def undisturbed_times(world):
    """Returns two times in seconds: from the installation of the signal handlers until the daemon owns its name, and
    from a signal until the daemon has written its file and ended."""
    daemon = world.start(wait=False)
    wait_for_handlers(daemon)
    began = time.monotonic()
    daemon.wait_ready()
    start = time.monotonic() - began
    daemon.client().write("s", "k", "x" * 16000)
    began = time.monotonic()
    daemon.stop()
    return start, time.monotonic() - began


def disturbed_run(world, daemon, client, choice, number, times):
    """Writes up to three values and sends signals at random moments. Returns the texts that the file may have."""
    start, teardown = times
    # The values differ at their beginning and usually in their length. So a mixture of two texts is usually neither.
    values = [f"{number}.{n}." + "x" * choice.choice((1, 500, 4090, 16000)) for n in range(choice.randrange(4))]
    acknowledged = choice.randrange(len(values) + 1)
    if values:
        wait_for(lambda: client.connection.name_has_owner(BUS_NAME), "the daemon owns its name")
        for value in values[:acknowledged]:
            client.write("s", "k", value)
        for value in values[acknowledged:]:
            send(client.connection, "Write", "s", "k", value)
        spin(choice.uniform(0, 0.002))
    else:
        spin(choice.uniform(0, MARGIN * start))
    daemon.signal(choice.choice(SIGNALS))
    for each in choice.sample(SIGNALS, choice.choice((0, 0, 1, 2, 3))):
        spin(choice.uniform(0, MARGIN * teardown))
        # A zombie accepts signals, too.
        daemon.signal(each)
    return [f"[s]\nk=old{number}\n".encode(), *map(text_with, values)][acknowledged:]


def test_signals_at_random_moments_end_the_daemon_with_a_whole_file(world, request):
    seed = random.SystemRandom().randrange(2**32)
    choice = random.Random(seed)
    times = undisturbed_times(world)
    client = world.client()
    for number in range(request.config.getoption("--rounds")):
        context = f"seed {seed}, round {number}"
        world.registry.write_bytes(text_with(f"old{number}"))
        daemon = world.start(wait=False)
        wait_for_handlers(daemon)
        accepted = disturbed_run(world, daemon, client, choice, number, times)
        assert (daemon.wait_end(MAX_SECONDS_TO_END), daemon.take_stderr()) == (0, ""), context
        assert world.registry_bytes() in accepted, context
        assert [each.name for each in world.registry.parent.iterdir()] == ["registry"], context


def test_signal_that_the_worker_thread_receives_wakes_the_main_thread(world):
    libc = ctypes.CDLL(None, use_errno=True)
    for number in SIGNALS:
        daemon = world.start()
        daemon.client().write("s", "k", str(number))
        worker = wait_for(lambda: observe.thread_named(daemon.pid, observe.WORKER_NAME), "the worker has its name")
        assert libc.tgkill(daemon.pid, worker, number) == 0
        assert daemon.wait_end(MAX_SECONDS_TO_END) == 0
        assert world.registry_bytes() == text_with(number)


def calls_after_the_handlers(lines):
    """Returns a map. It has a key for each system call that the main thread makes after it has installed its handlers.
    The value is the number of calls of that name before that."""
    main_thread = lines[0].split(None, 1)[0]
    calls = [match for line in lines if (match := re.match(rf"{main_thread} +([a-z]\w*)\((\w*)", line))]
    names = [match[1] for match in calls]
    last_handler = next(i for i, match in enumerate(calls) if match.groups() == ("rt_sigaction", "SIGTERM"))
    return {name: names[:last_handler + 1].count(name) for name in names[last_handler + 1:]}


def was_injected(lines):
    return any("--- SIGQUIT" in line for line in lines)


def run_with_a_write(world, *strace_options):
    """Runs the daemon with strace, writes once and ends it, unless strace does. Returns the log and whether the write
    was acknowledged."""
    world.registry.unlink(missing_ok=True)
    strace = Strace(world, *strace_options)
    daemon = world.start(wait=False, wrapper=strace.wrapper)
    with contextlib.closing(world.bus.connect()) as connection:
        wait_for(lambda: connection.name_has_owner(BUS_NAME) or daemon.process.poll() is not None,
                 "the daemon owns its name or has ended")
        try:
            connection.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, "Write", "sss", ("s", "k", "value"))
            acknowledged = True
        except dbus.DBusException as e:
            # It ended before it handled the call.
            assert e.get_dbus_name().removeprefix("org.freedesktop.DBus.Error.") in (
                "ServiceUnknown", "NameHasNoOwner", "NoReply")
            acknowledged = False
    # An injected signal must end the daemon without another one.
    if daemon.process.poll() is None and not was_injected(strace.lines()):
        daemon.signal(signal.SIGTERM)
    assert daemon.wait_end() == 0
    assert daemon.take_stderr() == ""
    return strace.finished_lines(daemon), acknowledged


@needs_strace
def test_start_and_end_keep_their_order(world):
    # The daemon tries to open the registry file, which does not exist. At its end, it writes the change.
    lines, _ = run_with_a_write(world, "-s", "256")
    observe.assert_in_order(lines, [
        r"rt_sigaction\(SIGTERM", r"connect\(\d+<socket:", r"sendmsg\(\d+<socket:.*RequestName",
        r'openat\(.*"/var/lib/plinthware/registry", O_RDONLY', r"--- SIGTERM", r"rename\(", r"close\(\d+<socket:"])


@needs_strace
def test_signal_at_each_system_call_ends_the_daemon_with_a_whole_file(world):
    lines, acknowledged = run_with_a_write(world)
    assert acknowledged
    first = calls_after_the_handlers(lines)
    for name in DISTURBED_CALLS:
        assert name in first
        ordinal = first[name] + 1
        last = ordinal + MAX_CALLS
        while True:
            context = f"signal at {name} number {ordinal}"
            lines, acknowledged = run_with_a_write(world, "-e", f"inject={name}:signal=SIGQUIT:when={ordinal}")
            expected = [text_with("value")] if acknowledged else [b"", text_with("value")]
            assert world.registry_bytes() in expected, context
            if not was_injected(lines):
                break
            ordinal += 1
            assert ordinal < last, context
        assert ordinal > first[name] + 1, f"there was no signal at {name}"


# Each row delays one call of the file's replacement. The signals are sent during the delay.
@needs_strace
@pytest.mark.parametrize("call", ["openat", "write", "close", "rename"])
@pytest.mark.parametrize("requested", [False, True], ids=["final flush", "requested flush"])
def test_storm_of_signals_during_a_flush_is_survived(world, call, requested):
    # "-P" delays only calls on the new file. The signal handler also calls write(), to its pipe, without a delay.
    new = f"{world.registry}~~new".replace(str(world.path / "lib"), "/var/lib")
    strace = Strace(world, "-P", new, "-e", f"trace={call}", "-e", f"inject={call}:delay_enter=300000")
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    client.write("s", "k", "x" * 16000)
    if requested:
        send(client.connection, "Flush")
    else:
        daemon.signal(signal.SIGTERM)
    wait_for(lambda: any(f" {call}(" in line for line in strace.lines()), f"{call} has begun")
    assert daemon.process.poll() is None
    for i in range(200):
        daemon.signal(SIGNALS[i % len(SIGNALS)])
    assert daemon.wait_end(MAX_SECONDS_TO_END) == 0
    assert world.registry_bytes() == text_with("x" * 16000)
    assert [each.name for each in world.registry.parent.iterdir()] == ["registry"]
    lines = strace.finished_lines(daemon)
    assert any("(DELAYED)" in line for line in lines)
    assert sum("--- SIG" in line for line in lines) > 1
