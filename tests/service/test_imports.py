"""JSON texts that are long, deep or broken: none blocks the daemon for long, and none changes what it does not name."""

import itertools
import os
import random
import signal

import pytest

from attacked import (EXCEPTION, FULL, INVALID_JSON, MEGABYTE, SYNTAX_ERROR, check_memory_growth, fill, peak_memory)
from world.harness import PATIENCE, is_sanitized, wait_for
from world.observe import cpu_ticks, status
from world.raw_client import RawClient

DEPTH = 300000
LONGEST_ERROR = 4000
# The most that a JSON text may cost: memory of the whole process, in the text's own lengths, and processor time. The
# time is three times what the slowest text takes on a busy machine, where the processors' caches are shared.
JSON_MEMORY_FACTOR = 6
JSON_SECONDS = 4.0
# The longest text that a message of the bus has room for. A build that is not optimised gets an eighth and no bound.
LONGEST = 32 * MEGABYTE - 4096


# Opening and closing text around a nest of arrays or of objects.
NESTS = {"arrays": ("[", "]", ""), "objects": ('{"":', "}", "0"), "named objects": ('{"k":', "}", "null")}
POSITIONS = {"top": ("", ""), "section": ('{"s":null,"a":', "}"), "key": ('{"a":{"s":"v","k":', "}}"),
             "element": ("[", "]"), "after a value": ('{"a":{"k":5},"b":', "}")}


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


def longest(world):
    return LONGEST if is_optimised(world) else LONGEST // 8


def repeated(length, before, member, after):
    return before + member * ((length - len(before) - len(after)) // len(member)) + after


def shuffled(length, before, pattern, after):
    """Members with names of their own, in an order that is not theirs."""
    numbers = list(range(0x100000, 0x100000 + (length - len(before) - len(after)) // len(pattern % 0x100000)))
    random.Random(1).shuffle(numbers)
    return before + "".join([pattern % number for number in numbers]) + after


def two_spellings(length, value):
    """One section in two spellings, each with all the keys of four letters that there is room for."""
    count = (length - 20) // (2 * len(f'"abcd":{value},'))
    names = itertools.islice(itertools.product("abcdefghijklmnopqrstuvwxyz0123456789", repeat=4), count)
    keys = ",".join([f'"{a}{b}{c}{d}":{value}' for a, b, c, d in names])
    return f'{{"S":{{{keys}}},"s":{{{keys}}}}}'


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
    text = make(longest(daemon.world))
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


def import_and_measure(daemon, text):
    """Sends the text and returns the sender and a function that tells how many ticks the daemon has used since."""
    sender = RawClient(daemon.world.bus)
    begun = cpu_ticks(daemon.pid)
    sender.send("WriteJson", text)
    return sender, lambda: cpu_ticks(daemon.pid) - begun


# What a termination signal may wait for, in processor time.
STOP_SECONDS = 0.2


# When the signal comes, as a share of a whole import: while the text is read, and while its names are sorted.
@pytest.mark.parametrize("share", [0.2, 0.6])
def test_termination_signal_ends_an_import_and_keeps_what_was_accepted(world, daemon, client, share):
    fill(client)
    client.write("s", "pending", "1")
    client.timeout = 4 * PATIENCE
    text = shuffled(longest(world), '{"t":{"k":"w"},"t":null,', '"%x":{},', '"":{}}')
    before = cpu_ticks(daemon.pid)
    client.write_json(text)
    whole = cpu_ticks(daemon.pid) - before
    client.write("s", "pending", "2")
    sender, ticks = import_and_measure(daemon, text.replace('"t":null,', "", 1))
    wait_for(lambda: ticks() >= share * whole, "the import is under way")
    daemon.signal(signal.SIGTERM)
    signalled = ticks()
    # A process that has ended stays a zombie until it is waited for.
    wait_for(lambda: status(daemon.pid)["State"].startswith("Z"), "the daemon has ended")
    seconds = (ticks() - signalled) / os.sysconf("SC_CLK_TCK")
    daemon.wait_end()
    assert world.registry_bytes() == b"[s]\nk=v\npending=2\n"
    print(f"processor time after the signal {seconds:.2f} s")
    if is_optimised(world):
        assert seconds < STOP_SECONDS
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
