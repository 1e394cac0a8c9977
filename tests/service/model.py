"""A model of the registry, independent of the daemon's code. Texts and replies are bytes."""

import json
import re

CAPACITY = 16383
LONGEST_ERROR = 4000
SYNTAX_ERROR = "parse error - unexpected "

ESCAPED_IN_SECTION = re.compile(rb"[%\[\]\r\n]")
ESCAPED_IN_KEY = re.compile(rb"[%\r\n=]")
ESCAPED_IN_VALUE = re.compile(rb"[%\r\n]")
ESCAPE_SEQUENCE = re.compile(rb"%(?:(.)(.))?", re.DOTALL)
UNPRINTABLE = re.compile(rb"[^ -~]|%")


class Failure(Exception):
    """An error reply. The model predicts only the beginning of a syntax error's message."""

    def __init__(self, name, message):
        super().__init__(name, message)
        self.name = name
        self.message = message

    def matches(self, name, message):
        if self.message == SYNTAX_ERROR:
            return self.name == name and message.startswith(SYNTAX_ERROR) and message.isascii()
        return (self.name, self.message) == (name, message)


def escape(text, forbidden):
    return forbidden.sub(lambda match: b"%%%02x" % match[0][0], text)


def unescape(text):
    def digit(byte):
        return int(byte, 16) if byte in b"0123456789abcdefABCDEF" else 0

    return ESCAPE_SEQUENCE.sub(
        lambda match: b"" if match[1] is None else bytes([digit(match[1]) * 16 + digit(match[2])]), text)


def printable(text):
    return escape(text, UNPRINTABLE).decode("ascii")


def serialise(sections):
    lines = []
    for name, keys in sorted(sections.items()):
        lines.append(b"[" + escape(name, ESCAPED_IN_SECTION) + b"]\n")
        for key, value in sorted(keys.items()):
            separator = b"=" if value else b""
            lines.append(escape(key, ESCAPED_IN_KEY) + separator + escape(value, ESCAPED_IN_VALUE) + b"\n")
    return b"".join(lines)


def parse(text):
    sections = {}
    current = b"null"
    for line in filter(None, re.split(rb"[\r\n]", text)):
        if line.startswith(b"["):
            current = unescape(line[1:].split(b"]")[0])
            sections[current] = {}
        else:
            key, _, value = line.partition(b"=")
            sections.setdefault(current, {})[unescape(key)] = unescape(value)
    return sections


def fold(name):
    if any(byte >= 0x80 for byte in name):
        raise Failure("InvalidName", "Invalid Name")
    return name.lower()


def is_utf8(text):
    try:
        text.decode()
        return True
    except UnicodeDecodeError:
        return False


def exception(message):
    return Failure("Exception", message if len(message) <= LONGEST_ERROR else message[:LONGEST_ERROR - 3] + "...")


def check_carried(meaning, text):
    """Refuses a string that no reply can contain."""
    if b"\0" in text:
        raise exception(f"D-Bus cannot carry the {meaning}: it holds a NUL byte")
    if not is_utf8(text):
        raise exception(f"D-Bus cannot carry the {meaning}: it is not UTF-8")


class RefusedValue:
    """Any number."""


def parse_json(text):
    def refuse(_):
        raise ValueError

    def members(pairs):
        # A member that a later one replaces is checked, too.
        check_surrogates(pairs)
        return dict(pairs)

    try:
        document = json.loads(text, object_pairs_hook=members, parse_constant=refuse,
                              parse_int=lambda _: RefusedValue, parse_float=lambda _: RefusedValue)
        check_surrogates(document)
        return document
    except ValueError:
        raise Failure("Exception", SYNTAX_ERROR) from None


def check_surrogates(value):
    """Half of a character is a syntax error. The members of objects have been checked by parse_json."""
    if isinstance(value, str):
        value.encode()
    elif isinstance(value, (list, tuple)):
        for item in value:
            check_surrogates(item)


class Model:
    """The daemon, its pending text and its file. `file` is None if there is no file."""

    def __init__(self):
        self.file = None
        self.start()

    def start(self):
        self.accepted = (self.file or b"").split(b"\0")[0]
        self.pending = False
        self.sections = parse(self.accepted)

    def flush(self):
        if self.pending:
            self.file = self.accepted
            self.pending = False

    def save(self):
        text = serialise(self.sections)
        if len(text) > CAPACITY:
            self.sections = parse(self.accepted)
            raise Failure("Full", "Full")
        self.accepted = text
        self.pending = True

    def size_with(self, section, key, value):
        """The length of the text after that write."""
        name = fold(section)
        return len(serialise({**self.sections, name: {**self.sections.get(name, {}), fold(key): value}}))

    def read(self, section, key):
        name = fold(section)
        value = self.sections[name].get(fold(key), b"") if name in self.sections else b""
        check_carried(f"value of key '{printable(key)}' in section '{printable(section)}'", value)
        return value

    def write(self, section, key, value):
        keys = self.sections.setdefault(fold(section), {})
        keys[fold(key)] = value
        self.save()

    def delete_key(self, section, key):
        if self.key_exists(section, key):
            del self.sections[fold(section)][fold(key)]
            self.save()

    def delete_section(self, section):
        if self.sections.pop(fold(section), None) is not None:
            self.save()

    def delete_all(self):
        self.sections = {}
        self.save()

    def key_exists(self, section, key):
        name = fold(section)
        return name in self.sections and fold(key) in self.sections[name]

    def section_exists(self, section):
        return fold(section) in self.sections

    def section_list(self):
        names = sorted(self.sections)
        for name in names:
            check_carried(f"name of section '{printable(name)}'", name)
        return names

    def key_list(self, section):
        items = sorted(self.sections.get(fold(section), {}).items())
        for key, value in items:
            where = f"key '{printable(key)}' in section '{printable(section)}'"
            check_carried(f"name of {where}", key)
            check_carried(f"value of {where}", value)
        return items

    def read_all_json(self):
        document = {}
        for name, keys in sorted(self.sections.items()):
            section = f"section '{printable(name)}'"
            texts = [(f"name of {section}", name)]
            for key, value in sorted(keys.items()):
                where = f"key '{printable(key)}' in {section}"
                texts += [(f"name of {where}", key), (f"value of {where}", value)]
            for meaning, text in texts:
                if not is_utf8(text):
                    raise exception(f"No JSON: {meaning} is not UTF-8")
            document[name.decode()] = {key.decode(): value.decode() for key, value in sorted(keys.items())}
        return json.dumps(document, ensure_ascii=False, separators=(",", ":")).encode()

    def write_json(self, text):
        # All changes are checked before the first is made.
        for section, key, value in list(self.json_changes(parse_json(text))):
            if key is None:
                self.sections.pop(section, None)
            elif value is None:
                self.sections.get(section, {}).pop(key, None)
            else:
                self.sections.setdefault(section, {})[key] = value
        self.save()
        self.flush()

    @staticmethod
    def json_changes(document):
        """Section, key and value of each change. Without a value the key is deleted, without a key the section."""
        refused = Failure("InvalidJson", "Invalid Json")
        if not isinstance(document, dict):
            raise refused
        for name, keys in sorted((name.encode(), keys) for name, keys in document.items()):
            section = fold(name)
            if keys is None:
                yield section, None, None
                continue
            if not isinstance(keys, dict):
                raise refused
            for key_name, value in sorted((key.encode(), value) for key, value in keys.items()):
                key = fold(key_name)
                if value is not None and not isinstance(value, str):
                    raise refused
                yield section, key, None if value is None else value.encode()
