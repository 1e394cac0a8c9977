"""Random operations on the daemon and on a model of it: both agree on each reply and each byte of the file.
LEDGERD_TEST_SEED chooses another run."""

import collections
import json
import os
import random
import signal
import time

import dbus

from world.harness import ERROR_PREFIX
from model import CAPACITY, SYNTAX_ERROR, Failure, Model

SEED = int(os.environ.get("LEDGERD_TEST_SEED", "20240229"))
OPERATIONS = 25000

# The daemon writes a minute after the first pending change; the test flushes before that.
SAFELY_PENDING_SECONDS = 40

# How often each method is called, relative to the others; "fill" is a write or an import.
WEIGHTS = {"read": 12, "write": 26, "fill": 2, "delete_key": 7, "delete_section": 5, "delete_all": 0.7, "flush": 4,
           "key_exists": 6, "section_exists": 5, "section_list": 4, "key_list": 8, "read_all_json": 5, "write_json": 13}
NAME_COUNTS = {"read": 2, "write": 2, "delete_key": 2, "key_exists": 2, "delete_section": 1, "section_exists": 1,
               "key_list": 1}

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
    """Makes up calls: the name of a method, and its arguments as strings."""

    def __init__(self, source, model):
        self.source = source
        self.model = model

    def call(self):
        (method,) = self.source.choices(list(WEIGHTS), WEIGHTS.values())
        if method == "fill":
            return self.fill()
        if method == "write_json":
            return method, self.json_text()
        names = [self.name() for _ in range(NAME_COUNTS.get(method, 0))]
        return method, *names, *([self.value()] if method == "write" else [])

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

    def fill(self):
        """A change that just fits, or is a byte too long."""
        section, key = self.source.choice(NAMES), self.source.choice(NAMES)
        room = CAPACITY + self.source.choice([-1, 0, 0, 1]) - self.model.size_with(section.encode(), key.encode(), b"x")
        value = "x" * max(room + 1, 0)
        if self.source.random() < 0.3:
            return "write_json", json.dumps({section: {key: value}})
        return "write", section, key, value

    def json_text(self):
        kind = self.source.random()
        if kind < 0.05:
            return self.source.choice([*REFUSED_JSON, "null", '""', '"a"'])
        with_refused = 0.05 if kind < 0.20 else 0
        text = self.json_object(lambda: self.json_section(with_refused))
        return self.damaged(text) if kind > 0.88 else text

    def json_string(self, text):
        if self.source.random() < 0.03:
            text += "\0" + text
        return json.dumps(text, ensure_ascii=self.source.random() < 0.5)

    def json_object(self, make_value):
        space = self.source.choice(["", "", "", " ", "\n\t", "\r\n"])
        members = [f"{self.json_string(self.name())}{space}:{space}{make_value()}"
                   for _ in range(self.source.randrange(4))]
        return "{" + space + f"{space},{space}".join(members) + "}"

    def json_section(self, with_refused):
        kind = self.source.random()
        if kind < with_refused:
            return self.source.choice([*REFUSED_JSON, '"a"'])
        return "null" if kind < 0.12 else self.json_object(lambda: self.json_value(with_refused))

    def json_value(self, with_refused):
        kind = self.source.random()
        if kind < with_refused:
            return self.source.choice([*REFUSED_JSON, "{}", '{"a":"b"}'])
        return "null" if kind < 0.2 else self.json_string(self.value())

    def damaged(self, text):
        position = self.source.randrange(len(text))
        inserted = self.source.choice(",:{}[]\"\\x1 \n")
        return text[:position] + self.source.choice(["", text[position + 1:], inserted + text[position:]])

    def file(self):
        """A file that a person has edited."""
        line_end = self.source.choice([b"\n", b"\n", b"\r\n", b"\r", b"\n\n"])
        lines = self.source.choices(LINES, k=self.source.randrange(40))
        if self.source.random() < 0.1:
            lines.append(b"big=" + b"x" * CAPACITY)
        return line_end.join(lines) + self.source.choice([line_end, b""])


class Comparison:
    """The daemon and the model in parallel."""

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
        # The model parses JSON from text; its other methods need bytes.
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
        if isinstance(reply, dict):
            return [(key.encode(), value.encode()) for key, value in reply.items()]
        if isinstance(reply, list):
            return [name.encode() for name in reply]
        return reply.encode() if isinstance(reply, str) else reply

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
        assert self.world.registry.exists() == (self.model.file is not None)
        assert self.world.registry_bytes() == (self.model.file or b"")

    def restart(self):
        ending = self.source.choice(["stop", "kill", "kill after a flush"])
        if ending == "kill after a flush" or time.monotonic() - self.flushed_at > SAFELY_PENDING_SECONDS:
            self.client.flush()
            self.model.flush()
        self.recent.append((ending,))
        if ending == "stop":
            self.daemon.stop()
            self.model.flush()
        else:
            self.daemon.signal(signal.SIGKILL)
            self.daemon.wait_end()
        self.world.wait_until_unserved()
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
    comparison.model.flush()
    comparison.check_file()
    comparison.client.close()

    # Each kind of operation and of error has happened.
    kinds = [*WEIGHTS.keys() - {"fill"}, "stop", "kill", "kill after a flush", ("InvalidName", False),
             ("InvalidJson", False), ("Full", False), ("Exception", False), ("Exception", True)]
    assert [kind for kind in kinds if comparison.seen[kind] < 10] == [], comparison.seen
