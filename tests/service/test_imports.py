"""The longest JSON texts that a message can contain: none blocks the daemon for long, and none changes what it does not
name. Unit tests have the cases of short texts."""

import itertools
import os
import random
import signal

import pytest

from attacked import EXCEPTION, FULL, INVALID_JSON, MEGABYTE, check_memory_growth, check_syntax_error, fill, peak_memory
from world.harness import PATIENCE, is_sanitized, wait_for
from world.observe import cpu_ticks, status
from world.raw_client import RawClient

# The limits of one import: memory of the whole process in multiples of the text, and processor time. The time is three
# times that of the slowest text on a busy machine, where programs share the caches of the processors.
JSON_MEMORY_FACTOR = 6
JSON_SECONDS = 4.0
# The longest text that a message of the bus can contain. A build that is not optimised gets an eighth and no limit.
LONGEST = 32 * MEGABYTE - 4096
# The limit of the processor time between a termination signal and the end.
STOP_SECONDS = 0.2


def is_optimised(world):
    return not is_sanitized(world) and b".debug_info" not in world.binary.read_bytes()


def longest(world):
    return LONGEST if is_optimised(world) else LONGEST // 8


def repeated(length, before, member, after):
    return before + member * ((length - len(before) - len(after)) // len(member)) + after


def shuffled(length, before, pattern, after):
    """Members with different names in random order."""
    numbers = list(range(0x100000, 0x100000 + (length - len(before) - len(after)) // len(pattern % 0x100000)))
    random.Random(1).shuffle(numbers)
    return before + "".join([pattern % number for number in numbers]) + after


def two_spellings(length, value):
    """One section in two spellings, each with as many keys of four letters as fit."""
    count = (length - 20) // (2 * len(f'"abcd":{value},'))
    names = itertools.islice(itertools.product("abcdefghijklmnopqrstuvwxyz0123456789", repeat=4), count)
    keys = ",".join([f'"{a}{b}{c}{d}":{value}' for a, b, c, d in names])
    return f'{{"S":{{{keys}}},"s":{{{keys}}}}}'


def spelled(length, before, pattern, after):
    """Members whose names differ only in case."""
    halves = [["".join(letter.upper() if number >> i & 1 else letter for i, letter in enumerate(letters))
               for number in range(2048)] for letters in ["abcdefghijk", "lmnopqrstuv"]]
    count = (length - len(before) - len(after)) // len(pattern % ("x" * 22))
    numbers = random.Random(2).sample(range(1 << 22), count)
    return before + "".join([pattern % (halves[0][n & 2047] + halves[1][n >> 11]) for n in numbers]) + after


# A function that makes a text of a length; the error.
LONG_TEXTS = {
    "different empty sections": (lambda length: shuffled(length, "{", '"%x":{},', '"":{}}'), None),
    "sections whose names differ only in case": (lambda length: spelled(length, "{", '"%s":{},', '"":{}}'), None),
    "deleted keys": (lambda length: shuffled(length, '{"t":{', '"%x":null,', '"":null}}'), None),
    "keys set and deleted": (lambda length: shuffled(length, "{", '"%x":{"K":"","k":null},', '"":null}'), FULL),
    "keys of two spellings": (lambda length: two_spellings(length, '""'), FULL),
    "deleted keys of two spellings": (lambda length: two_spellings(length, "null"), None),
    "names with escapes": (lambda length: shuffled(length, "{", r'"\n%x":{},', '"":{}}'), None),
    "different keys": (lambda length: shuffled(length, '{"a":{', '"%x":"",', '"":""}}'), FULL),
    "one section again and again": (
        lambda length: repeated(length, "{", '"a":{"":""},"b":{},', '"a":{},"b":{}}'), None),
    "one key again and again": (lambda length: repeated(length, '{"s":{', '"k":"w",', '"k":"v"}}'), None),
    "refused sections": (lambda length: repeated(length, "{", '"":0,', '"":0}'), INVALID_JSON),
    "refused keys": (lambda length: repeated(length, '{"a":{', '"":0,', '"":0}}'), INVALID_JSON),
    "one string": (lambda length: repeated(length, '"', "x", '"'), INVALID_JSON),
    "one value": (lambda length: repeated(length, '{"a":{"k":"', "x", '"}}'), FULL),
    "one value of escapes": (lambda length: repeated(length, '{"a":{"k":"', "\\u0061", '"}}'), FULL),
    "one name": (lambda length: repeated(length, '{"a":{"', "k", '":"v"}}'), FULL),
    "a string without an end": (lambda length: repeated(length, '"', "x", ""), EXCEPTION),
    "other characters without an end": (lambda length: repeated(length * 2 // 3, '"', "\u20ac%n\x7f", ""), EXCEPTION),
    "spaces": (lambda length: repeated(length, "", " ", "{}"), None),
    "newlines and no JSON": (lambda length: repeated(length, "", "\n", "x"), EXCEPTION),
    "an array of numbers": (lambda length: repeated(length, '{"a":{"k":[', "0,", "0]}}"), INVALID_JSON),
    "one number": (lambda length: repeated(length, '{"a":', "1", "}"), INVALID_JSON),
    "numbers out of range": (lambda length: repeated(length, "[", "1e9,", "1e999]"), INVALID_JSON),
    "arrays in arrays": (lambda length: repeated(length, "[", "[[],[]],", "[]]"), INVALID_JSON),
    "arrays without an end": (lambda length: repeated(length, "", "[", "x"), EXCEPTION),
    "objects without an end": (lambda length: repeated(length, "", '{"":', "x"), EXCEPTION),
    "deep arrays": (lambda length: "[" * (length // 2) + "]" * (length // 2), INVALID_JSON),
}


@pytest.mark.parametrize("make, expected", LONG_TEXTS.values(), ids=LONG_TEXTS.keys())
def test_long_json_costs_little_time_and_a_small_multiple_of_itself(victim, daemon, make, expected):
    optimised = is_optimised(daemon.world)
    text = make(longest(daemon.world))
    memory_before, before = peak_memory(daemon), cpu_ticks(daemon.pid)
    if expected is None:
        victim.write_json(text)
    elif expected is EXCEPTION:
        check_syntax_error(victim.error("WriteJson", text))
    else:
        assert victim.error("WriteJson", text) == expected
    seconds, size = (cpu_ticks(daemon.pid) - before) / os.sysconf("SC_CLK_TCK"), len(text.encode())
    # The command of docs/reliability.md shows it.
    print(f"processor time {seconds:.2f} s, memory {peak_memory(daemon) / size:.1f} times the text")
    if optimised:
        assert seconds < JSON_SECONDS
        assert peak_memory(daemon) < JSON_MEMORY_FACTOR * size
    check_memory_growth(daemon, memory_before, JSON_MEMORY_FACTOR * size)


# The moment of the signal, as a share of a whole import: while the text is read, and while its names are sorted.
@pytest.mark.parametrize("share", [0.2, 0.6])
def test_termination_signal_ends_an_import_and_keeps_what_was_accepted(world, daemon, client, share):
    fill(client)
    client.write("s", "pending", "1")
    client.timeout = 4 * PATIENCE
    text = shuffled(longest(world), '{"t":{"k":"w"},"t":null,', '"%x":{},', '"":{}}')
    before = cpu_ticks(daemon.pid)
    client.write_json(text)
    begun = cpu_ticks(daemon.pid)
    client.write("s", "pending", "2")
    sender = RawClient(world.bus)
    sender.send("WriteJson", text.replace('"t":null,', "", 1))
    wait_for(lambda: cpu_ticks(daemon.pid) - begun >= share * (begun - before), "the import is under way")
    daemon.signal(signal.SIGTERM)
    signalled = cpu_ticks(daemon.pid)
    # A process that has ended is a zombie until its parent waits for it.
    wait_for(lambda: status(daemon.pid)["State"].startswith("Z"), "the daemon has ended")
    seconds = (cpu_ticks(daemon.pid) - signalled) / os.sysconf("SC_CLK_TCK")
    daemon.wait_end()
    assert world.registry_bytes() == b"[s]\nk=v\npending=2\n"
    print(f"processor time after the signal {seconds:.2f} s")
    if is_optimised(world):
        assert seconds < STOP_SECONDS
    sender.close()
