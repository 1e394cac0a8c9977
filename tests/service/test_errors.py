"""What a caller is told when a call fails, and that a failed call changes nothing."""

import json

import dbus
import pytest

from world.harness import CAPACITY, ERROR_PREFIX, INTERFACE, OBJECT_PATH
from world.raw_client import (ERROR, METHOD_RETURN, NO_REPLY_EXPECTED, RawClient)

INVALID_ARGUMENTS = ("org.freedesktop.DBus.Error.InvalidArgs", "type mismatch")
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
INVALID_NAME = (ERROR_PREFIX + "InvalidName", "Invalid Name")
INVALID_JSON = (ERROR_PREFIX + "InvalidJson", "Invalid Json")
FULL = (ERROR_PREFIX + "Full", "Full")
EXCEPTION = ERROR_PREFIX + "Exception"
SYNTAX_ERROR = "parse error - unexpected "

# The number of strings that each method takes.
ARGUMENT_COUNTS = {"Read": 2, "Write": 3, "DeleteKey": 2, "DeleteSection": 1, "DeleteAll": 0, "Flush": 0,
                   "KeyExists": 2, "SectionExists": 1, "SectionList": 0, "KeyList": 1, "ReadAllJson": 0, "WriteJson": 1}


@pytest.fixture
def filled(world, client):
    """A client of a registry with a little in it; a failed call must leave both the registry and the file alone."""
    client.write("s", "k", "v")
    client.flush()
    yield client
    assert client.read_all_json() == '{"s":{"k":"v"}}'
    client.flush()
    assert world.registry_bytes() == b"[s]\nk=v\n"


@pytest.fixture
def raw(world, daemon):
    raw = RawClient(world.bus)
    yield raw
    raw.close()


def wrong_arguments():
    for member, count in ARGUMENT_COUNTS.items():
        for given in range(count):
            yield f"{member} with {given} of {count}", member, ["s"] * given, "s" * given
        for position in range(count):
            for signature, value in [("u", 7), ("as", ["s"]), ("ay", b"s"), ("o", "/s"), ("g", "s"), ("v", "s"),
                                     ("b", True), ("a{ss}", {"s": "k"}), ("(s)", ("s",))]:
                arguments = ["s"] * position + [value] + ["s"] * (count - position - 1)
                signatures = "s" * position + signature + "s" * (count - position - 1)
                yield f"{member} with {signature} at {position}", member, arguments, signatures


def test_missing_and_mistyped_arguments_are_refused_by_the_library(filled):
    for name, member, arguments, signature in wrong_arguments():
        assert filled.error(member, *arguments, signature=signature) == INVALID_ARGUMENTS, name


def test_call_without_its_arguments_never_reaches_the_registry(filled):
    assert filled.error("Write", "new", "k") == INVALID_ARGUMENTS
    assert not filled.section_exists("new")
    assert filled.error("Write", "\u00e9", "k") == INVALID_ARGUMENTS, "the name is not looked at either"


@pytest.mark.parametrize("member", ARGUMENT_COUNTS)
def test_surplus_arguments_are_ignored(client, member):
    arguments = ["{}" if member == "WriteJson" else "s"] * ARGUMENT_COUNTS[member]
    expected = client.call(member, *arguments)
    signature = "s" * len(arguments) + "sua{ss}"
    assert client.call(member, *arguments, "more", 7, {"a": "b"}, signature=signature) == expected


@pytest.mark.parametrize("member", ["Nothing", "read", "READ", "Introspect", "Get", "GetAll", "Set"])
def test_unknown_method_is_named(filled, member):
    assert filled.error(member) == (UNKNOWN_METHOD, member)


@pytest.mark.parametrize("options", [
    {"interface": "com.tavimesh.registry"},
    {"interface": "com.tavimesh.Other"},
    {"interface": "org.freedesktop.DBus.Properties"},
    {"path": "/com/tavimesh/registry"},
    {"path": "/com/tavimesh/Registry/s"},
    {"path": "/com/tavimesh"},
    {"path": "/"},
], ids=lambda options: " ".join(options.values()))
def test_unknown_interface_or_path_has_no_such_method(filled, options):
    interface = options.get("interface", INTERFACE)
    text = f'Method "Read" with signature "ss" on interface "{interface}" doesn\'t exist\n'
    assert filled.error("Read", "s", "k", **options) == (UNKNOWN_METHOD, text)


@pytest.mark.parametrize("member, arguments, signature", [
    ("Read", ["s", "k"], "s"), ("Write", ["t", "k", "v"], ""), ("DeleteKey", ["s", "k"], ""),
    ("DeleteSection", ["s"], ""), ("DeleteAll", [], ""), ("Flush", [], ""), ("KeyExists", ["s", "k"], "b"),
    ("SectionExists", ["s"], "b"), ("SectionList", [], "as"), ("KeyList", ["s"], "a{ss}"), ("ReadAllJson", [], "s"),
    ("WriteJson", ["{}"], ""), ("Introspect", [], "s")])
def test_interface_may_be_left_out(raw, member, arguments, signature):
    assert raw.call("Write", "s", "k", "v").kind == METHOD_RETURN
    interface = "org.freedesktop.DBus.Introspectable" if member == "Introspect" else INTERFACE
    # Deletions and writes are repeated here, so both calls must find the same registry.
    named = raw.call(member, *arguments, interface=interface)
    assert raw.call("Write", "s", "k", "v").kind == METHOD_RETURN
    unnamed = raw.call(member, *arguments, interface=None)
    assert (unnamed.kind, unnamed.signature) == (METHOD_RETURN, signature)
    assert unnamed.body == named.body


def test_call_without_interface_takes_effect(raw):
    assert raw.call("Write", "s", "k", "v", interface=None).kind == METHOD_RETURN
    assert raw.call("Read", "s", "k").string() == "v"
    assert raw.call("DeleteSection", "s", interface=None).kind == METHOD_RETURN
    assert raw.call("ReadAllJson").string() == "{}"


def test_errors_of_calls_without_interface(raw):
    assert raw.call("Read", "\u00e9", "k", interface=None).error == INVALID_NAME
    assert raw.call("Read", "s", interface=None).error == INVALID_ARGUMENTS
    unknown = 'Method "Nothing" with signature "" on interface "(null)" doesn\'t exist\n'
    assert raw.call("Nothing", interface=None).error == (UNKNOWN_METHOD, unknown)


INVALID_NAMES = {"latin": "caf\u00e9", "first byte": "\u0080", "capital": "\u00c9", "emoji": "\U0001f3b5",
                 "last byte": "x" * 300 + "\u00ff"}


@pytest.mark.parametrize("name", INVALID_NAMES.values(), ids=INVALID_NAMES.keys())
def test_invalid_name_is_refused_whatever_it_is(filled, name):
    for member in ["Read", "KeyExists", "DeleteKey"]:
        assert filled.error(member, name, "k") == INVALID_NAME, member
        assert filled.error(member, "s", name) == INVALID_NAME, member
    for member in ["SectionExists", "KeyList", "DeleteSection"]:
        assert filled.error(member, name) == INVALID_NAME, member
    assert filled.error("Write", name, "k", "v") == INVALID_NAME
    assert filled.error("Write", "s", name, "v") == INVALID_NAME
    for text in [{name: {}}, {name: None}, {name: 5}, {"a": {"k": "v"}, "s": {name: "v"}}, {"a": {name: None}},
                 {"a": {name: 5}}]:
        assert filled.error("WriteJson", json.dumps(text)) == INVALID_NAME, text


@pytest.mark.parametrize("section, key, value", [("s", "k", "x" * CAPACITY), ("s", "x" * CAPACITY, ""),
                                                 ("x" * CAPACITY, "k", ""), ("t", "k", "\u00e9" * (CAPACITY // 2)),
                                                 ("t", "k", "%" * (CAPACITY // 3))],
                         ids=["value", "key", "section", "bytes not characters", "escaped"])
def test_what_does_not_fit_is_refused(filled, section, key, value):
    assert filled.error("Write", section, key, value) == FULL
    assert filled.error("WriteJson", json.dumps({section: {key: value}}, ensure_ascii=False)) == FULL


REFUSED_JSON = ["[]", "[[]]", '""', '"text"', "0", "-1", "1.5", "1e3", "1e400", "-1e400", "true", "false", "null",
                '["a"]', '[{"a":{}}]']
REFUSED_VALUES = ["5", "-5", "0.5", "1e400", "true", "false", "[]", '["v"]', "[[]]"]


def invalid_json_rows():
    yield from REFUSED_JSON
    for value in [*REFUSED_VALUES, '"text"', '""']:
        yield f'{{"b":{value}}}'
        yield f'{{"a":{{"k":"v"}},"b":{value}}}'
        yield f'{{"b":{value},"z":{{"\u00e9":null}}}}'
    for value in [*REFUSED_VALUES, "{}", '{"v":"w"}', '{"v":null}']:
        yield f'{{"b":{{"k":{value}}}}}'
        yield f'{{"a":null,"s":null,"b":{{"a":"v","k":{value}}}}}'
        yield f'{{"b":{{"k":{value},"z\u00e9":"v"}}}}'


def test_json_of_another_shape_is_refused_whole(filled):
    for text in invalid_json_rows():
        assert filled.error("WriteJson", text) == INVALID_JSON, text


def test_first_failure_in_name_order_is_the_one_reported(filled):
    for text, expected in [('{"\u00e9":{},"a":5}', INVALID_JSON), ('{"b":5,"a":{"\u00e9":"v"}}', INVALID_NAME),
                           ('{"a":{"z":5,"\u00e9":"v"}}', INVALID_JSON), ('{"a":{"\u00e9":5}}', INVALID_NAME),
                           ('{"\u00e9":5}', INVALID_NAME), ('{"B":{"\u00e9":"v"},"a":5}', INVALID_NAME)]:
        assert filled.error("WriteJson", text) == expected, text


SYNTAX_ERRORS = [
    "", " ", "\n", "{", "[", '"', "{]", "[}", "}", "]", ",", ":", "{,}", "[,]", "[1,]", '{"a":{},}', '{"a"}', '{"a":',
    '{"a":}', '{"a" 1}', '{"a"=1}', "{a:1}", "{'a':1}", "{1:2}", '{"a":{"k":"v"}', '{"a":{"k":"v"}},', "{}{}", "{} x",
    "[1 2]", '{"a":{} "b":{}}', "tru", "True", "TRUE", "nul", "NULL", "None", "nil", "undefined", "NaN", "Infinity",
    "-Infinity", "-", "--1", "+1", ".5", "1.", "1.e3", "1e", "1e+", "01", "-01", "0x10", "1_000", "'a'",
    '"\\x"', '"\\u12"', '"\\u12g4"', '"\\ud800"', '"\\ud800x"', '"\\ud800\\u0041"', '"\\udc00"', '"\\"', '"\t"',
    '"\n"', '"\x01"', '{"a\x1f":{}}', "/**/{}", "//\n{}", "#\n{}", "{}//", "[1e400", "[1e400,", '{"\u00e9":5',
    '{"a":1e400', '{"a":5}}', '{"s":null', '{"s":null}x', "caf\u00e9", "\u20ac", '"\u00e9',
    '{"\u00e9" \u00e9', "\ufeff", "\u00a0{}", "{}\u00a0",
]


def test_syntax_error_carries_the_parsers_text(filled):
    for text in SYNTAX_ERRORS:
        name, message = filled.error("WriteJson", text)
        assert name == EXCEPTION, text
        assert message.startswith(SYNTAX_ERROR), text
        assert len(message) > len(SYNTAX_ERROR), text
        assert message.isascii(), text


def test_syntax_error_wins_over_a_wrong_shape_and_a_bad_name(filled):
    for text in ["[1", '{"a":5', '{"\u00e9":{}', '{"s":null,"a":5,"\u00e9":{}']:
        name, message = filled.error("WriteJson", text)
        assert name == EXCEPTION and message.startswith(SYNTAX_ERROR), text


# Calls without a wish for a reply, and the registry after them.
SILENT_CALLS = {
    "effect": (("Write", "s", "k", "new"), '{"s":{"k":"new"}}'),
    "value": (("Read", "s", "k"), '{"s":{"k":"v"}}'),
    "import": (("WriteJson", '{"t":{"k":"w"}}'), '{"s":{"k":"v"},"t":{"k":"w"}}'),
    "invalid name": (("Read", "\u00e9", "k"), '{"s":{"k":"v"}}'),
    "invalid JSON": (("WriteJson", "[]"), '{"s":{"k":"v"}}'),
    "syntax error": (("WriteJson", "["), '{"s":{"k":"v"}}'),
    "full": (("Write", "s", "k", "x" * CAPACITY), '{"s":{"k":"v"}}'),
    "missing argument": (("Write", "s", "k"), '{"s":{"k":"v"}}'),
    "unknown method": (("Nothing",), '{"s":{"k":"v"}}'),
}


@pytest.mark.parametrize("interface", [INTERFACE, None], ids=["interface", "no interface"])
@pytest.mark.parametrize("call, after", SILENT_CALLS.values(), ids=SILENT_CALLS.keys())
def test_call_that_wants_no_reply_gets_none(world, raw, call, after, interface):
    assert raw.call("Write", "s", "k", "v").kind == METHOD_RETURN
    # The bus would drop a reply that nobody waits for, so only a monitor can tell that none was sent.
    monitor = RawClient(world.bus)
    monitor.become_monitor()
    silent = raw.send(*call, interface=interface, flags=NO_REPLY_EXPECTED)
    following = raw.send("ReadAllJson")
    reply = raw.receive()
    assert (reply.reply_serial, reply.string()) == (following, after)

    answered = []
    while following not in answered:
        message = monitor.receive()
        if message.kind in (METHOD_RETURN, ERROR) and message.sender == reply.sender:
            answered.append(message.reply_serial)
    assert silent not in answered
    monitor.close()


# A file that somebody has edited, or that an import has filled: what the bus cannot carry of it, and the errors that
# say so. The registry's own name for the culprit is printed with its odd bytes escaped.
UNCARRIABLE = {
    "value is not UTF-8": (
        b"[s]\nk=a\xff\xfeb\nl=fine\n", [
            (("Read", "s", "k"), "D-Bus cannot carry the value of key 'k' in section 's': it is not UTF-8"),
            (("Read", "S", "K"), "D-Bus cannot carry the value of key 'K' in section 'S': it is not UTF-8"),
            (("KeyList", "s"), "D-Bus cannot carry the value of key 'k' in section 's': it is not UTF-8"),
            (("ReadAllJson",), "No JSON: value of key 'k' in section 's' is not UTF-8")],
        [("Read", "s", "l"), ("SectionList",), ("KeyExists", "s", "k")]),
    "value breaks off in a character": (
        b"[s]\nk=\xe2\x82\n", [
            (("Read", "s", "k"), "D-Bus cannot carry the value of key 'k' in section 's': it is not UTF-8"),
            (("ReadAllJson",), "No JSON: value of key 'k' in section 's' is not UTF-8")],
        [("SectionList",)]),
    "value is a surrogate": (
        b"[s]\nk=\xed\xa0\x80\n", [
            (("Read", "s", "k"), "D-Bus cannot carry the value of key 'k' in section 's': it is not UTF-8"),
            (("ReadAllJson",), "No JSON: value of key 'k' in section 's' is not UTF-8")],
        [("SectionList",)]),
    "value holds an escaped NUL": (
        b"[s]\nk=a%00b\n", [
            (("Read", "s", "k"), "D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte"),
            (("KeyList", "s"), "D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte")],
        [("SectionList",), ("ReadAllJson",)]),
    "key is not UTF-8": (
        b"[s]\n\xc3%28=v\n", [
            (("KeyList", "s"), "D-Bus cannot carry the name of key '%c3(' in section 's': it is not UTF-8"),
            (("ReadAllJson",), "No JSON: name of key '%c3(' in section 's' is not UTF-8")],
        [("SectionList",), ("SectionExists", "s")]),
    "key holds a NUL": (
        b"[s]\na%00%0a%25=v\n", [
            (("KeyList", "s"), "D-Bus cannot carry the name of key 'a%00%0a%25' in section 's': it holds a NUL byte")],
        [("SectionList",), ("ReadAllJson",)]),
    "section is not UTF-8": (
        b"[a\x80]\nk=v\n[s]\nk=v\n", [
            (("SectionList",), "D-Bus cannot carry the name of section 'a%80': it is not UTF-8"),
            (("ReadAllJson",), "No JSON: name of section 'a%80' is not UTF-8")],
        [("Read", "s", "k"), ("KeyList", "s")]),
    "section holds a NUL": (
        b"[%00]\nk=v\n", [
            (("SectionList",), "D-Bus cannot carry the name of section '%00': it holds a NUL byte")],
        [("ReadAllJson",)]),
}


@pytest.mark.parametrize("content, failing, working", UNCARRIABLE.values(), ids=UNCARRIABLE.keys())
def test_what_the_bus_cannot_carry_is_an_error_and_stays_as_it_is(world, content, failing, working):
    world.registry.write_bytes(content)
    daemon = world.start()
    client = daemon.client()
    for call, message in failing:
        assert client.error(*call) == (EXCEPTION, message), call
    for call in working:
        client.call(*call)
    client.write("z", "k", "v")
    client.flush()
    client.close()
    # A byte that needs no escape is written back without one; the value is the same.
    kept = content.replace(b"%00", b"\0").replace(b"%28", b"(")
    assert world.registry_bytes() == kept + b"[z]\nk=v\n"


def test_value_with_an_imported_nul_is_never_cut(world, client):
    client.write_json('{"s":{"k":"a\\u0000b"}}')
    message = "D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte"
    assert client.error("Read", "s", "k") == (EXCEPTION, message)
    assert client.error("KeyList", "s") == (EXCEPTION, message)
    assert client.read_all_json() == '{"s":{"k":"a\\u0000b"}}'
    assert world.registry_bytes() == b"[s]\nk=a\0b\n"


def test_names_with_an_imported_nul_are_named_in_the_error(client):
    client.write_json('{"s\\u0000":{},"t":{"\\u0000k":"v"},"u\\u0000":{"k":"v"}}')
    assert client.error("KeyList", "t") == \
        (EXCEPTION, "D-Bus cannot carry the name of key '%00k' in section 't': it holds a NUL byte")
    assert client.error("SectionList") == \
        (EXCEPTION, "D-Bus cannot carry the name of section 'u%00': it holds a NUL byte")


def test_error_text_about_a_long_name_is_capped(world):
    world.registry.write_bytes(b"[" + b"\xff" * 5000 + b"]\n")
    client = world.start().client()
    for member in ["SectionList", "ReadAllJson"]:
        name, message = client.error(member)
        assert name == EXCEPTION
        assert len(message) == 4000
        assert "%ff%ff" in message and message.isascii()
    client.close()


def temporary_file(world):
    return world.registry.with_name(world.registry.name + "~~new")


def test_full_disk_is_told_by_its_error_number(world, client):
    client.write("s", "k", "old")
    client.flush()
    client.write("s", "k", "new")
    temporary_file(world).symlink_to("/dev/full")
    assert client.error("Flush") == (EXCEPTION, "No space left on device (28)")
    assert not temporary_file(world).is_symlink()
    assert world.registry_bytes() == b"[s]\nk=old\n"
    assert client.read("s", "k") == "new"
    client.flush()
    assert world.registry_bytes() == b"[s]\nk=new\n"


def test_import_onto_a_full_disk_stands_unwritten(world, client):
    client.write("s", "k", "old")
    client.flush()
    temporary_file(world).symlink_to("/dev/full")
    assert client.error("WriteJson", '{"s":{"k":"new"}}') == (EXCEPTION, "No space left on device (28)")
    assert world.registry_bytes() == b"[s]\nk=old\n"
    assert client.read_all_json() == '{"s":{"k":"new"}}'
    client.flush()
    assert world.registry_bytes() == b"[s]\nk=new\n"


def test_failed_open_names_the_temporary_file(world, client):
    client.write("s", "k", "v")
    temporary_file(world).mkdir()
    assert client.error("Flush") == (EXCEPTION, "/var/lib/plinthware/registry~~new: Is a directory (21)")
    temporary_file(world).rmdir()
    client.flush()
    assert world.registry_bytes() == b"[s]\nk=v\n"


def test_failed_rename_leaves_no_temporary_file(world, client):
    client.write("s", "k", "v")
    world.registry.mkdir()
    assert client.error("Flush") == (EXCEPTION, "Is a directory (21)")
    assert not temporary_file(world).exists()
    world.registry.rmdir()
    client.flush()
    assert world.registry_bytes() == b"[s]\nk=v\n"


def test_missing_folder_is_told_by_the_temporary_files_name(world, client):
    client.write("s", "k", "v")
    world.registry.parent.rmdir()
    assert client.error("Flush") == (EXCEPTION, "/var/lib/plinthware/registry~~new: No such file or directory (2)")
    world.registry.parent.mkdir()
    client.flush()
    assert world.registry_bytes() == b"[s]\nk=v\n"


def test_one_clients_error_is_not_anothers(world, daemon):
    first, second = RawClient(world.bus), RawClient(world.bus)
    failing = first.send("Read", "\u00e9", "k")
    working = second.call("Read", "s", "k")
    assert working.kind == METHOD_RETURN
    reply = first.receive()
    assert (reply.reply_serial, reply.error) == (failing, INVALID_NAME)
    first.close()
    second.close()


def test_library_client_sees_the_same_errors_without_an_interface(daemon, client):
    message = dbus.lowlevel.MethodCallMessage("com.tavimesh.Registry", OBJECT_PATH, None, "KeyList")
    message.append("\u00e9", signature="s")
    with pytest.raises(dbus.DBusException) as caught:
        client.connection.send_message_with_reply_and_block(message, client.timeout)
    assert (caught.value.get_dbus_name(), caught.value.get_dbus_message()) == INVALID_NAME
