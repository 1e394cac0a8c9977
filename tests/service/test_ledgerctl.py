"""The client and the real daemon: each method, and pipes, shells, closed streams and the file system."""

import json
import os
import re
import signal
import subprocess

import pytest

from world.ledgerctl import DAEMON_ERROR, LOCAL, failure, fake_daemon, traced
from world.observe import needs_strace
from world.raw_client import MEMBER_FIELD

# Section "a" has a key "b" and section "b" a key "a", so that swapped names show.
REGISTRY = {"a": {"b": "1", "c": "2"}, "b": {"a": "3"}}
DOCUMENT = b'{"a":{"b":"new"},"b":null}'

# A command that needs the method, its output, and the registry afterwards.
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


def test_each_method(ledgerctl, world, client):
    for method, (command, output, registry) in METHODS.items():
        client.delete_all()
        for section, keys in REGISTRY.items():
            for key, value in keys.items():
                client.write(section, key, value)
        world.registry.unlink(missing_ok=True)
        assert ledgerctl.output(*command, input=DOCUMENT) == output, method
        assert json.loads(client.read_all_json()) == registry, method
        # Only these two write the file at once.
        assert world.registry.exists() == (method in ("WriteJson", "Flush")), method


def test_replies_of_another_service_that_has_the_daemons_name(ledgerctl, world):
    """Replies of other types are refused. A method without a reply succeeds."""
    with fake_daemon(world.bus, lambda call: [7]):
        for method in ("ReadAllJson", "Read", "KeyExists", "SectionExists", "SectionList", "KeyList"):
            assert ledgerctl.run(*METHODS[method][0]) == failure(
                DAEMON_ERROR, b"unexpected reply: the owner of the daemon's bus name is not ledgerd"), method
        for method in ("WriteJson", "Write", "DeleteAll", "Flush"):
            assert ledgerctl.output(*METHODS[method][0], input=DOCUMENT) == b"", method


def test_registry_far_larger_than_the_daemons(ledgerctl, world):
    names = [f"name{number:05}" for number in range(10000)]
    answers = {"SectionList": [names], "ReadAllJson": [json.dumps({"s": dict.fromkeys(names, "v")})]}
    with fake_daemon(world.bus, lambda call: answers[call.fields[MEMBER_FIELD]]):
        assert ledgerctl.output("list").decode().split() == names
        assert ledgerctl.output("show").decode().split() == ["[s]", *(name + "=v" for name in names)]


def test_shell_reads_the_output_of_show(ledgerctl, client):
    """`get` and `list -0` print the same unchanged."""
    name = "".join(map(chr, range(1, 128)))
    value = name + "\u00e9\u20ac\U0001f3b5"
    client.write(name, "k", value)
    name = name.lower().encode()
    assignment = ledgerctl.output("show", "--", name).partition(b"']\n")[2]
    assert subprocess.run(["bash", "-c", assignment + b'printf %s "$k"'], stdout=subprocess.PIPE, check=True
                          ).stdout == value.encode()
    assert ledgerctl.output("get", "--", name, "k") == value.encode() + b"\n"
    assert ledgerctl.output("-0", "list") == name + b"\0"


def test_value_that_only_json_can_carry(ledgerctl, client):
    client.write_json('{"s":{"k":"a\\u0000b"}}')
    refused = failure(DAEMON_ERROR, b"D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte")
    assert ledgerctl.run("get", "s", "k") == refused
    assert ledgerctl.run("show", "s") == refused
    assert ledgerctl.output("show") == b"[s]\nk=$'a\\x00b'\n"


def test_value_that_json_cannot_carry(ledgerctl, world):
    """The file was edited by hand."""
    world.registry.write_bytes(b"[s]\nbad=\xff\ngood=1\n[t]\nk=2\n")
    world.start()
    assert ledgerctl.run("dump") == failure(
        DAEMON_ERROR, b"No JSON: value of key 'bad' in section 's' is not UTF-8")
    assert ledgerctl.output("show", "t") == b"[t]\nk=2\n"
    assert ledgerctl.output("get", "s", "good") == b"1\n"


NOT_SYNCED = b"written, but not synced: /var/lib/plinthware: "


@needs_strace
@pytest.mark.parametrize("options, expected", [
    ((), (0, b"", b"")),
    (("-e", "inject=syncfs:error=EIO"), failure(LOCAL, NOT_SYNCED + b"Input/output error")),
], ids=["success", "failure"])
def test_flush_syncs_the_file_system_of_the_store(ledgerctl, world, client, options, expected):
    client.write("s", "k", "v")
    log = world.path / "calls"
    wrapper = (*ledgerctl.in_world(), *traced("-e", "trace=syncfs", *options, log=log))
    assert ledgerctl.run("flush", "--sync", wrapper=wrapper) == expected
    assert re.match(r"syncfs\(\d+<[^>]*/plinthware>\) += ", log.read_text()), log.read_text()
    assert world.registry_bytes() == b"[s]\nk=v\n"


def test_flush_reports_that_there_is_nothing_to_sync(ledgerctl, world, client):
    elsewhere = world.registry.parent.rename(world.path / "elsewhere")
    assert ledgerctl.run("flush", "--sync", wrapper=ledgerctl.in_world()) == failure(
        LOCAL, NOT_SYNCED + b"No such file or directory")
    elsewhere.rename(world.registry.parent)


@needs_strace
def test_get_of_a_value_makes_one_call(ledgerctl, client):
    client.write("s", "k", "v")
    log = ledgerctl.world.path / "calls"
    ledgerctl.output("get", "s", "k", wrapper=traced("-e", "trace=sendmsg", log=log))
    greeting = 1
    assert log.read_text().count("sendmsg(") == greeting + 1


def test_end_of_the_reader_ends_it_with_sigpipe(ledgerctl, client):
    client.write("s", "k", "v")
    reader, writer = os.pipe()
    os.close(reader)
    assert ledgerctl.run("show", stdout=writer)[::2] == (-signal.SIGPIPE, b"")
    assert ledgerctl.run("show", stdout=writer, wrapper=("env", "--ignore-signal=PIPE"))[::2] == (
        LOCAL, b"ledgerctl: standard output: Broken pipe\n")
    os.close(writer)


def test_closed_streams_stay_closed(ledgerctl, client):
    """No connection or file takes their place."""
    client.write("s", "k", "v")
    closing = ("sh", "-c", 'exec "$@" >&-', "sh")
    assert ledgerctl.run("get", "s", "k", wrapper=closing)[::2] == (
        LOCAL, b"ledgerctl: standard output: Bad file descriptor\n")
    closing_all = ("sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh")
    assert ledgerctl.run("get", "s", "k", wrapper=closing_all)[0] == LOCAL
    assert ledgerctl.run("set", "s", "k", "w", wrapper=closing_all)[0] == 0
    assert client.read("s", "k") == "w"
