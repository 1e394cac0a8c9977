"""Who may reach the registry: the policy as it is shipped, on the system bus as Debian configures it."""

import os
import re
import signal
import socket
import stat
import struct
import threading

import pytest

from world.harness import BUS_NAME, INTERFACE, OBJECT_PATH, PATIENCE, wait_for
from world.namespace_world import as_user, needs_root
from world.raw_client import (BUS_DAEMON, ERROR, ERROR_NAME_FIELD, METHOD_CALL, METHOD_RETURN, NO_REPLY_EXPECTED,
                        REPLY_SERIAL_FIELD, SIGNAL, RawClient)
from world.system_bus import FIRST_GROUP_MEMBER, LISTED, MEMBER, ROOT, STRANGER, SystemBus

pytestmark = needs_root

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
ALLOWED = (ROOT, MEMBER, FIRST_GROUP_MEMBER)
REFUSED = (STRANGER, LISTED)
RELEASED = 1

# Each method with arguments, and the type of what it answers; in an order in which each has something to work on.
METHODS = {
    "Write": (("s", "k", "v"), ""),
    "Read": (("s", "k"), "s"),
    "KeyExists": (("s", "k"), "b"),
    "SectionExists": (("s",), "b"),
    "SectionList": ((), "as"),
    "KeyList": (("s",), "a{ss}"),
    "ReadAllJson": ((), "s"),
    "Flush": ((), ""),
    "DeleteKey": (("s", "k"), ""),
    "DeleteSection": (("s",), ""),
    "DeleteAll": ((), ""),
    "WriteJson": (('{"s":{"k":"v"}}',), ""),
}

INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
PEER = "org.freedesktop.DBus.Peer"
PROPERTIES = "org.freedesktop.DBus.Properties"
# What else the object answers, with the error that it has for one whom it hears.
OTHER_CALLS = {
    "introspection": ("Introspect", (), {"interface": INTROSPECTABLE}, None),
    "introspection of the path above": ("Introspect", (), {"interface": INTROSPECTABLE, "path": "/"}, None),
    "ping": ("Ping", (), {"interface": PEER}, None),
    "machine": ("GetMachineId", (), {"interface": PEER}, None),
    "properties": ("GetAll", (INTERFACE,), {"interface": PROPERTIES}, UNKNOWN_METHOD),
    "unknown interface": ("Read", ("s", "k"), {"interface": "com.tavimesh.Other"}, UNKNOWN_METHOD),
    "unknown method": ("Nothing", (), {}, UNKNOWN_METHOD),
    "no interface": ("Read", ("s", "k"), {"interface": None}, None),
    "no interface, unknown method": ("Nothing", (), {"interface": None}, UNKNOWN_METHOD),
}


def users(group):
    return pytest.mark.parametrize("user", group, ids=[user.name for user in group])


@pytest.fixture
def policies(build):
    """What the bus has beside its own configuration: the shipped policy, and nothing else."""
    policy = build.packaging / f"{BUS_NAME}.conf"
    return {policy.name: policy.read_text()}


@pytest.fixture
def make_bus(policies):
    return lambda directory: SystemBus(directory, policies)


class People:
    """Connections of users, all to one bus."""

    def __init__(self, bus):
        self.bus = bus
        self.clients = []

    def __call__(self, user):
        with user.acting():
            self.clients.append(RawClient(self.bus))
        return self.clients[-1]

    def close(self):
        for client in self.clients:
            client.close()


@pytest.fixture
def people(world):
    people = People(world.bus)
    yield people
    people.close()


def outcome(reply):
    """The error's name, or None."""
    return reply.error[0] if reply.kind == ERROR else None


def owner_and_mode(path):
    status = path.stat()
    return status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)


@pytest.fixture
def served(world, daemon, people):
    """Root's client of a registry that is written to its file, which is root's alone before and after."""
    client = people(ROOT)
    assert outcome(client.call("WriteJson", '{"s":{"k":"v"}}')) is None
    assert outcome(client.call("Flush")) is None
    assert owner_and_mode(world.registry) == (0, 0, 0o600)
    yield client
    assert outcome(client.call("Flush")) is None
    assert owner_and_mode(world.registry) == (0, 0, 0o600)
    assert os.listdir(world.registry.parent) == ["registry"]


@users(ALLOWED)
def test_methods_are_open_to_root_and_to_the_group(served, people, user):
    client = people(user)
    for member, (arguments, signature) in METHODS.items():
        reply = client.call(member, *arguments)
        assert (reply.kind, reply.signature) == (METHOD_RETURN, signature), f"{member}: {reply}"
    assert served.call("ReadAllJson").string() == '{"s":{"k":"v"}}'


@users(REFUSED)
def test_methods_are_closed_to_everybody_else(served, people, user):
    client = people(user)
    other = {"Write": ("s", "k", "other"), "WriteJson": ('{"s":{"k":"other"}}',)}
    for member, (arguments, _) in METHODS.items():
        assert outcome(client.call(member, *other.get(member, arguments))) == ACCESS_DENIED, member
    assert served.call("ReadAllJson").string() == '{"s":{"k":"v"}}'


@pytest.mark.parametrize("call", OTHER_CALLS.values(), ids=OTHER_CALLS.keys())
def test_the_rule_is_the_same_for_what_the_object_answers_beside_its_methods(served, people, call):
    member, arguments, options, error = call
    for user in ALLOWED:
        assert outcome(people(user).call(member, *arguments, **options)) == error, user
    for user in REFUSED:
        assert outcome(people(user).call(member, *arguments, **options)) == ACCESS_DENIED, user


def test_connection_of_the_daemon_is_closed_under_its_unique_name_too(served, people):
    owner = served.call_bus("GetNameOwner", BUS_NAME).string()
    assert outcome(people(STRANGER).call("Read", "s", "k", destination=owner)) == ACCESS_DENIED
    assert people(MEMBER).call("Read", "s", "k", destination=owner).string() == "v"


def test_call_that_wants_no_reply_is_dropped(served, people):
    client = people(STRANGER)
    # The bus has an answer to it all the same.
    assert outcome(client.call("DeleteAll", flags=NO_REPLY_EXPECTED)) == ACCESS_DENIED
    assert served.call("ReadAllJson").string() == '{"s":{"k":"v"}}'


@users(ALLOWED)
def test_call_with_descriptors_is_refused(served, people, user):
    client = people(user)
    with open(os.devnull, "rb") as file:
        for number in (1, 2, 14):
            for member, (arguments, _) in METHODS.items():
                reply = client.call(member, *arguments, descriptors=[file.fileno()] * number)
                assert outcome(reply) == ACCESS_DENIED, (member, number)
    assert client.call("Read", "s", "k").string() == "v"


@pytest.fixture
def lingering():
    """The descriptor, to be closed, of a socket whose last close waits longer than any test, since its peer never reads."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        sender = socket.create_connection(server.getsockname())
        receiver, _ = server.accept()
    sender.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, int(3 * PATIENCE)))
    sender.setblocking(False)
    with pytest.raises(BlockingIOError):
        while True:
            sender.send(bytes(1 << 16))
    yield sender.detach()
    # Ends the wait.
    receiver.close()


def test_descriptor_that_does_not_close_cannot_freeze_the_daemon(served, daemon, people, lingering):
    client = people(MEMBER)
    # If the daemon gets a copy, it shall be the last one.
    daemon.signal(signal.SIGSTOP)
    client.send("Read", "s", "k", descriptors=[lingering])
    serial = client.send("GetId", interface=BUS_DAEMON, path="/", destination=BUS_DAEMON)
    # The bus closes its own copy after it has refused the call, and before it answers the next one.
    while client.receive().reply_serial != serial:
        pass
    threading.Thread(target=os.close, args=[lingering], daemon=True).start()
    wait_for(lambda: not os.path.exists(f"/proc/self/fd/{lingering}"), "the test's own copy is gone")
    daemon.signal(signal.SIGCONT)
    assert served.call("Read", "s", "k").string() == "v"


@users((MEMBER, FIRST_GROUP_MEMBER, *REFUSED))
def test_name_is_for_root_alone(world, people, user):
    client = people(user)
    for flags in range(8):
        assert outcome(client.call_bus("RequestName", BUS_NAME, flags)) == ACCESS_DENIED
    daemon = world.start("-d", wait=False, wrapper=as_user(user.user))
    assert daemon.wait_end() == 0
    assert re.search(rf'not allowed to own the service "{BUS_NAME}"', daemon.take_stderr())


def test_running_daemon_keeps_its_name(served, people):
    owner = served.call_bus("GetNameOwner", BUS_NAME).string()
    for user in (MEMBER, STRANGER):
        client = people(user)
        assert outcome(client.call_bus("RequestName", BUS_NAME, 2)) == ACCESS_DENIED
        assert outcome(client.call_bus("ReleaseName", BUS_NAME)) is None, "answered, but the name is not the caller's"
    assert served.call_bus("GetNameOwner", BUS_NAME).string() == owner


@pytest.mark.parametrize("kind, fields", [
    (SIGNAL, ()),
    (METHOD_RETURN, [(REPLY_SERIAL_FIELD, "u", 1)]),
    (ERROR, [(REPLY_SERIAL_FIELD, "u", 1), (ERROR_NAME_FIELD, "s", "com.tavimesh.Stray")]),
], ids=["signal", "reply", "error"])
def test_stray_messages_of_others_do_not_arrive(world, people, kind, fields):
    service = people(ROOT)
    assert outcome(service.call_bus("RequestName", BUS_NAME, 0)) is None
    member = people(MEMBER)
    with open(os.devnull, "rb") as file:
        for client, number in [(people(STRANGER), 0), (people(STRANGER), 1), (member, 1), (people(ROOT), 1)]:
            reply = client.call("Changed", kind=kind, more_fields=fields, descriptors=[file.fileno()] * number)
            assert outcome(reply) == ACCESS_DENIED
    member.send("Read", "s", "k")
    message = service.receive_any()
    while message.sender == BUS_DAEMON:
        message = service.receive_any()
    assert (message.kind, message.sender) == (METHOD_CALL, member.name)


@pytest.mark.parametrize("rule, error", [
    ("eavesdrop='true'", ACCESS_DENIED),
    (f"eavesdrop='true',type='method_call',destination='{BUS_NAME}'", ACCESS_DENIED),
    (f"eavesdrop='true',sender='{BUS_NAME}'", ACCESS_DENIED),
    (f"type='method_call',path='{OBJECT_PATH}'", None),
])
@users((MEMBER, STRANGER))
def test_calls_and_replies_of_others_cannot_be_overheard(served, people, user, rule, error):
    listener = people(user)
    assert outcome(listener.call_bus("AddMatch", rule)) == error
    assert served.call("Read", "s", "k").string() == "v"
    listener.send("GetId", interface=BUS_DAEMON, path="/", destination=BUS_DAEMON)
    heard = [listener.receive_any()]
    while heard[-1].kind != METHOD_RETURN:
        heard.append(listener.receive_any())
    assert {message.sender for message in heard} == {BUS_DAEMON}


@users((MEMBER, STRANGER))
def test_file_is_for_the_daemon_alone(served, world, user):
    with user.acting():
        for mode in (os.O_RDONLY, os.O_WRONLY):
            with pytest.raises(PermissionError):
                os.open(world.registry, mode)
        with pytest.raises(PermissionError):
            os.open(world.registry.with_name("registry~~new"), os.O_WRONLY | os.O_CREAT)
        with pytest.raises(PermissionError):
            world.registry.unlink()


class TestOnABusThatIsOpen:
    """A distribution's configuration may let everybody call; the policy closes the registry by itself."""

    @pytest.fixture
    def make_bus(self, policies):
        everything = '<policy context="default"><allow own="*"/><allow send_type="method_call"/></policy>'
        # Goes before the policy's rules for the group, wherever it is read.
        everything += f'<policy user="{MEMBER.name}"><allow send_type="method_call"/></policy>'
        # These precede the policy's rules in its own file, because the last rule of a context wins and the bus reads
        # the files of a directory in any order.
        opened = {name: text.replace("<busconfig>", f"<busconfig>{everything}") for name, text in policies.items()}
        return lambda directory: SystemBus(directory, opened)

    def test_registry_is_closed_all_the_same(self, served, people):
        client = people(STRANGER)
        for member, (arguments, _) in METHODS.items():
            assert outcome(client.call(member, *arguments)) == ACCESS_DENIED, member
        for name, (member, arguments, options, _) in OTHER_CALLS.items():
            assert outcome(client.call(member, *arguments, **options)) == ACCESS_DENIED, name
        assert outcome(client.call_bus("RequestName", BUS_NAME, 2)) == ACCESS_DENIED
        assert outcome(client.call_bus("RequestName", "com.tavimesh.Another", 0)) is None, "the bus is open"
        member = people(MEMBER)
        assert member.call("Read", "s", "k").string() == "v"
        with open(os.devnull, "rb") as file:
            assert outcome(member.call("Read", "s", "k", descriptors=[file.fileno()])) == ACCESS_DENIED


class TestWithoutTheGroup:
    """A system that has not made the group yet: the bus starts, and the registry is root's."""

    @pytest.fixture
    def make_bus(self, policies):
        return lambda directory: SystemBus(directory, policies, accounts={"group": "root:x:0:\n"})

    def test_registry_is_for_root_alone(self, served, people):
        assert served.call("Read", "s", "k").string() == "v"
        for user in (MEMBER, STRANGER):
            assert outcome(people(user).call("Read", "s", "k")) == ACCESS_DENIED, user
