"""What the registry is expected to do, as briefly as it can be said. All text is bytes, and so are replies."""

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
    """An error reply. Of a syntax error's message only the beginning is foretold."""

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
    """Refuses a string that no reply can hold."""
    if b"\0" in text:
        raise exception(f"D-Bus cannot carry the {meaning}: it holds a NUL byte")
    if not is_utf8(text):
        raise exception(f"D-Bus cannot carry the {meaning}: it is not UTF-8")


class JsonError(Exception):
    pass


class OtherThanText:
    """Stands for a number, whatever it is."""


def parse_json(text):
    def refuse(_):
        raise JsonError

    def number(_):
        return OtherThanText

    def members(pairs):
        # Half a character is no JSON text for the daemon, not even in a member that another one replaces.
        for pair in pairs:
            check_surrogates(pair)
        return dict(pairs)

    try:
        document = json.loads(text, object_pairs_hook=members, parse_constant=refuse, parse_int=number,
                              parse_float=number)
        check_surrogates(document)
        return document
    except (json.JSONDecodeError, UnicodeEncodeError, JsonError):
        raise Failure("Exception", SYNTAX_ERROR) from None


def check_surrogates(value):
    """Members of objects were checked when they were read."""
    if isinstance(value, str):
        value.encode()
    elif isinstance(value, (list, tuple)):
        for item in value:
            check_surrogates(item)


class Model:
    """The daemon, its pending text and its file. `file` is None while there is none."""

    def __init__(self):
        self.file = None
        self.start()

    def start(self):
        self.accepted = (self.file or b"").split(b"\0")[0]
        self.pending = False
        self.sections = parse(self.accepted)

    def stop(self):
        self.flush()

    def kill(self):
        """What was not flushed is gone."""

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
        """The length that the text would have after that write."""
        sections = dict(self.sections)
        name = fold(section)
        sections[name] = {**sections.get(name, {}), fold(key): value}
        return len(serialise(sections))

    def read(self, section, key):
        name = fold(section)
        if name not in self.sections:
            return b""
        value = self.sections[name].get(fold(key), b"")
        check_carried(f"value of key '{printable(key)}' in section '{printable(section)}'", value)
        return value

    def write(self, section, key, value):
        keys = self.sections.setdefault(fold(section), {})
        keys[fold(key)] = value
        self.save()

    def delete_key(self, section, key):
        name = fold(section)
        if name in self.sections:
            folded = fold(key)
            if folded in self.sections[name]:
                del self.sections[name][folded]
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
        for name, keys in sorted(self.sections.items()):
            section = printable(name)
            if not is_utf8(name):
                raise exception(f"No JSON: name of section '{section}' is not UTF-8")
            for key, value in sorted(keys.items()):
                for what, text in [("name", key), ("value", value)]:
                    if not is_utf8(text):
                        where = f"key '{printable(key)}' in section '{section}'"
                        raise exception(f"No JSON: {what} of {where} is not UTF-8")
        document = {name.decode(): {key.decode(): value.decode() for key, value in sorted(keys.items())}
                    for name, keys in sorted(self.sections.items())}
        return json.dumps(document, ensure_ascii=False, separators=(",", ":")).encode()

    def write_json(self, text):
        document = parse_json(text)
        changes = list(self.json_changes(document))
        for section, key, value in changes:
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
        """Section, key and value of each change: no value deletes the key, no key the section."""
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
