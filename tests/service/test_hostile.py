"""Clients that mean harm, or do not know better. Whatever they do, the daemon goes on serving and keeps its data."""

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

LONG = 30 * MEGABYTE
LONG_ENOUGH = 6 * MEGABYTE  # where the sheer length matters less than the shape
CALLS = 100000
FAILED_CALLS = 10000

# A service that keeps some of what it was sent, or of what it answered, keeps it below this.
MEMORY_GROWTH = 64 * MEGABYTE
# More of the longest replies that there can be than the daemon may keep.
LONG_REPLIES = 1000
LONGEST_REPLY = 2 * CAPACITY


def resident_memory(daemon):
    return int(status(daemon.pid)["VmRSS"].split()[0]) * 1024


def wait_until_idle(daemon, quiet=0.5):
    """Waits until the daemon has used no processor time for a while; one that spins never gets there."""
    seen = (cpu_ticks(daemon.pid), time.monotonic())

    def idle():
        nonlocal seen
        ticks, now = cpu_ticks(daemon.pid), time.monotonic()
        if ticks != seen[0]:
            seen = (ticks, now)
        return now - seen[1] >= quiet

    wait_for(idle, "the daemon uses no processor time")


def test_strings_of_many_megabytes_are_refused_or_not_found(victim):
    long = "X" * LONG_ENOUGH
    assert victim.error("Write", "s", "k", "x" * LONG) == FULL
    assert victim.error("Write", "s", "k", long) == FULL
    assert victim.error("Write", "s", long, "v") == FULL
    assert victim.error("Write", long, "k", "v") == FULL
    assert victim.read(long, "k") == ""
    assert victim.read("s", long) == ""
    assert victim.key_list(long) == {}
    assert not victim.section_exists(long)
    victim.delete_key("s", long)
    victim.delete_section(long)


def test_invalid_name_of_many_megabytes_has_the_short_error(victim):
    long = "x" * LONG_ENOUGH + "\u00e9"
    assert victim.error("Write", long, "k", "v") == INVALID_NAME
    assert victim.error("Read", "s", long) == INVALID_NAME


def stop_process(daemon):
    daemon.signal(signal.SIGSTOP)
    wait_for(lambda: status(daemon.pid)["State"].startswith("T"), "the daemon is stopped")


@pytest.mark.parametrize("call, after", [
    (("Write", "a", "k", "w"), '{"a":{"k":"w"},"s":{"k":"v"}}'),
    (("Read", "s", "k"), CONTENT_JSON),
    (("Read", "\u00e9", "k"), CONTENT_JSON),
    (("WriteJson", " " * (5 * MEGABYTE) + '{"a":{"k":"w"}}'), '{"a":{"k":"w"},"s":{"k":"v"}}'),
], ids=["write", "read", "error", "import"])
def test_client_may_leave_before_its_reply(world, daemon, client, call, after):
    fill(client)
    leaver = RawClient(world.bus)
    stop_process(daemon)
    leaver.send(*call)
    # The bus answers in order: it has then passed the call on to the daemon.
    assert leaver.call_bus("GetId").kind == METHOD_RETURN
    leaver.close()
    wait_for(lambda: not client.connection.name_has_owner(leaver.name), "the client is gone")
    daemon.signal(signal.SIGCONT)
    assert client.read_all_json() == after


def test_client_that_leaves_in_the_middle_of_a_call_is_forgotten(world, daemon, victim):
    leaver = RawClient(world.bus)
    call = pack_call(2, "Write", "s", "k", "x" * 1000)
    leaver.socket.sendall(call[:-500])
    leaver.close()
    wait_for(lambda: not victim.connection.name_has_owner(leaver.name), "the client is gone")


@pytest.mark.parametrize("call", [("Read", b"\xff", "k"), ("WriteJson", b'{"a":"\xc3"}'), ("Write", "s", "k", b"a\0b")],
                         ids=["name", "import", "NUL"])
def test_string_that_the_bus_forbids_ends_its_sender_only(world, daemon, victim, call):
    sender = RawClient(world.bus)
    sender.send(*call)
    with pytest.raises(ConnectionResetError):
        sender.receive()
    sender.close()


def send_without_reading(hostile, data, until_blocked=1.0):
    """Sends as much of the data as the bus takes; gives up when it has taken nothing for a while. Returns whether all
    of it went out."""
    hostile.socket.setblocking(False)
    sent = 0
    while sent < len(data):
        if not select.select([], [hostile.socket], [], until_blocked)[1]:
            return False
        sent += hostile.socket.send(data[sent:sent + MEGABYTE])
    return True


def make_calls(raw, call, count, at_once=100):
    for _ in range(count // at_once):
        serials = [raw.send(*call) for _ in range(at_once)]
        assert [raw.receive().reply_serial for _ in serials] == serials


@pytest.mark.parametrize("call", [
    ("KeyList", "\u00e9"), ("KeyList", "s"), ("SectionList",), ("ReadAllJson",), ("WriteJson", "["),
    ("Write", "s", "k", "x" * CAPACITY)
], ids=["invalid name", "key list", "section list", "export", "import", "full"])
def test_failed_calls_leave_nothing_in_the_memory(world, call):
    # What the bus cannot carry makes a reply fail that has been begun.
    world.registry.write_bytes(b"[s]\na=v\nk=\xff\n[t\xff]\n")
    daemon = world.start()
    raw = RawClient(world.bus)
    assert raw.call(*call).kind == ERROR
    make_calls(raw, call, 1000)
    before = resident_memory(daemon)
    make_calls(raw, call, FAILED_CALLS)
    # Less than the smallest block of memory that each call could leave behind.
    if not is_sanitized(world):
        assert resident_memory(daemon) - before < FAILED_CALLS * 16
    raw.close()


def test_stray_sections_fail_the_next_change_and_go_with_it(world, daemon, victim):
    """Deliberately a refused key leaves its new section behind."""
    for letter in "abc":
        assert victim.error("Write", letter * CAPACITY, "\u00e9", "v") == INVALID_NAME
    assert victim.section_exists("a" * CAPACITY)
    assert victim.error("DeleteKey", "s", "k") == FULL
    assert victim.section_list() == ["s"]


@pytest.mark.bus_limits(max_replies_per_connection=2 * CALLS)
def test_client_that_never_reads_does_not_keep_others_from_being_served(world, daemon, victim):
    before = peak_memory(daemon)
    hostile = RawClient(world.bus)
    calls = memoryview(b"".join(pack_call(number, "Read", "s", "k") for number in range(2, CALLS + 2)))
    assert send_without_reading(hostile, calls, until_blocked=victim.timeout)
    check_served_and_untouched(world, victim)
    victim.write("s", "k", "v")
    wait_until_idle(daemon)
    check_memory_growth(daemon, before, MEMORY_GROWTH)
    hostile.close()


# The bus takes a megabyte of replies and no more, so what else the daemon has to say stays with the daemon.
@pytest.mark.bus_limits(max_replies_per_connection=2 * CALLS, max_incoming_bytes=MEGABYTE)
def test_replies_that_nobody_takes_do_not_fill_the_memory(world, daemon, client):
    client.write("s", "k", "v" * 4000)
    before = peak_memory(daemon)
    hostile = RawClient(world.bus)
    calls = memoryview(b"".join(pack_call(number, "Read", "s", "k") for number in range(2, CALLS + 2)))
    assert not send_without_reading(hostile, calls), "the bus was to be blocked"
    wait_until_idle(daemon)
    check_memory_growth(daemon, before, MEMORY_GROWTH)
    hostile.close()
    assert client.read("s", "k") == "v" * 4000
    wait_until_idle(daemon)
    check_memory_growth(daemon, before, MEMORY_GROWTH)


# A daemon that read calls while replies wait would make more than had just gone out, each time that some go out.
@pytest.mark.bus_limits(max_replies_per_connection=2 * LONG_REPLIES)
def test_replies_that_go_out_slowly_do_not_fill_the_memory(world):
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
