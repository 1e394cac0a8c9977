"""Random operations against the daemon and against a model of it; both must agree on every reply and every byte.

LEDGERD_TEST_SEED chooses another run."""

import collections
import json
import os
import random
import signal
import time

import dbus

from world.harness import BUS_NAME, ERROR_PREFIX, wait_for
from model import CAPACITY, SYNTAX_ERROR, Failure, Model

SEED = int(os.environ.get("LEDGERD_TEST_SEED", "20240229"))
OPERATIONS = 25000

# The daemon writes of its own accord a minute after the first pending change, which must not come in between.
SAFELY_PENDING_SECONDS = 40

NAMES = ["", "a", "A", "b", "net", "Net", "NET", "nEt", "null", "[", "]", "[]", "[a]", "[net]x", "[b", "=", "a=b", "==",
         "%", "%41", "%4", "%zz", "%5b", "a%", "\r\n", "\n", "a\rb", " ", " a ", "\t", "\x01", "\x1f\x7f", "#a", ";a",
         "\"", "\\", "'", "@`{^~", "key", "long" * 12]
INVALID_NAMES = ["\u0080", "caf\u00e9", "\u20ac", "a\U0001f3b5", "\u00c9"]
VALUES = ["", "1", "yes", "a=b", "=", "%", "%41", "100%", "%%", "\r\n", "a\nb", "[net]", " padded ", "\t", "\x01\x7f",
          "caf\u00e9", "\u20ac", "\U0001f3b5", "UPPER", "\"quoted\"", "back\\slash", "/var/lib"]
ALPHABET = "abcXYZ019 =%[]\r\n\t\"\\/\x01\x1f\x7f\u0080\u00e9\u07ff\u20ac\uffff\U0001f3b5"
REFUSED_JSON = ["5", "-0.5", "1e400", "true", "false", "[]", '["a"]', '[{"a":null}]']
LINES = [b"[Net]", b"[net]", b"[]", b"[", b"[abc", b"[a]b", b"[%5bx]", b"[a%00b]", b"[\xff]", b"[a", b"a=1", b"A=2",
         b"key", b"key=", b"=", b"=v", b"==", b"%41%4a%zz%4=x", b"x=%41%4a%zz%4", b"v=\xc3\x28", b"\xfe=v", b"n=%00",
         b"%00=n", b" a = b ", b"#c", b";c=d", b"%", b"%%", b"%4", b"k=caf\xc3\xa9", b"Caps=Lock", b"a=1\0b=2"]


class Generator:
    """Makes up calls. A call is the name of a method and its arguments as strings."""

    def __init__(self, source, model):
        self.source = source
        self.model = model
        self.calls = {self.read: 12, self.write: 26, self.fill: 2, self.delete_key: 7, self.delete_section: 5,
                      self.delete_all: 0.7, self.flush: 4, self.key_exists: 6, self.section_exists: 5,
                      self.section_list: 4, self.key_list: 8, self.read_all_json: 5, self.write_json: 13}

    def call(self):
        return self.source.choices(list(self.calls), list(self.calls.values()))[0]()

    def text(self, longest):
        return "".join(self.source.choices(ALPHABET, k=self.source.randrange(longest)))

    def name(self):
        kind = self.source.random()
        if kind < 0.90:
            return self.source.choice(NAMES)
        if kind < 0.94:
            return self.source.choice(INVALID_NAMES)
        return self.text(12)

    def value(self):
        kind = self.source.random()
        if kind < 0.6:
            return self.source.choice(VALUES)
        if kind < 0.97:
            return self.text(80)
        return self.text(6000)

    def read(self):
        return "read", self.name(), self.name()

    def write(self):
        return "write", self.name(), self.name(), self.value()

    def fill(self):
        """A write that just fits, or just does not."""
        section, key = self.source.choice(NAMES), self.source.choice(NAMES)
        room = CAPACITY + self.source.choice([-1, 0, 0, 1]) - self.model.size_with(section.encode(), key.encode(), b"x")
        value = "x" * max(room + 1, 0)
        if self.source.random() < 0.3:
            return "write_json", json.dumps({section: {key: value}})
        return "write", section, key, value

    def delete_key(self):
        return "delete_key", self.name(), self.name()

    def delete_section(self):
        return "delete_section", self.name()

    def delete_all(self):
        return ("delete_all",)

    def flush(self):
        return ("flush",)

    def key_exists(self):
        return "key_exists", self.name(), self.name()

    def section_exists(self):
        return "section_exists", self.name()

    def section_list(self):
        return ("section_list",)

    def key_list(self):
        return "key_list", self.name()

    def read_all_json(self):
        return ("read_all_json",)

    def write_json(self):
        kind = self.source.random()
        if kind < 0.05:
            return "write_json", self.source.choice([*REFUSED_JSON, "null", '""', '"a"'])
        with_refused = 0.05 if kind < 0.20 else 0
        text = self.json_object(lambda: self.json_section(with_refused))
        if kind > 0.88:
            text = self.damaged(text)
        return "write_json", text

    def json_string(self, text):
        if self.source.random() < 0.03:
            text += "\0" + text
        return json.dumps(text, ensure_ascii=self.source.random() < 0.5)

    def json_object(self, make_value):
        blank = self.source.choice(["", "", "", " ", "\n\t", "\r\n"])
        members = [f"{self.json_string(self.name())}{blank}:{blank}{make_value()}"
                   for _ in range(self.source.randrange(4))]
        return "{" + blank + f"{blank},{blank}".join(members) + "}"

    def json_section(self, with_refused):
        kind = self.source.random()
        if kind < with_refused:
            return self.source.choice([*REFUSED_JSON, '"a"'])
        if kind < 0.12:
            return "null"
        return self.json_object(lambda: self.json_value(with_refused))

    def json_value(self, with_refused):
        kind = self.source.random()
        if kind < with_refused:
            return self.source.choice([*REFUSED_JSON, "{}", '{"a":"b"}'])
        if kind < 0.2:
            return "null"
        return self.json_string(self.value())

    def damaged(self, text):
        position = self.source.randrange(len(text))
        kind = self.source.randrange(3)
        if kind == 0:
            return text[:position]
        if kind == 1:
            return text[:position] + text[position + 1:]
        return text[:position] + self.source.choice(",:{}[]\"\\x1 \n") + text[position:]

    def file(self):
        """A file that somebody has edited."""
        line_end = self.source.choice([b"\n", b"\n", b"\r\n", b"\r", b"\n\n"])
        lines = self.source.choices(LINES, k=self.source.randrange(40))
        if self.source.random() < 0.1:
            lines.append(b"big=" + b"x" * CAPACITY)
        return line_end.join(lines) + self.source.choice([line_end, b""])


class Comparison:
    """The daemon and the model side by side."""

    def __init__(self, world, source):
        self.world = world
        self.source = source
        self.model = Model()
        self.generator = Generator(source, self.model)
        self.daemon = world.start()
        self.client = self.daemon.client()
        self.flushed_at = time.monotonic()
        self.seen = collections.Counter()
        self.recent = collections.deque(maxlen=12)

    def expected(self, method, arguments):
        # The parser of the model takes text, all else bytes.
        given = arguments if method == "write_json" else [argument.encode() for argument in arguments]
        try:
            return getattr(self.model, method)(*given)
        except Failure as e:
            return e

    def answered(self, method, arguments):
        try:
            reply = getattr(self.client, method)(*arguments)
        except dbus.DBusException as e:
            return e
        if isinstance(reply, str):
            return reply.encode()
        if isinstance(reply, list):
            return [name.encode() for name in reply]
        if isinstance(reply, dict):
            return [(key.encode(), value.encode()) for key, value in reply.items()]
        return reply

    def step(self):
        call = self.generator.call()
        self.recent.append(call)
        method, *arguments = call
        expected, answered = self.expected(method, arguments), self.answered(method, arguments)
        if isinstance(expected, Failure):
            assert isinstance(answered, dbus.DBusException), f"{answered!r} instead of {expected!r}"
            name = answered.get_dbus_name()
            assert name.startswith(ERROR_PREFIX), answered
            assert expected.matches(name[len(ERROR_PREFIX):], answered.get_dbus_message()), f"{answered} {expected!r}"
            self.seen[expected.name, (expected.message == SYNTAX_ERROR)] += 1
        else:
            assert answered == expected
            self.seen[method] += 1
            if method in ("flush", "write_json"):
                self.flushed_at = time.monotonic()
                self.check_file()

    def check_file(self):
        assert (self.world.registry.read_bytes() if self.world.registry.exists() else None) == self.model.file

    def restart(self):
        ending = self.source.choice(["stop", "kill", "kill after a flush"])
        if ending == "kill after a flush" or time.monotonic() - self.flushed_at > SAFELY_PENDING_SECONDS:
            self.client.flush()
            self.model.flush()
        self.recent.append((ending,))
        if ending == "stop":
            self.daemon.stop()
            self.model.stop()
        else:
            self.daemon.signal(signal.SIGKILL)
            self.daemon.wait_end()
            self.model.kill()
        wait_for(lambda: not self.client.connection.name_has_owner(BUS_NAME), "the bus knows of the daemon's end")
        self.check_file()
        if self.source.random() < 0.3:
            self.model.file = self.generator.file()
            self.recent.append(("edit", self.model.file))
            self.world.registry.write_bytes(self.model.file)
        self.daemon = self.world.start()
        self.model.start()
        self.flushed_at = time.monotonic()
        self.seen[ending] += 1


def test_daemon_and_model_agree(world):
    source = random.Random(SEED)
    comparison = Comparison(world, source)
    for number in range(OPERATIONS):
        try:
            if source.random() < 0.004:
                comparison.restart()
            comparison.step()
        except AssertionError as e:
            recent = "\n".join(f"  {call!r:.300}" for call in comparison.recent)
            raise AssertionError(f"LEDGERD_TEST_SEED={SEED}, operation {number}, the last of\n{recent}\n{e}") from e
    comparison.daemon.stop()
    comparison.model.stop()
    comparison.check_file()
    comparison.client.close()

    # A run that has left something out has proved little.
    kinds = ["read", "write", "delete_key", "delete_section", "delete_all", "flush", "key_exists", "section_exists",
             "section_list", "key_list", "read_all_json", "write_json", "stop", "kill", "kill after a flush",
             ("InvalidName", False), ("InvalidJson", False), ("Full", False), ("Exception", False), ("Exception", True)]
    assert [kind for kind in kinds if comparison.seen[kind] < 10] == [], comparison.seen
