"""The client on the real daemon: what it reads and writes, and how it gets along with pipes, terminals and signals.

LEDGERD_TEST_SEED chooses other random registries."""

import json
import os
import random
import re
import signal
import subprocess

import pytest

from world import observe
from world.ledgerctl import LOCAL, fake_daemon
from world.observe import needs_strace
from world.raw_client import MEMBER_FIELD

SEED = int(os.environ.get("LEDGERD_TEST_SEED", "20240811"))
ALPHABET = "abcz019 =%[]\r\n\t\"\\'$#./-\x00\x01\x1b\x7f"
MORE_IN_VALUES = "AZ\u00e9\u20ac\U0001f3b5"


def random_text(source, alphabet):
    return "".join(source.choices(alphabet, k=source.choice([0, 1, 2, 3, 8])))


def random_registry(source):
    return {random_text(source, ALPHABET): {
        random_text(source, ALPHABET): random_text(source, ALPHABET + MORE_IN_VALUES)
        for _ in range(source.randrange(5))} for _ in range(source.randrange(5))}


def fill(client, registry):
    """Makes the registry, empty sections too."""
    client.delete_all()
    for section in registry:
        if "\0" not in section:
            client.write(section, "passing", "")
    client.write_json(json.dumps({section: {"passing": None, **keys} for section, keys in registry.items()}))


# Section "a" has a key "b" and the reverse, so that names in each other's place show.
REGISTRY = {"a": {"b": "1", "c": "2"}, "b": {"a": "3"}}

# A command that needs the method, what it prints, and the registry afterwards.
METHODS = {
    "ReadAllJson": (("show",), b"[a]\nb=1\nc=2\n\n[b]\na=3\n", REGISTRY),
    "WriteJson": (("load",), b"", {"a": {"b": "new", "c": "2"}}),
    "Read": (("get", "a", "b"), b"1\n", REGISTRY),
    "Write": (("set", "b", "a", "c"), b"", {**REGISTRY, "b": {"a": "c"}}),
    "KeyExists": (("--json", "exists", "a", "c"), b"true\n", REGISTRY),
    "SectionExists": (("--json", "exists", "a"), b"true\n", REGISTRY),
    "DeleteKey": (("unset", "a", "b"), b"", {"a": {"c": "2"}, "b": {"a": "3"}}),
    "DeleteSection": (("unset", "-r", "a"), b"", {"b": {"a": "3"}}),
    "DeleteAll": (("clear", "--yes"), b"", {}),
    "SectionList": (("list",), b"a\nb\n", REGISTRY),
    "KeyList": (("list", "a"), b"b\nc\n", REGISTRY),
    "Flush": (("flush",), b"", REGISTRY),
}


@pytest.mark.parametrize("method", METHODS)
def test_each_method(ledgerctl, world, client, method):
    command, output, registry = METHODS[method]
    for section, keys in REGISTRY.items():
        for key, value in keys.items():
            client.write(section, key, value)
    assert ledgerctl.output(*command, input=b'{"a":{"b":"new"},"b":null}') == output
    assert json.loads(client.read_all_json()) == registry
    # Only these two write the file at once.
    assert world.registry.exists() == (method in ("WriteJson", "Flush"))


def test_dumped_registry_is_loaded_byte_for_byte(ledgerctl, world, client, request):
    source = random.Random(SEED)
    file = world.path / "dump.json"
    for number in range(request.config.getoption("--rounds")):
        registry = random_registry(source)
        fill(client, registry)
        before = world.registry_bytes()
        ledgerctl.output("-q", "dump", str(file))
        ledgerctl.output("clear", "--yes")
        ledgerctl.output("-q", "load", "--force", str(file))
        assert world.registry_bytes() == before, f"seed {SEED}, round {number}: {registry!r}"
        ledgerctl.output("-q", "diff", str(file))


def test_shown_registry_is_read_by_a_shell(ledgerctl, client):
    """What "show" quotes, bash takes back; "get" and "list -0" give it as it is."""
    source = random.Random(SEED)
    value = "".join(sorted(set(ALPHABET + MORE_IN_VALUES) - {"\0"})) + random_text(source, ALPHABET).replace("\0", "")
    client.write("s", "k", value)
    shown = ledgerctl.output("show", "s").removeprefix(b"[s]\n")
    assert subprocess.run(["bash", "-c", shown + b'\nprintf %s "$k"'], stdout=subprocess.PIPE, check=True
                          ).stdout == value.encode()
    assert ledgerctl.output("get", "s", "k") == value.encode() + b"\n"
    assert ledgerctl.output("-0", "get", "s", "k") == value.encode() + b"\0"
    assert json.loads(ledgerctl.output("--json", "get", "s", "k")) == value
    name = re.sub("[\0A-Z]", "", value).encode("ascii", "ignore").decode()
    ledgerctl.output("set", "--", name, name, "v")
    assert ledgerctl.output("-0", "list") == b"\0".join(sorted([name.encode(), b"s"])) + b"\0"
    assert ledgerctl.output("-0", "list", "--", name) == name.encode() + b"\0"


def test_value_that_the_bus_cannot_carry(ledgerctl, world, client):
    """A NUL byte is carried by JSON alone."""
    client.write_json('{"s":{"k":"a\\u0000b"}}')
    culprit = b"D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte"
    assert ledgerctl.run("get", "s", "k") == (9, b"", b"ledgerctl: " + culprit + b"\n")
    assert ledgerctl.run("show", "s") == (9, b"", b"ledgerctl: " + culprit + b"\n")
    assert ledgerctl.output("show") == b"[s]\nk=$'a\\x00b'\n"
    assert json.loads(ledgerctl.output("dump")) == {"s": {"k": "a\0b"}}


def test_value_that_json_cannot_carry(ledgerctl, world):
    """A hand has written into the file what is not UTF-8."""
    world.registry.write_bytes(b"[s]\nbad=\xff\ngood=1\n[t]\nk=2\n")
    world.start()
    for verb in ("dump", "show", "usage", "edit"):
        status, output, error = ledgerctl.run(verb)
        assert (status, output) == (9, b""), verb
        assert error == b"ledgerctl: No JSON: value of key 'bad' in section 's' is not UTF-8\n", verb
    assert ledgerctl.output("show", "t") == b"[t]\nk=2\n"
    assert ledgerctl.output("list") == b"s\nt\n"
    assert ledgerctl.output("get", "s", "good") == b"1\n"


def test_usage_is_the_size_of_the_file(ledgerctl, world, client):
    source = random.Random(SEED)
    for number in range(10):
        registry = random_registry(source)
        fill(client, registry)
        usage = json.loads(ledgerctl.output("--json", "usage"))
        assert usage["used"] == len(world.registry_bytes()), f"seed {SEED}, round {number}: {registry!r}"
        assert usage["used"] == sum(usage["sections"].values())


@needs_strace
def test_flush_syncs_the_file_system_of_the_store(ledgerctl, world, client):
    client.write("s", "k", "v")
    log = world.path / "calls"
    ledgerctl.output("flush", "--sync", wrapper=(
        *ledgerctl.in_world(), *observe.without_leak_check(), "strace", "-y", "-o", str(log), "-e", "trace=syncfs"))
    assert re.search(r"syncfs\(\d+<[^>]*/plinthware>\) += 0", log.read_text()), log.read_text()
    assert world.registry_bytes() == b"[s]\nk=v\n"


@needs_strace
def test_flush_says_that_it_cannot_sync(ledgerctl, client):
    assert ledgerctl.run("flush", "--sync", wrapper=(
        *ledgerctl.in_world(), *observe.without_leak_check(), "strace", "-o", os.devnull, "-e",
        "inject=syncfs:error=EIO")) == (
            LOCAL, b"", b"ledgerctl: written, but not synced: /var/lib/plinthware: Input/output error\n")


def test_flush_says_that_there_is_nothing_to_sync(ledgerctl, world, client):
    world.registry.parent.rename(world.path / "elsewhere")
    try:
        assert ledgerctl.run("flush", "--sync", wrapper=ledgerctl.in_world()) == (
            LOCAL, b"", b"ledgerctl: written, but not synced: /var/lib/plinthware: No such file or directory\n")
    finally:
        (world.path / "elsewhere").rename(world.registry.parent)


def test_registry_far_larger_than_any(ledgerctl, world):
    names = [f"name{number:05}" for number in range(10000)]
    answers = {"SectionList": [names], "ReadAllJson": [json.dumps({"s": dict.fromkeys(names, "v")})]}
    with fake_daemon(world.bus, lambda call: answers[call.fields[MEMBER_FIELD]]):
        assert ledgerctl.output("list").decode().split() == names
        assert ledgerctl.output("show").decode().split() == ["[s]", *(name + "=v" for name in names)]
        assert json.loads(ledgerctl.output("dump")) == json.loads(answers["ReadAllJson"][0])


def test_reader_that_goes_ends_it_as_any_filter(ledgerctl, client):
    client.write_json(json.dumps({"s": {f"key{number}": "v" * 8 for number in range(500)}}))
    reader, writer = os.pipe()
    os.close(reader)
    assert ledgerctl.run("show", stdout=writer)[::2] == (-signal.SIGPIPE, b"")
    # Where the signal is ignored the failure is told.
    assert ledgerctl.run("show", stdout=writer, wrapper=("env", "--ignore-signal=PIPE"))[::2] == (
        LOCAL, b"ledgerctl: standard output: Broken pipe\n")
    os.close(writer)


@pytest.mark.parametrize("command", [("get", "s", "k"), ("list",), ("show",), ("dump",), ("usage",), ("help",),
                                     ("--version",)], ids=str)
def test_full_disk(ledgerctl, client, command):
    client.write("s", "k", "v")
    with open("/dev/full", "wb") as full:
        assert ledgerctl.run(*command, stdout=full)[::2] == (
            LOCAL, b"ledgerctl: standard output: No space left on device\n")


def test_closed_streams(ledgerctl, client):
    """No connection or file takes their place."""
    client.write("s", "k", "v")
    closing = ("sh", "-c", 'exec "$@" >&-', "sh")
    assert ledgerctl.run("get", "s", "k", wrapper=closing)[::2] == (
        LOCAL, b"ledgerctl: standard output: Bad file descriptor\n")
    closing_all = ("sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh")
    assert ledgerctl.run("get", "s", "k", wrapper=closing_all)[0] == LOCAL
    assert ledgerctl.run("set", "s", "k", "w", wrapper=closing_all)[0] == 0
    assert client.read("s", "k") == "w"


@needs_strace
@pytest.mark.parametrize("value, calls", [("v", 1), ("", 2)], ids=["value", "empty value"])
def test_get_asks_no_more_than_it_must(ledgerctl, client, value, calls):
    client.write("s", "k", value)
    log = ledgerctl.world.path / "calls"
    ledgerctl.output("get", "s", "k", wrapper=(
        *observe.without_leak_check(), "strace", "-o", str(log), "-e", "trace=sendmsg"))
    greeting = 1
    assert log.read_text().count("sendmsg(") == greeting + calls
