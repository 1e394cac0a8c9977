"""The twelve methods on the wire: their description, arguments, replies and errors. The rules of sections and keys have
unit tests."""

import contextlib
import json
import os
import subprocess
import xml.etree.ElementTree

import pytest

from attacked import (CONTENT_JSON, EXCEPTION, FULL, INVALID_JSON, INVALID_NAME, check_served_and_untouched,
                      check_syntax_error, fill)
from world.harness import BUS_NAME, CAPACITY, INTERFACE, OBJECT_PATH, PATIENCE
from world.raw_client import ERROR, METHOD_RETURN, NO_REPLY_EXPECTED, RawClient

INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
INVALID_ARGUMENTS = ("org.freedesktop.DBus.Error.InvalidArgs", "type mismatch")
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"

# Name; arguments, all of them strings; result with its type.
METHODS = [
    ("Read", ["section", "key"], ("value_ret", "s")),
    ("Write", ["section", "key", "value"], None),
    ("DeleteKey", ["section", "key"], None),
    ("DeleteSection", ["section"], None),
    ("DeleteAll", [], None),
    ("Flush", [], None),
    ("KeyExists", ["section", "key"], ("exists_ret", "b")),
    ("SectionExists", ["section"], ("exists_ret", "b")),
    ("SectionList", [], ("sections_ret", "as")),
    ("KeyList", ["section"], ("keys_values_ret", "a{ss}")),
    ("ReadAllJson", [], ("registry_ret", "s")),
    ("WriteJson", ["registry"], None),
]
VALID = {"section": "s", "key": "k", "value": "v", "registry": "{}"}

each_method = pytest.mark.parametrize("member, inputs, output", METHODS, ids=[row[0] for row in METHODS])


@pytest.fixture(scope="module")
def lasting_client(lasting_world):
    with contextlib.closing(lasting_world.start().client()) as client:
        yield client


@pytest.fixture
def client(lasting_client):
    """One daemon serves all tests; each test finds the same content."""
    lasting_client.delete_all()
    fill(lasting_client)
    return lasting_client


@pytest.fixture
def unchanged(lasting_world, client):
    """A client whose calls must change neither the registry nor the file."""
    yield client
    check_served_and_untouched(lasting_world, client)


@pytest.fixture
def raw(lasting_world, client):
    with contextlib.closing(RawClient(lasting_world.bus)) as raw:
        yield raw


def test_introspection_lists_exactly_the_twelve_methods(client):
    node = xml.etree.ElementTree.fromstring(client.call("Introspect", interface=INTROSPECTABLE))
    assert node.get("name") == OBJECT_PATH
    assert sorted((child.tag, child.get("name")) for child in node) == [("interface", INTERFACE),
                                                                        ("interface", INTROSPECTABLE)]
    described = [(method.tag, method.get("name"),
                  [(argument.tag, *map(argument.get, ("name", "type", "direction"))) for argument in method])
                 for method in node.find(f"interface[@name='{INTERFACE}']")]
    assert described == [("method", member, [*(("arg", argument, "s", "in") for argument in inputs),
                                             *([("arg", *output, "out")] if output else [])])
                         for member, inputs, output in METHODS]


@each_method
def test_reply_has_the_described_type_with_and_without_an_interface(client, raw, member, inputs, output):
    replies = []
    for interface in (INTERFACE, None):
        fill(client)
        replies.append(raw.call(member, *map(VALID.get, inputs), interface=interface))
        assert replies[-1].kind == METHOD_RETURN
        assert replies[-1].signature == (output[1] if output else "")
        assert output or replies[-1].body == b""
    assert replies[0].body == replies[1].body


def test_introspection_may_leave_out_the_interface(raw):
    named, unnamed = (raw.call("Introspect", interface=interface) for interface in (INTROSPECTABLE, None))
    assert (unnamed.kind, unnamed.body) == (METHOD_RETURN, named.body)


@each_method
def test_missing_and_mistyped_arguments_are_refused(unchanged, member, inputs, output):
    count = len(inputs)
    for given in range(count):
        assert unchanged.error(member, *["s"] * given) == INVALID_ARGUMENTS, given
    for position in range(count):
        for signature, value in [("u", 7), ("as", ["s"]), ("ay", b"s"), ("o", "/s"), ("g", "s"), ("v", "s"),
                                 ("b", True), ("a{ss}", {"s": "k"}), ("(s)", ("s",))]:
            arguments = ["s"] * position + [value] + ["s"] * (count - position - 1)
            signatures = "s" * position + signature + "s" * (count - position - 1)
            assert unchanged.error(member, *arguments, signature=signatures) == INVALID_ARGUMENTS, signatures


@each_method
def test_surplus_arguments_are_ignored(client, member, inputs, output):
    arguments = list(map(VALID.get, inputs))
    expected = client.call(member, *arguments)
    fill(client)
    signature = "s" * len(inputs) + "sua{ss}"
    assert client.call(member, *arguments, "more", 7, {"a": "b"}, signature=signature) == expected


@pytest.mark.parametrize("member", ["Nothing", "read", "READ", "Introspect", "Get", "GetAll", "Set"])
def test_error_names_an_unknown_method(unchanged, member):
    assert unchanged.error(member) == (UNKNOWN_METHOD, member)


@pytest.mark.parametrize("options", [
    {"interface": "com.tavimesh.registry"},
    {"interface": "com.tavimesh.Other"},
    {"interface": "org.freedesktop.DBus.Properties"},
    {"path": "/com/tavimesh/registry"},
    {"path": "/com/tavimesh/Registry/s"},
    {"path": "/com/tavimesh"},
    {"path": "/"},
], ids=lambda options: " ".join(options.values()))
def test_unknown_interface_or_path_has_no_such_method(unchanged, options):
    interface = options.get("interface", INTERFACE)
    text = f'Method "Read" with signature "ss" on interface "{interface}" doesn\'t exist\n'
    assert unchanged.error("Read", "s", "k", **options) == (UNKNOWN_METHOD, text)


def test_errors_of_calls_without_an_interface(raw):
    assert raw.call("Read", "\u00e9", "k", interface=None).error == INVALID_NAME
    assert raw.call("Read", "s", interface=None).error == INVALID_ARGUMENTS
    text = 'Method "Nothing" with signature "" on interface "(null)" doesn\'t exist\n'
    assert raw.call("Nothing", interface=None).error == (UNKNOWN_METHOD, text)


@pytest.mark.parametrize("member, inputs", [row[:2] for row in METHODS if "section" in row[1]])
def test_invalid_section_or_key_name_is_refused(unchanged, member, inputs):
    for argument in {"section", "key"}.intersection(inputs):
        arguments = {**VALID, argument: "caf\u00e9"}
        assert unchanged.error(member, *map(arguments.get, inputs)) == INVALID_NAME, argument


@pytest.mark.parametrize("text, error", [
    ('{"a":{"k":"v"},"caf\u00e9":null}', INVALID_NAME),
    ('{"a":{"k":"v"},"s":{"\u0080":"v"}}', INVALID_NAME),
    ("[]", INVALID_JSON),
    ('{"a":null,"s":null,"b":{"a":"v","k":5}}', INVALID_JSON),
    ('{"a":{"k":[18446744073709551616,-9223372036854775809,-1e-99999999999]}}', INVALID_JSON),
    ('{"a":{"k":0.' + "1" * 4000 + "}}", INVALID_JSON),
    (json.dumps({"s": None, "a": {"k": "small"}, "t": {"k": "x" * CAPACITY}}), FULL),
], ids=["section name", "key name", "array", "number", "numbers out of range", "long number", "too large"])
def test_refused_import_changes_nothing(unchanged, text, error):
    assert unchanged.error("WriteJson", text) == error


# Errors that the unit tests of the parser do not have, some of them after valid or refused members.
SYNTAX_ERRORS = [
    "", "\n", "{]", "]", ",", ":", '{"a"=1}', "tru", "TRUE", "None", "undefined", "Infinity", "--1", "1.e3", "-01",
    "1_000", "'a'", '"\\ud800x"', '"\\"', '"\t"', '"\x01"', '{"a\x1f":{}}', "#\n{}", "{}//", "[1e400", '{"\u00e9":5',
    '{"a":5}}', '{"s":null', '{"s":null}x', '{"\u00e9":{}', '{"s":null,"a":5,"\u00e9":{}', "caf\u00e9", "\u20ac",
    '{"\u00e9" \u00e9', "\ufeff", "\u00a0{}", "{}\u00a0",
]


def test_syntax_error_has_the_parsers_text_in_ascii(unchanged):
    for text in SYNTAX_ERRORS:
        check_syntax_error(unchanged.error("WriteJson", text))


def test_file_of_16383_bytes_is_written_and_one_byte_more_is_refused(lasting_world, client):
    value = "x" * (CAPACITY - len("[s]\nk=\n"))
    client.write("s", "k", value)
    client.flush()
    assert len(lasting_world.registry_bytes()) == CAPACITY
    assert client.error("Write", "s", "k", value + "x") == FULL
    assert client.read("s", "k") == value


def test_calls_that_want_no_reply_get_none(lasting_world, raw):
    rows = [
        (("Write", "s", "k", "new"), '{"s":{"k":"new"}}'),
        (("Read", "s", "k"), CONTENT_JSON),
        (("WriteJson", '{"t":{"k":"w"}}'), '{"s":{"k":"v"},"t":{"k":"w"}}'),
        (("Read", "\u00e9", "k"), CONTENT_JSON),
        (("WriteJson", "[]"), CONTENT_JSON),
        (("WriteJson", "["), CONTENT_JSON),
        (("Write", "s", "k", "x" * CAPACITY), CONTENT_JSON),
        (("Write", "s", "k"), CONTENT_JSON),
        (("Nothing",), CONTENT_JSON),
    ]
    # The bus drops a reply that nobody waits for; only a monitor can see it.
    with contextlib.closing(RawClient(lasting_world.bus)) as monitor:
        monitor.become_monitor()
        for (call, after), interface in [(row, interface) for row in rows for interface in (INTERFACE, None)]:
            raw.call("WriteJson", '{"s":{"k":"v"},"t":null}')
            silent = raw.send(*call, interface=interface, flags=NO_REPLY_EXPECTED)
            following = raw.send("ReadAllJson")
            reply = raw.receive()
            assert (reply.reply_serial, reply.string()) == (following, after), call
            answered = []
            while following not in answered:
                message = monitor.receive()
                if message.kind in (METHOD_RETURN, ERROR) and message.sender == reply.sender:
                    answered.append(message.reply_serial)
            assert silent not in answered, call


def test_clients_get_their_own_replies(lasting_world, raw):
    with contextlib.closing(RawClient(lasting_world.bus)) as other:
        failing = raw.send("Read", "\u00e9", "k")
        assert other.call("Read", "s", "k").string() == "v"
        reply = raw.receive()
        assert (reply.reply_serial, reply.error) == (failing, INVALID_NAME)


# A file with strings that no reply can contain; the calls that fail, with their messages; calls that work.
UNCARRIABLE = {
    "not UTF-8": (
        b"[a\x80]\nk=v\n[s]\nk=a\xff\xfeb\nl=fine\n[t]\n\xc3\x28=v\n", [
            (("Read", "S", "K"), "D-Bus cannot carry the value of key 'K' in section 'S': it is not UTF-8"),
            (("KeyList", "s"), "D-Bus cannot carry the value of key 'k' in section 's': it is not UTF-8"),
            (("KeyList", "t"), "D-Bus cannot carry the name of key '%c3(' in section 't': it is not UTF-8"),
            (("SectionList",), "D-Bus cannot carry the name of section 'a%80': it is not UTF-8"),
            (("ReadAllJson",), "No JSON: name of section 'a%80' is not UTF-8")],
        [("Read", "s", "l"), ("KeyExists", "s", "k"), ("SectionExists", "t")]),
    "NUL": (
        b"[%00]\nk=v\n[s]\nk=a%00b\n[t]\na%00%0a%25=v\n", [
            (("Read", "s", "k"), "D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte"),
            (("KeyList", "s"), "D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte"),
            (("KeyList", "t"), "D-Bus cannot carry the name of key 'a%00%0a%25' in section 't': it holds a NUL byte"),
            (("SectionList",), "D-Bus cannot carry the name of section '%00': it holds a NUL byte")],
        [("ReadAllJson",)]),
}


@pytest.mark.parametrize("content, failing, working", UNCARRIABLE.values(), ids=UNCARRIABLE.keys())
def test_string_that_no_reply_can_contain_is_an_error_and_stays_unchanged(world, content, failing, working):
    world.registry.write_bytes(content)
    with contextlib.closing(world.start().client()) as client:
        for call, message in failing:
            assert client.error(*call) == (EXCEPTION, message), call
        for call in working:
            client.call(*call)
        client.write("z", "k", "v")
        client.flush()
    # A NUL byte needs no escape in the file.
    assert world.registry_bytes() == content.replace(b"%00", b"\0") + b"[z]\nk=v\n"


# What gdbus and busctl print for each kind of reply, and for an error.
PRINTED = {
    ("Read", "NET", "A"): ("('x y',)\n", 's "x y"\n'),
    ("KeyList", "net"): ("({'a': 'x y', 'b': '1'},)\n", 'a{ss} 2 "a" "x y" "b" "1"\n'),
    ("KeyList", "nowhere"): ("(@a{ss} {},)\n", "a{ss} 0\n"),
    ("SectionList",): ("(['net'],)\n", 'as 1 "net"\n'),
    ("SectionExists", "net"): ("(true,)\n", "b true\n"),
    ("KeyExists", "net", "c"): ("(false,)\n", "b false\n"),
    ("ReadAllJson",): ("('{\"net\":{\"a\":\"x y\",\"b\":\"1\"}}',)\n",
                       's "{\\"net\\":{\\"a\\":\\"x y\\",\\"b\\":\\"1\\"}}"\n'),
    ("Write", "net", "b", "1"): ("()\n", ""),
    ("WriteJson", "[]"): ("Error: GDBus.Error:com.tavimesh.Registry.Errors.InvalidJson: Invalid Json\n",
                          "Call failed: Invalid Json\n"),
}


@pytest.mark.parametrize("call, printed", PRINTED.items(), ids=[" ".join(call) for call in PRINTED])
def test_tools_of_other_client_libraries_print_the_reply(lasting_world, client, call, printed):
    client.write_json('{"s":null,"net":{"b":"1","a":"x y"}}')
    member, *arguments = call
    signature = ["s" * len(arguments)] if arguments else []
    commands = [["gdbus", "call", "--system", "--dest", BUS_NAME, "--object-path", OBJECT_PATH, "--method",
                 f"{INTERFACE}.{member}", *arguments],
                ["busctl", "--system", "call", BUS_NAME, OBJECT_PATH, INTERFACE, member, *signature, *arguments]]
    for command, text in zip(commands, printed):
        done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE, check=False,
                              env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": lasting_world.bus.address})
        expected = (1, "", text) if call[-1] == "[]" else (0, text, "")
        assert (done.returncode, done.stdout, done.stderr) == expected, command
