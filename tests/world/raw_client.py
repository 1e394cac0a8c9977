"""A bus client without a library. It sends what no library would send, and receives every message."""

import os
import socket
import struct
from dataclasses import dataclass

from world.harness import BUS_NAME, INTERFACE, OBJECT_PATH, PATIENCE

METHOD_CALL = 1
METHOD_RETURN = 2
ERROR = 3
SIGNAL = 4

NO_REPLY_EXPECTED = 1

BUS_DAEMON = "org.freedesktop.DBus"
BUS_DAEMON_PATH = "/org/freedesktop/DBus"

PATH_FIELD, INTERFACE_FIELD, MEMBER_FIELD, ERROR_NAME_FIELD, REPLY_SERIAL_FIELD = 1, 2, 3, 4, 5
DESTINATION_FIELD, SENDER_FIELD, SIGNATURE_FIELD, UNIX_FDS_FIELD = 6, 7, 8, 9

FIXED_HEADER = struct.Struct("<4sIII")


def padding(length, alignment):
    return b"\0" * (-length % alignment)


def pack_value(signature, value):
    """The bytes of a value of the type s, o, g, u or as. A string may be bytes that are not UTF-8."""
    if signature == "u":
        return struct.pack("<I", value)
    if signature == "as":
        items = b""
        for item in value:
            items += padding(len(items), 4) + pack_value("s", item)
        return struct.pack("<I", len(items)) + items
    data = value if isinstance(value, bytes) else value.encode()
    return (bytes([len(data)]) if signature == "g" else struct.pack("<I", len(data))) + data + b"\0"


def pack_body(arguments):
    """Strings, unsigned integers and lists of strings. Returns the signature and the bytes."""
    signature, body = "", b""
    for argument in arguments:
        kind = "u" if isinstance(argument, int) else "as" if isinstance(argument, list) else "s"
        signature += kind
        body += padding(len(body), 4) + pack_value(kind, argument)
    return signature, body


def pack_call(serial, member, *arguments, interface=INTERFACE, path=OBJECT_PATH, destination=BUS_NAME, flags=0,
              kind=METHOD_CALL, more_fields=()):
    """The bytes of a method call, or of a message of another kind. `interface` may be None."""
    signature, body = pack_body(arguments)
    fields = [(PATH_FIELD, "o", path), (MEMBER_FIELD, "s", member), (DESTINATION_FIELD, "s", destination)]
    if interface is not None:
        fields.append((INTERFACE_FIELD, "s", interface))
    if signature:
        fields.append((SIGNATURE_FIELD, "g", signature))
    packed = b""
    for code, kind_of_field, value in [*fields, *more_fields]:
        packed += padding(len(packed), 8) + bytes([code]) + pack_value("g", kind_of_field)
        packed += pack_value(kind_of_field, value)
    fixed = FIXED_HEADER.pack(b"l" + bytes([kind, flags, 1]), len(body), serial, len(packed))
    return fixed + packed + padding(len(packed), 8) + body


@dataclass
class Message:
    kind: int
    serial: int
    fields: dict
    body: bytes

    @property
    def reply_serial(self):
        return self.fields.get(REPLY_SERIAL_FIELD)

    @property
    def sender(self):
        return self.fields.get(SENDER_FIELD)

    @property
    def signature(self):
        return self.fields.get(SIGNATURE_FIELD, "")

    @property
    def error(self):
        """The error's name and message."""
        assert self.kind == ERROR, self
        return self.fields[ERROR_NAME_FIELD], self.string()

    def string(self):
        """The first argument, which must be a string."""
        assert self.signature.startswith("s"), self
        return unpack_value("s", self.body, 0)[0]


def unpack_value(signature, data, offset):
    """Returns the value of the type s, o, g or u, and the offset after it."""
    start = offset + (1 if signature == "g" else 4)
    number = int.from_bytes(data[offset:start], "little")
    if signature == "u":
        return number, start
    return data[start:start + number].decode(), start + number + 1


def unpack_fields(data):
    fields, offset = {}, 0
    while offset < len(data):
        offset += -offset % 8
        signature, start = unpack_value("g", data, offset + 1)
        fields[data[offset]], offset = unpack_value(signature, data, start)
    return fields


class RawClient:
    """An authenticated connection to the bus, with a unique name."""

    def __init__(self, bus):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(str(bus.socket))
        self.received = b""
        self.serial = 0
        identity = str(os.geteuid()).encode().hex().encode()
        self.socket.sendall(b"\0AUTH EXTERNAL " + identity + b"\r\n")
        assert self._receive_line().startswith(b"OK "), "the bus refused the client"
        self.socket.sendall(b"NEGOTIATE_UNIX_FD\r\n")
        assert self._receive_line() == b"AGREE_UNIX_FD"
        self.socket.sendall(b"BEGIN\r\n")
        self.name = self.call_bus("Hello").string()

    def _receive_some(self):
        data = self.socket.recv(1 << 18)
        if not data:
            raise ConnectionResetError("the bus has closed the connection")
        self.received += data

    def _receive_line(self):
        while b"\r\n" not in self.received:
            self._receive_some()
        line, _, self.received = self.received.partition(b"\r\n")
        return line

    def _take(self, length):
        while len(self.received) < length:
            self._receive_some()
        data, self.received = self.received[:length], self.received[length:]
        return data

    def receive(self):
        """Returns the next message that is no signal: the bus sends signals at any time."""
        while True:
            message = self.receive_any()
            if message.kind != SIGNAL:
                return message

    def receive_any(self):
        """Returns the next message of any kind."""
        fixed = self._take(FIXED_HEADER.size)
        start, body_length, serial, fields_length = FIXED_HEADER.unpack(fixed)
        assert start[0:1] == b"l", "the bus has answered in another byte order"
        fields = self._take(fields_length + -fields_length % 8)[:fields_length]
        return Message(start[1], serial, unpack_fields(fields), self._take(body_length))

    def send(self, member, *arguments, descriptors=(), more_fields=(), **options):
        """Sends a call with file descriptors. Returns its serial number without waiting for the reply."""
        self.serial += 1
        if descriptors:
            more_fields = [*more_fields, (UNIX_FDS_FIELD, "u", len(descriptors))]
        message = pack_call(self.serial, member, *arguments, more_fields=more_fields, **options)
        sent = socket.send_fds(self.socket, [message], descriptors) if descriptors else 0
        self.socket.sendall(message[sent:])
        return self.serial

    def call(self, member, *arguments, **options):
        """Returns the reply, which must be the next message."""
        serial = self.send(member, *arguments, **options)
        message = self.receive()
        assert message.reply_serial == serial, f"unexpected {message}"
        return message

    def call_bus(self, member, *arguments, interface=BUS_DAEMON):
        return self.call(member, *arguments, interface=interface, path=BUS_DAEMON_PATH, destination=BUS_DAEMON)

    def become_monitor(self):
        """Makes the client receive every message on the bus, also those that the bus drops."""
        reply = self.call_bus("BecomeMonitor", [], 0, interface="org.freedesktop.DBus.Monitoring")
        assert reply.kind == METHOD_RETURN, reply

    def close(self):
        self.socket.close()
