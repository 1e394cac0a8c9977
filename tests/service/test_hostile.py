"""Clients that attack, or that are broken. The daemon continues to serve and keeps its data."""

import select
import signal
import time

import pytest

from attacked import (CONTENT_JSON, FULL, INVALID_NAME, MEGABYTE, check_memory_growth, check_served_and_untouched, fill,
                      peak_memory)
from world.harness import CAPACITY, is_sanitized, wait_for
from world.observe import cpu_ticks, status
from world.raw_client import ERROR, METHOD_RETURN, RawClient, pack_call
from world.stalled_bus import StalledBus

LONGEST = 30 * MEGABYTE
LONG_NAME = 6 * MEGABYTE
CALLS = 100000
FAILED_CALLS = 10000

# If the daemon kept a part of each call or reply, its memory would grow by more than this.
MEMORY_GROWTH = 64 * MEGABYTE
# Together more than the daemon may keep.
LONG_REPLIES = 1000
LONGEST_REPLY = 2 * CAPACITY


def wait_until_idle(daemon, quiet=0.5):
    """Waits until the daemon has used no processor time for a while. This fails if it spins."""
    seen = (cpu_ticks(daemon.pid), time.monotonic())

    def idle():
        nonlocal seen
        ticks, now = cpu_ticks(daemon.pid), time.monotonic()
        if ticks != seen[0]:
            seen = (ticks, now)
        return now - seen[1] >= quiet

    wait_for(idle, "the daemon uses no processor time")


def test_strings_of_many_megabytes_are_refused_or_not_found(victim):
    long = "X" * LONG_NAME
    for arguments in [("s", "k", "x" * LONGEST), ("s", long, "v"), (long, "k", "v")]:
        assert victim.error("Write", *arguments) == FULL
    assert victim.error("Write", long + "\u00e9", "k", "v") == INVALID_NAME
    assert victim.error("Read", "s", long + "\u00e9") == INVALID_NAME
    assert victim.read(long, "k") == victim.read("s", long) == ""
    assert victim.key_list(long) == {}
    assert not victim.section_exists(long)
    victim.delete_key("s", long)
    victim.delete_section(long)


def leave(leaver, client):
    leaver.close()
    wait_for(lambda: not client.connection.name_has_owner(leaver.name), "the client is gone")


@pytest.mark.parametrize("call, after", [
    (("Write", "a", "k", "w"), '{"a":{"k":"w"},"s":{"k":"v"}}'),
    (("Read", "s", "k"), CONTENT_JSON),
    (("Read", "\u00e9", "k"), CONTENT_JSON),
    (("WriteJson", " " * (5 * MEGABYTE) + '{"a":{"k":"w"}}'), '{"a":{"k":"w"},"s":{"k":"v"}}'),
], ids=["write", "read", "error", "import"])
def test_client_may_leave_before_its_reply(world, daemon, client, call, after):
    fill(client)
    leaver = RawClient(world.bus)
    daemon.signal(signal.SIGSTOP)
    wait_for(lambda: status(daemon.pid)["State"].startswith("T"), "the daemon is stopped")
    leaver.send(*call)
    # The bus answers in order: it has passed the call to the daemon before it answers this one.
    assert leaver.call_bus("GetId").kind == METHOD_RETURN
    leave(leaver, client)
    daemon.signal(signal.SIGCONT)
    assert client.read_all_json() == after


def test_bus_ends_a_client_that_leaves_in_the_middle_of_a_call_or_sends_a_forbidden_string(world, daemon, victim):
    leaver = RawClient(world.bus)
    leaver.socket.sendall(pack_call(2, "Write", "s", "k", "x" * 1000)[:-500])
    leave(leaver, victim)
    for call in [("Read", b"\xff", "k"), ("WriteJson", b'{"a":"\xc3"}'), ("Write", "s", "k", b"a\0b")]:
        sender = RawClient(world.bus)
        sender.send(*call)
        with pytest.raises(ConnectionResetError):
            sender.receive()
        sender.close()


def make_calls(raw, call, count, at_once=100):
    for _ in range(count // at_once):
        serials = [raw.send(*call) for _ in range(at_once)]
        assert [raw.receive().reply_serial for _ in serials] == serials


@pytest.mark.parametrize("call", [
    ("KeyList", "\u00e9"), ("KeyList", "s"), ("SectionList",), ("ReadAllJson",), ("WriteJson", "["),
    ("Write", "s", "k", "x" * CAPACITY)
], ids=["invalid name", "key list", "section list", "export", "import", "full"])
def test_failed_calls_leave_nothing_in_the_memory(world, call):
    # A reply fails after it has been begun if the bus cannot carry one of its strings.
    world.registry.write_bytes(b"[s]\na=v\nk=\xff\n[t\xff]\n")
    daemon = world.start()
    raw = RawClient(world.bus)
    assert raw.call(*call).kind == ERROR
    make_calls(raw, call, 1000)
    before = int(status(daemon.pid)["VmRSS"].split()[0])
    make_calls(raw, call, FAILED_CALLS)
    # The smallest block of memory has 16 bytes.
    grown = 1024 * (int(status(daemon.pid)["VmRSS"].split()[0]) - before)
    assert is_sanitized(world) or grown < FAILED_CALLS * 16
    raw.close()


def call_without_reading(hostile, until_blocked=1.0):
    """Sends calls until the bus has read nothing for a while. Returns whether all were sent."""
    data = memoryview(b"".join(pack_call(number, "Read", "s", "k") for number in range(2, CALLS + 2)))
    hostile.socket.setblocking(False)
    sent = 0
    while sent < len(data):
        if not select.select([], [hostile.socket], [], until_blocked)[1]:
            return False
        sent += hostile.socket.send(data[sent:sent + MEGABYTE])
    return True


@pytest.mark.bus_limits(max_replies_per_connection=2 * CALLS)
def test_client_that_never_reads_does_not_keep_others_from_being_served(world, daemon, victim):
    before = peak_memory(daemon)
    hostile = RawClient(world.bus)
    assert call_without_reading(hostile, until_blocked=victim.timeout)
    check_served_and_untouched(world, victim)
    victim.write("s", "k", "v")
    wait_until_idle(daemon)
    check_memory_growth(daemon, before, MEMORY_GROWTH)
    hostile.close()


# The bus reads only a megabyte of replies; the daemon keeps the others.
@pytest.mark.bus_limits(max_replies_per_connection=2 * CALLS, max_incoming_bytes=MEGABYTE)
def test_replies_that_nobody_reads_do_not_fill_the_memory(world, daemon, client):
    client.write("s", "k", "v" * 4000)
    before = peak_memory(daemon)
    hostile = RawClient(world.bus)
    assert not call_without_reading(hostile), "the bus is not blocked"
    wait_until_idle(daemon)
    check_memory_growth(daemon, before, MEMORY_GROWTH)
    hostile.close()
    assert client.read("s", "k") == "v" * 4000
    wait_until_idle(daemon)
    check_memory_growth(daemon, before, MEMORY_GROWTH)


# A daemon that read calls while replies wait would, each time, make more replies than were sent.
@pytest.mark.bus_limits(max_replies_per_connection=2 * LONG_REPLIES)
def test_replies_that_are_sent_slowly_do_not_fill_the_memory(world):
    with StalledBus(world) as bus:
        daemon = world.start(wait=False, environment=bus.environment)
        bus.release()
        daemon.wait_ready()
        client = world.client()
        client.write("s", "k", '"' * (CAPACITY - len("[s]\nk=\n")))
        before = peak_memory(daemon)
        bus.hold()
        hostile = RawClient(world.bus)
        hostile.socket.sendall(b"".join(pack_call(number, "ReadAllJson") for number in range(2, LONG_REPLIES + 2)))
        for _ in range(LONG_REPLIES // 4):
            bus.let_through(LONGEST_REPLY)
            wait_for(lambda: status(daemon.pid)["State"].startswith("S"), "the daemon waits to write again")
        check_memory_growth(daemon, before, LONG_REPLIES * LONGEST_REPLY // 4)
        hostile.close()
        bus.go_on()
        assert client.section_list() == ["s"]
        daemon.stop()
