"""The twelve methods, as a client sees them."""

import json
import os
import re
import subprocess
import xml.etree.ElementTree

import dbus
import pytest

from world.harness import BUS_NAME, CAPACITY, ERROR_PREFIX, INTERFACE, OBJECT_PATH, PATIENCE
from world.raw_client import METHOD_RETURN, RawClient

INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
INVALID_NAME = (ERROR_PREFIX + "InvalidName", "Invalid Name")
FULL = (ERROR_PREFIX + "Full", "Full")

# Name, in-arguments, out-argument.
METHODS = [
    ("Read", [("section", "s"), ("key", "s")], ("value_ret", "s")),
    ("Write", [("section", "s"), ("key", "s"), ("value", "s")], None),
    ("DeleteKey", [("section", "s"), ("key", "s")], None),
    ("DeleteSection", [("section", "s")], None),
    ("DeleteAll", [], None),
    ("Flush", [], None),
    ("KeyExists", [("section", "s"), ("key", "s")], ("exists_ret", "b")),
    ("SectionExists", [("section", "s")], ("exists_ret", "b")),
    ("SectionList", [], ("sections_ret", "as")),
    ("KeyList", [("section", "s")], ("keys_values_ret", "a{ss}")),
    ("ReadAllJson", [], ("registry_ret", "s")),
    ("WriteJson", [("registry", "s")], None),
]


def describe_method(method):
    arguments = [(argument.get("name"), argument.get("type"), argument.get("direction")) for argument in method]
    assert all(argument.tag == "arg" for argument in method)
    return method.get("name"), arguments


def test_introspection_lists_exactly_the_twelve_methods(client):
    node = xml.etree.ElementTree.fromstring(client.call("Introspect", interface=INTROSPECTABLE))
    assert node.get("name") == OBJECT_PATH
    interfaces = {child.get("name"): child for child in node if child.tag == "interface"}
    assert len(interfaces) == len(node), "nothing but interfaces"
    assert set(interfaces) == {INTERFACE, INTROSPECTABLE}

    expected = []
    for name, inputs, output in METHODS:
        arguments = [(argument, kind, "in") for argument, kind in inputs]
        if output is not None:
            arguments.append((*output, "out"))
        expected.append((name, arguments))
    members = interfaces[INTERFACE]
    assert [child.tag for child in members] == ["method"] * len(METHODS), "no signals or properties"
    assert [describe_method(child) for child in members] == expected


@pytest.mark.parametrize("name, inputs, output", METHODS, ids=[row[0] for row in METHODS])
def test_reply_holds_what_introspection_promises(world, daemon, name, inputs, output):
    raw = RawClient(world.bus)
    arguments = ["{}" if name == "WriteJson" else "x" for _ in inputs]
    reply = raw.call(name, *arguments)
    assert reply.kind == METHOD_RETURN
    assert reply.signature == (output[1] if output is not None else "")
    raw.close()


@pytest.mark.parametrize("name", ["DeleteAll", "Flush"])
def test_method_without_arguments_has_an_empty_reply(world, daemon, name):
    raw = RawClient(world.bus)
    reply = raw.call(name)
    assert reply.kind == METHOD_RETURN
    assert (reply.signature, reply.body) == ("", b"")
    raw.close()


def test_value_written_under_one_case_is_read_under_another(client):
    client.write("Net", "IP", "Value")
    assert client.read("net", "ip") == "Value"


def test_names_are_listed_folded(client):
    client.write("Net", "IP", "Value")
    assert client.section_list() == ["net"]
    assert client.key_list("NET") == {"ip": "Value"}


def test_only_the_letters_of_ascii_fold(client):
    client.write("A@Z[`{", "_^Y", "1")
    assert client.section_list() == ["a@z[`{"]
    assert client.key_list("a@z[`{") == {"_^y": "1"}


def test_key_list_comes_in_key_order(client):
    client.write("s", "b", "second")
    client.write("s", "a", "first")
    assert list(client.key_list("s").items()) == [("a", "first"), ("b", "second")]


def test_key_list_of_a_missing_section_is_empty(client):
    reply = client.call("KeyList", "nowhere")
    assert isinstance(reply, dbus.Dictionary)
    assert reply.signature == "ss"
    assert len(reply) == 0
    assert not client.section_exists("nowhere")


def test_section_list_comes_in_byte_order(client):
    for name in ["b", "a~", "a", "1", "{", "", "_"]:
        client.write(name, "k", "v")
    assert client.section_list() == ["", "1", "_", "a", "a~", "b", "{"]


def test_missing_section_and_missing_key_read_as_the_empty_string(client):
    assert client.read("nowhere", "k") == ""
    client.write("s", "k", "v")
    assert client.read("s", "nothing") == ""
    assert client.section_list() == ["s"]


def test_invalid_key_in_a_missing_section_is_not_even_looked_at(client):
    assert client.read("nowhere", "\u0080") == ""
    assert not client.key_exists("nowhere", "\u0080")
    client.delete_key("nowhere", "\u0080")
    assert client.section_list() == []


def test_invalid_key_in_an_existing_section_is_an_error(client):
    client.write("s", "k", "v")
    for member in ["Read", "KeyExists", "DeleteKey"]:
        assert client.error(member, "s", "\u0080") == INVALID_NAME
    assert client.error("Write", "s", "\u0080", "v") == INVALID_NAME


def test_write_with_an_invalid_key_leaves_the_new_section_behind(world, client):
    assert client.error("Write", "New", "k\u00e9y", "v") == INVALID_NAME
    assert client.section_exists("new")
    assert client.key_list("new") == {}
    client.flush()
    assert world.registry_bytes() == b"", "it is not saved"
    client.write("other", "k", "v")
    client.flush()
    assert world.registry_bytes() == b"[new]\n[other]\nk=v\n", "until the next save"


def test_text_beyond_ascii_is_accepted_in_a_value(client):
    client.write("s", "k", "\u00c3\u20ac\U0001f3b5")
    assert client.read("s", "k") == "\u00c3\u20ac\U0001f3b5"


def test_empty_value_makes_the_key_exist(client):
    client.write("s", "k", "")
    assert client.key_exists("s", "k")
    assert client.read("s", "k") == ""
    assert not client.key_exists("s", "other")


def test_empty_names_are_valid(client):
    client.write("", "", "v")
    assert client.section_list() == [""]
    assert client.key_list("") == {"": "v"}
    assert client.read("", "") == "v"


def test_section_stays_when_its_last_key_goes(client):
    client.write("s", "k", "v")
    client.delete_key("s", "K")
    assert client.section_exists("s")
    assert client.key_list("s") == {}


def test_section_goes_with_all_its_keys(client):
    client.write("s", "a", "1")
    client.write("s", "b", "2")
    client.write("t", "a", "3")
    client.delete_section("S")
    assert not client.section_exists("s")
    assert client.read_all_json() == '{"t":{"a":"3"}}'


def test_deleting_what_does_not_exist_does_nothing(world, client):
    client.write("s", "k", "v")
    client.flush()
    world.registry.unlink()
    client.delete_key("s", "other")
    client.delete_key("nowhere", "k")
    client.delete_section("nowhere")
    client.flush()
    assert not world.registry.exists(), "nothing was saved"
    assert client.read_all_json() == '{"s":{"k":"v"}}'


def test_delete_all_on_an_empty_registry_still_saves(world, client):
    client.delete_all()
    assert not world.registry.exists()
    client.flush()
    assert world.registry.read_bytes() == b""


def test_delete_all_empties_the_registry(client):
    client.write("s", "k", "v")
    client.delete_all()
    assert client.section_list() == []
    assert client.read_all_json() == "{}"


def test_flush_writes_at_once(world, client):
    client.write("net", "ip", "10.0.0.1")
    client.write("net", "name", "a=b%c")
    client.write("x]y", "k", "v")
    client.delete_key("x]y", "k")
    assert world.registry_bytes() == b""
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=10.0.0.1\nname=a=b%25c\n[x%5dy]\n"
    assert world.registry.stat().st_mode & 0o7777 == 0o600


def test_flush_with_nothing_pending_writes_nothing(world, client):
    client.write("s", "k", "v")
    client.flush()
    world.registry.unlink()
    client.flush()
    assert not world.registry.exists()


# The text is "[s]\nk=" and the value and "\n".
@pytest.mark.parametrize("length, fits", [(CAPACITY - 7, True), (CAPACITY - 6, False)], ids=["16383", "16384"])
def test_text_must_fit_the_capacity(world, client, length, fits):
    client.write("s", "k", "before")
    if fits:
        client.write("s", "k", "x" * length)
        client.flush()
        assert len(world.registry_bytes()) == CAPACITY
    else:
        assert client.error("Write", "s", "k", "x" * length) == FULL
        assert client.read("s", "k") == "before"


def test_full_registry_takes_no_key_but_a_shorter_value(client):
    client.write("s", "k", "x" * (CAPACITY - 7))
    assert client.error("Write", "s", "l", "") == FULL
    assert client.error("Write", "t", "l", "") == FULL
    assert client.section_list() == ["s"]
    client.write("s", "k", "short")
    client.write("t", "l", "")
    assert client.section_list() == ["s", "t"]


def test_refused_write_takes_stray_sections_with_it(client):
    assert client.error("Write", "stray", "\u00e9", "v") == INVALID_NAME
    assert client.error("Write", "s", "k", "x" * CAPACITY) == FULL
    assert not client.section_exists("stray")


def test_section_of_capitals_in_the_file_cannot_be_reached_but_is_kept(world):
    world.registry.write_bytes(b"[Net]\nIp=1\n")
    client = world.start().client()
    assert client.section_list() == ["Net"]
    assert not client.section_exists("Net")
    assert client.read("Net", "Ip") == ""
    client.write("net", "ip", "2")
    client.flush()
    assert world.registry_bytes() == b"[Net]\nIp=1\n[net]\nip=2\n"
    client.close()


def test_key_that_begins_with_a_bracket_comes_back_as_a_section(world):
    client = world.start().client()
    client.write("s", "[k]", "v")
    assert client.read("s", "[k]") == "v"
    client.close()
    world.daemons[-1].stop()
    client = world.start().client()
    assert client.section_list() == ["k", "s"]
    assert client.key_list("s") == {}
    client.close()


def test_empty_registry_exports_as_an_empty_object(client):
    assert client.read_all_json() == "{}"


def test_export_is_one_line_in_byte_order(client):
    client.write("ui", "lang", "en")
    client.write("net", "ip", "10.0.0.2")
    client.write("net", "dhcp", "no")
    client.write("empty", "k", "")
    client.delete_key("empty", "k")
    assert client.read_all_json() == \
        '{"empty":{},"net":{"dhcp":"no","ip":"10.0.0.2"},"ui":{"lang":"en"}}'


def test_section_of_a_capital_is_exported_before_one_in_lower_case(world):
    world.registry.write_bytes(b"[a]\nk=1\n[B]\nk=2\n")
    client = world.start().client()
    assert client.read_all_json() == '{"B":{"k":"2"},"a":{"k":"1"}}'
    client.close()


def test_export_escapes_what_json_must_escape(client):
    value = "\"\\/\b\f\n\r\t\x01\x1f\x7f\u00e9\U0001f3b5"
    client.write("s", "k\n", value)
    text = client.read_all_json()
    assert json.loads(text) == {"s": {"k\n": value}}
    assert "\n" not in text


# Registry before the import as {section: {key: value}}; the text; the registry after it.
IMPORTS = {
    "adds a section": ({"a": {"k": "1"}}, '{"b":{"k":"2"}}', {"a": {"k": "1"}, "b": {"k": "2"}}),
    "merges into a section": ({"a": {"k": "1", "l": "2"}}, '{"a":{"k":"3","m":"4"}}',
                              {"a": {"k": "3", "l": "2", "m": "4"}}),
    "null deletes a section": ({"a": {"k": "1", "l": "2"}, "b": {"k": "3"}}, '{"a":null}', {"b": {"k": "3"}}),
    "null deletes a key alone": ({"a": {"k": "1"}}, '{"a":{"k":null}}', {"a": {}}),
    "empty object changes nothing": ({"a": {"k": "1"}}, '{"a":{},"b":{}}', {"a": {"k": "1"}}),
    "null key in a missing section": ({"a": {"k": "1"}}, '{"b":{"k":null}}', {"a": {"k": "1"}}),
    "null for a missing section": ({"a": {"k": "1"}}, '{"b":null}', {"a": {"k": "1"}}),
    "empty document": ({"a": {"k": "1"}}, "{}", {"a": {"k": "1"}}),
    "one-character string 1": ({}, '{"a":{"k":"1"}}', {"a": {"k": "1"}}),
    "names that differ in case": ({}, '{"net":{"ip":"small"},"Net":{"ip":"capital"}}', {"net": {"ip": "small"}}),
    "keys that differ in case": ({}, '{"a":{"ip":"small","IP":"capital"}}', {"a": {"ip": "small"}}),
    "capital deletes, small writes": ({"a": {"k": "1"}}, '{"a":{"l":"2"},"A":null}', {"a": {"l": "2"}}),
    "small deletes what capital wrote": ({}, '{"A":{"l":"2"},"a":null}', {}),
    "same name twice": ({}, '{"a":{"k":"1"},"a":{"l":"2"}}', {"a": {"l": "2"}}),
    "replaced member is not looked at": ({}, '{"a":{"\u00e9":"1","k":5},"a":{"k":"2"}}', {"a": {"k": "2"}}),
    "names are folded": ({"net": {"ip": "1"}}, '{"NET":{"IP":"2"}}', {"net": {"ip": "2"}}),
    "escapes and blanks": ({}, ' { "\\u0061" :\t{ "k" : "\\u00e9\\ud83c\\udfb5\\n" } }\r\n',
                           {"a": {"k": "\u00e9\U0001f3b5\n"}}),
}


@pytest.mark.parametrize("before, text, after", IMPORTS.values(), ids=IMPORTS.keys())
def test_import_merges(world, client, before, text, after):
    for section, keys in before.items():
        for key, value in keys.items():
            client.write(section, key, value)
    client.write_json(text)
    assert client.read_all_json() == json.dumps(after, ensure_ascii=False, separators=(",", ":"))
    flushed = world.registry_bytes()
    client.flush()
    assert flushed == world.registry_bytes(), "an import is flushed at once"


def test_import_of_nothing_still_writes_the_file(world, client):
    client.write("s", "k", "v")
    client.flush()
    world.registry.unlink()
    client.write_json("{}")
    assert world.registry_bytes() == b"[s]\nk=v\n"


def test_import_takes_a_pending_write_to_the_file(world, client):
    client.write("s", "k", "v")
    client.write_json('{"t":{"k":"w"}}')
    assert world.registry_bytes() == b"[s]\nk=v\n[t]\nk=w\n"


def test_import_that_does_not_fit_changes_nothing(world, client):
    client.write("s", "k", "v")
    client.flush()
    text = json.dumps({"s": None, "a": {"k": "small"}, "t": {"k": "x" * CAPACITY}})
    assert client.error("WriteJson", text) == FULL
    assert client.read_all_json() == '{"s":{"k":"v"}}'
    assert world.registry_bytes() == b"[s]\nk=v\n"


class CommandLine:
    """The bus tools of the system, as a user would call them."""

    def __init__(self, world):
        self.environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus.address, LC_ALL="C.UTF-8")

    def run(self, *command):
        done = subprocess.run(command, env=self.environment, capture_output=True, text=True, timeout=PATIENCE,
                              check=False)
        return done.returncode, done.stdout, done.stderr

    def dbus_send(self, member, *arguments):
        """Returns status, first line, the other lines, and standard error."""
        status, output, errors = self.run("dbus-send", "--system", "--print-reply", f"--dest={BUS_NAME}", OBJECT_PATH,
                                          f"{INTERFACE}.{member}", *(f"string:{each}" for each in arguments))
        head, _, rest = output.partition("\n")
        return status, head, rest, errors

    def gdbus_call(self, member, *arguments):
        return self.run("gdbus", "call", "--system", "--dest", BUS_NAME, "--object-path", OBJECT_PATH, "--method",
                        f"{INTERFACE}.{member}", *arguments)

    def busctl_call(self, member, *arguments):
        signature = ["s" * len(arguments)] if arguments else []
        return self.run("busctl", "--system", "call", BUS_NAME, OBJECT_PATH, INTERFACE, member, *signature, *arguments)


@pytest.fixture
def command_line(world, client):
    client.write("net", "b", "1")
    client.write("net", "a", "x y")
    return CommandLine(world)


@pytest.mark.parametrize("member, arguments, printed", [
    ("Read", ["Net", "A"], '   string "x y"\n'),
    ("KeyList", ["net"], '   array [\n      dict entry(\n         string "a"\n         string "x y"\n      )\n'
                         '      dict entry(\n         string "b"\n         string "1"\n      )\n   ]\n'),
    ("KeyList", ["nowhere"], "   array [\n   ]\n"),
    ("SectionList", [], '   array [\n      string "net"\n   ]\n'),
    ("SectionExists", ["net"], "   boolean true\n"),
    ("KeyExists", ["net", "c"], "   boolean false\n"),
    ("ReadAllJson", [], '   string "{"net":{"a":"x y","b":"1"}}"\n'),
    ("Write", ["s", "k", "v"], ""),
    ("DeleteAll", [], ""),
    ("Flush", [], ""),
])
def test_dbus_send_prints_the_reply(command_line, member, arguments, printed):
    status, head, rest, errors = command_line.dbus_send(member, *arguments)
    assert (status, rest, errors) == (0, printed, "")
    assert re.fullmatch(r"method return time=\S+ sender=:\S+ -> destination=:\S+ serial=\d+ reply_serial=2", head)


@pytest.mark.parametrize("member, arguments, printed", [
    ("Read", ["net", "a"], "('x y',)\n"),
    ("KeyList", ["net"], "({'a': 'x y', 'b': '1'},)\n"),
    ("KeyList", ["nowhere"], "(@a{ss} {},)\n"),
    ("SectionList", [], "(['net'],)\n"),
    ("SectionExists", ["net"], "(true,)\n"),
    ("KeyExists", ["net", "c"], "(false,)\n"),
    ("ReadAllJson", [], "('{\"net\":{\"a\":\"x y\",\"b\":\"1\"}}',)\n"),
    ("Write", ["s", "k", "v"], "()\n"),
    ("DeleteKey", ["net", "a"], "()\n"),
    ("DeleteSection", ["net"], "()\n"),
    ("WriteJson", ["{}"], "()\n"),
    ("Flush", [], "()\n"),
])
def test_gdbus_prints_the_reply(command_line, member, arguments, printed):
    assert command_line.gdbus_call(member, *arguments) == (0, printed, "")


@pytest.mark.parametrize("member, arguments, printed", [
    ("Read", ["net", "a"], 's "x y"\n'),
    ("KeyList", ["net"], 'a{ss} 2 "a" "x y" "b" "1"\n'),
    ("KeyList", ["nowhere"], "a{ss} 0\n"),
    ("SectionList", [], 'as 1 "net"\n'),
    ("SectionExists", ["nowhere"], "b false\n"),
    ("KeyExists", ["net", "a"], "b true\n"),
    ("ReadAllJson", [], 's "{\\"net\\":{\\"a\\":\\"x y\\",\\"b\\":\\"1\\"}}"\n'),
    ("Write", ["s", "k", "v"], ""),
    ("DeleteAll", [], ""),
    ("Flush", [], ""),
])
def test_busctl_prints_the_reply(command_line, member, arguments, printed):
    assert command_line.busctl_call(member, *arguments) == (0, printed, "")


def test_command_line_tools_print_the_error(command_line):
    status, head, rest, errors = command_line.dbus_send("Read", "\u00e9", "k")
    assert (status, head, rest, errors) == (1, "", "", "Error com.tavimesh.Registry.Errors.InvalidName: Invalid Name\n")
    assert command_line.gdbus_call("WriteJson", "[]") == \
        (1, "", "Error: GDBus.Error:com.tavimesh.Registry.Errors.InvalidJson: Invalid Json\n")
    assert command_line.busctl_call("Write", "s", "k", "x" * CAPACITY) == (1, "", "Call failed: Full\n")


def test_gdbus_introspects_the_object(command_line):
    methods = []
    for name, inputs, output in METHODS:
        arguments = [f"in  {kind} {argument}" for argument, kind in inputs]
        if output is not None:
            arguments.append("out {1} {0}".format(*output))
        separator = ",\n" + " " * (len("      (") + len(name))
        methods.append(f"      {name}({separator.join(arguments)});\n")
    expected = (f"node {OBJECT_PATH} {{\n  interface {INTERFACE} {{\n    methods:\n{''.join(methods)}"
                "    signals:\n    properties:\n  };\n"
                f"  interface {INTROSPECTABLE} {{\n    methods:\n      Introspect(out s data);\n"
                "    signals:\n    properties:\n  };\n};\n")
    assert command_line.run("gdbus", "introspect", "--system", "--dest", BUS_NAME, "--object-path", OBJECT_PATH) == \
        (0, expected, "")
