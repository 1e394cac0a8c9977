"""Clients that mean harm, or do not know better. Whatever they do, the daemon goes on serving and keeps its data."""

import os
import random
import select
import signal
import time

import pytest

from harness import CAPACITY, ERROR_PREFIX, PATIENCE, is_sanitized, wait_for
from observe import cpu_ticks, status
from raw_client import ERROR, METHOD_RETURN, RawClient, pack_call
from stalled_bus import StalledBus

INVALID_NAME = (ERROR_PREFIX + "InvalidName", "Invalid Name")
INVALID_JSON = (ERROR_PREFIX + "InvalidJson", "Invalid Json")
FULL = (ERROR_PREFIX + "Full", "Full")
EXCEPTION = ERROR_PREFIX + "Exception"
SYNTAX_ERROR = "parse error - unexpected "

MEGABYTE = 1 << 20
LONG = 30 * MEGABYTE
LONG_ENOUGH = 6 * MEGABYTE  # where the sheer length matters less than the shape
DEPTH = 300000
CALLS = 100000
FAILED_CALLS = 10000
LONGEST_ERROR = 4000

# A service that keeps some of what it was sent, or of what it answered, keeps it below this.
MEMORY_GROWTH = 64 * MEGABYTE
# More of the longest replies that there can be than the daemon may keep.
LONG_REPLIES = 1000
LONGEST_REPLY = 2 * CAPACITY
# The most that a JSON text may cost: memory of the whole process, in the text's own lengths, and processor time. The
# time is three times what the slowest text takes on a busy machine, where the processors' caches are shared.
JSON_MEMORY_FACTOR = 6
JSON_SECONDS = 4.0
# The longest text that a message of the bus has room for. A build that is not optimised gets an eighth and no bound.
LONGEST = 32 * MEGABYTE - 4096

CONTENT_JSON = '{"s":{"k":"v"}}'
CONTENT_FILE = b"[s]\nk=v\n"


def fill(client):
    client.write("s", "k", "v")
    client.flush()


def check_served_and_untouched(world, client):
    assert client.read_all_json() == CONTENT_JSON
    client.flush()
    assert world.registry_bytes() == CONTENT_FILE
    client.write("s", "k", "w")
    assert client.read("s", "k") == "w"


@pytest.fixture
def victim(world, client):
    """A client that still wants to be served afterwards, and to find its data as it was."""
    fill(client)
    client.timeout = 4 * PATIENCE
    yield client
    check_served_and_untouched(world, client)


def peak_memory(daemon):
    return int(status(daemon.pid)["VmHWM"].split()[0]) * 1024


def check_memory_growth(daemon, before, limit):
    if not is_sanitized(daemon.world):
        grown = peak_memory(daemon) - before
        assert grown < limit, f"the daemon's memory has grown by {grown} bytes"


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


# Opening and closing text around a nest of arrays or of objects.
NESTS = {"arrays": ("[", "]", ""), "objects": ('{"":', "}", "0"), "named objects": ('{"k":', "}", "null")}
POSITIONS = {"top": ("", ""), "section": ('{"s":null,"a":', "}"), "key": ('{"a":{"s":"v","k":', "}}"),
             "element": ("[", "]"), "behind a value": ('{"a":{"k":5},"b":', "}")}


@pytest.mark.parametrize("opening, closing, core", NESTS.values(), ids=NESTS.keys())
@pytest.mark.parametrize("before, after", POSITIONS.values(), ids=POSITIONS.keys())
def test_deep_nesting_is_refused_in_any_position(victim, opening, closing, core, before, after):
    whole = before + opening * DEPTH + core + closing * DEPTH + after
    assert victim.error("WriteJson", whole) == INVALID_JSON
    for broken in [before + opening * DEPTH, whole + "]"]:
        name, message = victim.error("WriteJson", broken)
        assert name == EXCEPTION
        assert message.startswith(SYNTAX_ERROR)


def is_optimised(world):
    return not is_sanitized(world) and b".debug_info" not in world.binary.read_bytes()


def repeated(length, before, member, after):
    return before + member * ((length - len(before) - len(after)) // len(member)) + after


def shuffled(length, before, pattern, after):
    """Members with names of their own, in an order that is not theirs."""
    numbers = list(range(0x100000, 0x100000 + (length - len(before) - len(after)) // len(pattern % 0x100000)))
    random.Random(1).shuffle(numbers)
    return before + "".join([pattern % number for number in numbers]) + after


def spelled(length, before, pattern, after):
    """Members whose names differ in their case only."""
    halves = [["".join(letter.upper() if number >> i & 1 else letter for i, letter in enumerate(letters))
               for number in range(2048)] for letters in ["abcdefghijk", "lmnopqrstuv"]]
    count = (length - len(before) - len(after)) // len(pattern % ("x" * 22))
    numbers = random.Random(2).sample(range(1 << 22), count)
    return before + "".join([pattern % (halves[0][n & 2047] + halves[1][n >> 11]) for n in numbers]) + after


# How to make a text of a length, and the error.
LONG_TEXTS = {
    "different empty sections": (lambda length: shuffled(length, "{", '"%x":{},', '"":{}}'), None),
    "sections of one name but for its case": (lambda length: spelled(length, "{", '"%s":{},', '"":{}}'), None),
    "deleted keys": (lambda length: shuffled(length, '{"t":{', '"%x":null,', '"":null}}'), None),
    "keys set and deleted": (lambda length: shuffled(length, "{", '"%x":{"K":"","k":null},', '"":null}'), FULL),
    "names with escapes": (lambda length: shuffled(length, "{", r'"\n%x":{},', '"":{}}'), None),
    "different keys": (lambda length: shuffled(length, '{"a":{', '"%x":"",', '"":""}}'), FULL),
    "one section again and again": (lambda length: repeated(length, "{", '"a":{"":""},"b":{},', '"a":{},"b":{}}'), None),
    "one key again and again": (lambda length: repeated(length, '{"s":{', '"k":"w",', '"k":"v"}}'), None),
    "refused sections": (lambda length: repeated(length, "{", '"":0,', '"":0}'), INVALID_JSON),
    "refused keys": (lambda length: repeated(length, '{"a":{', '"":0,', '"":0}}'), INVALID_JSON),
    "one string": (lambda length: repeated(length, '"', "x", '"'), INVALID_JSON),
    "one value": (lambda length: repeated(length, '{"a":{"k":"', "x", '"}}'), FULL),
    "one value of escapes": (lambda length: repeated(length, '{"a":{"k":"', "\\u0061", '"}}'), FULL),
    "one name": (lambda length: repeated(length, '{"a":{"', "k", '":"v"}}'), FULL),
    "a string without an end": (lambda length: repeated(length, '"', "x", ""), EXCEPTION),
    "blanks": (lambda length: repeated(length, "", " ", "{}"), None),
    "newlines and no JSON": (lambda length: repeated(length, "", "\n", "x"), EXCEPTION),
    "an array of numbers": (lambda length: repeated(length, '{"a":{"k":[', "0,", "0]}}"), INVALID_JSON),
    "one number": (lambda length: repeated(length, '{"a":', "1", "}"), INVALID_JSON),
    "numbers out of range": (lambda length: repeated(length, "[", "1e9,", "1e999]"), INVALID_JSON),
    "arrays in arrays": (lambda length: repeated(length, "[", "[[],[]],", "[]]"), INVALID_JSON),
    "arrays without an end": (lambda length: repeated(length, "", "[", "x"), EXCEPTION),
}


@pytest.mark.parametrize("make, expected", LONG_TEXTS.values(), ids=LONG_TEXTS.keys())
def test_long_json_costs_little_time_and_a_small_multiple_of_itself(victim, daemon, make, expected):
    optimised = is_optimised(daemon.world)
    text = make(LONGEST if optimised else LONGEST // 8)
    memory_before, before = peak_memory(daemon), cpu_ticks(daemon.pid)
    if expected is None:
        victim.write_json(text)
    elif expected is EXCEPTION:
        name, message = victim.error("WriteJson", text)
        assert name == EXCEPTION
        assert message.startswith(SYNTAX_ERROR)
        assert len(message) <= LONGEST_ERROR
    else:
        assert victim.error("WriteJson", text) == expected
    seconds = (cpu_ticks(daemon.pid) - before) / os.sysconf("SC_CLK_TCK")
    # The command of docs/reliability.md shows it.
    print(f"processor time {seconds:.2f} s, memory {peak_memory(daemon) / len(text):.1f} times the text")
    if optimised:
        assert seconds < JSON_SECONDS
        assert peak_memory(daemon) < JSON_MEMORY_FACTOR * len(text)
    check_memory_growth(daemon, memory_before, JSON_MEMORY_FACTOR * len(text))


# What a termination signal may wait for; in processor time, as above.
STOP_SECONDS = 0.5


# The processor time after which the signal is sent: while the text is read, and while its names are sorted.
@pytest.mark.parametrize("seconds", [0.2, 0.6])
def test_termination_signal_ends_an_import_and_keeps_what_was_accepted(world, daemon, client, seconds):
    fill(client)
    client.write("s", "pending", "1")
    text = shuffled(LONGEST, '{"s":{"k":"w"},', '"%x":{},', '"":{}}')
    ticks_per_second = os.sysconf("SC_CLK_TCK")
    sender = RawClient(world.bus)
    begun = cpu_ticks(daemon.pid)
    sender.send("WriteJson", text)
    wait_for(lambda: cpu_ticks(daemon.pid) - begun >= seconds * ticks_per_second, "the import is under way")
    daemon.signal(signal.SIGTERM)
    signalled = cpu_ticks(daemon.pid)
    # A process that has ended stays a zombie until it is waited for.
    wait_for(lambda: status(daemon.pid)["State"].startswith("Z"), "the daemon has ended")
    ended = cpu_ticks(daemon.pid)
    daemon.wait_end()
    assert world.registry_bytes() == b"[s]\nk=v\npending=1\n"
    print(f"processor time after the signal {(ended - signalled) / ticks_per_second:.2f} s")
    if not is_sanitized(world):
        assert (ended - signalled) / ticks_per_second < STOP_SECONDS
    sender.close()


def test_number_out_of_range_is_a_number_like_any_other(victim):
    for number in ["1e400", "-1e400", "1E+99999999999", "-1e-99999999999", "1" * 400, "0." + "1" * 4000, "9" * 5000,
                   "18446744073709551616", "-9223372036854775809", "1e" + "9" * 1000]:
        for text in [number, f"[{number}]", f'{{"a":{number}}}', f'{{"a":{{"k":{number}}}}}',
                     f'{{"s":null,"a":{{"k":[{{"b":{number}}}]}}}}']:
            assert victim.error("WriteJson", text) == INVALID_JSON, text[:60]
        for text in [f"[{number}", f'{{"a":{number}', f'{{"a":{number},}}', f"{number} 1"]:
            name, message = victim.error("WriteJson", text)
            assert name == EXCEPTION, text[:60]
            assert message.startswith(SYNTAX_ERROR), text[:60]


def test_error_text_about_hostile_json_is_capped(victim):
    for text in ['"' + "\u00e9" * (5 * MEGABYTE // 2), '"' + "%s%n" * (5 * MEGABYTE // 4),
                 '["' + "\u20ac" * MEGABYTE + "\n", "[" + "\x7f" * MEGABYTE]:
        name, message = victim.error("WriteJson", text)
        assert name == EXCEPTION
        assert message.startswith(SYNTAX_ERROR)
        assert len(message) <= LONGEST_ERROR
        assert message.isascii()


def test_random_text_is_no_json(victim):
    source = random.Random(7)
    for _ in range(2000):
        # The bracket makes it no object, whatever follows.
        text = "[" + "".join(source.choices('{}[]":,\\u0129ae+-. nulltrfs\u00e9\u20ac\t', k=source.randrange(1, 40)))
        name, message = victim.error("WriteJson", text)
        if name == EXCEPTION:
            assert message.startswith(SYNTAX_ERROR), text
        else:
            assert (name, message) == INVALID_JSON, text


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
