"""The shipped policy, on the system bus in Debian's configuration, determines who can call the registry."""

import contextlib
import os
import re
import signal
import socket
import stat
import struct
import threading

import pytest

from documents import SOURCES
from world.harness import BUS_NAME, INTERFACE, OBJECT_PATH, PATIENCE, wait_for
from world.namespace_world import as_user, needs_root
from world.raw_client import (BUS_DAEMON, ERROR, ERROR_NAME_FIELD, METHOD_CALL, METHOD_RETURN, NO_REPLY_EXPECTED,
                              REPLY_SERIAL_FIELD, SIGNAL)
from world.system_bus import (ACCESS_DENIED, ACCOUNTS, FIRST_GROUP_MEMBER, LISTED, MEMBER, PLAYER, ROOT, STRANGER,
                              SystemBus, error_name)

pytestmark = needs_root

POLICY = f"{BUS_NAME}.conf"
SHIPPED = (SOURCES / "packaging" / POLICY).read_text()
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
ALLOWED = (ROOT, MEMBER, FIRST_GROUP_MEMBER)
REFUSED = (STRANGER, LISTED)

# The arguments of each method and the type of its reply. In this order, each method finds the data that it needs.
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

INTROSPECTABLE = {"interface": "org.freedesktop.DBus.Introspectable"}
PEER = {"interface": "org.freedesktop.DBus.Peer"}
# Other calls that the object answers, with the error that a permitted caller gets.
OTHER_CALLS = [
    ("Introspect", (), INTROSPECTABLE, None),
    ("Introspect", (), {**INTROSPECTABLE, "path": "/"}, None),
    ("Ping", (), PEER, None),
    ("GetMachineId", (), PEER, None),
    ("GetAll", (INTERFACE,), {"interface": "org.freedesktop.DBus.Properties"}, UNKNOWN_METHOD),
    ("Read", ("s", "k"), {"interface": "com.tavimesh.Other"}, UNKNOWN_METHOD),
    ("Nothing", (), {}, UNKNOWN_METHOD),
    ("Read", ("s", "k"), {"interface": None}, None),
    ("Nothing", (), {"interface": None}, UNKNOWN_METHOD),
]


def users(group):
    return pytest.mark.parametrize("user", group, ids=[user.name for user in group])


@pytest.fixture
def make_bus(request):
    """The bus has the shipped policy and no other, unless the test names other options."""
    options = {"policies": {POLICY: SHIPPED}, **getattr(request, "param", {})}
    return lambda directory: SystemBus(directory, **options)


@pytest.fixture
def people(world):
    """A function that connects a user to the bus."""
    with contextlib.ExitStack() as stack:
        yield lambda user: stack.enter_context(contextlib.closing(user.connect(world.bus)))


@pytest.fixture
def served(world, daemon, people):
    """Root's client. Before and after the test, checks that only root can read and write the registry file."""
    def check_file():
        assert error_name(client.call("Flush")) is None
        status = world.registry.stat()
        assert (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)) == (0, 0, 0o600)

    client = people(ROOT)
    assert error_name(client.call("WriteJson", '{"s":{"k":"v"}}')) is None
    check_file()
    yield client
    check_file()
    assert os.listdir(world.registry.parent) == ["registry"]


@pytest.fixture
def owner(served):
    """The unique name of the daemon."""
    return served.call_bus("GetNameOwner", BUS_NAME).string()


@users(ALLOWED)
def test_calls_of_root_and_of_the_group_are_answered(served, owner, people, user):
    client = people(user)
    for member, (arguments, signature) in METHODS.items():
        reply = client.call(member, *arguments)
        assert (reply.kind, reply.signature) == (METHOD_RETURN, signature), f"{member}: {reply}"
    for member, arguments, options, error in OTHER_CALLS:
        assert error_name(client.call(member, *arguments, **options)) == error, (member, options)
    assert client.call("Read", "s", "k", destination=owner).string() == "v"
    assert served.call("ReadAllJson").string() == '{"s":{"k":"v"}}'


def check_refused(client, served):
    """Everything that the client calls is refused and changes nothing."""
    other = {"Write": ("s", "k", "other"), "WriteJson": ('{"s":{"k":"other"}}',)}
    calls = [(member, other.get(member, arguments), {}) for member, (arguments, _) in METHODS.items()]
    # If the bus refuses a call, it sends an error even if the caller expects no reply.
    calls += [("DeleteAll", (), {"flags": NO_REPLY_EXPECTED}),
              *((member, arguments, options) for member, arguments, options, _ in OTHER_CALLS)]
    for member, arguments, options in calls:
        assert error_name(client.call(member, *arguments, **options)) == ACCESS_DENIED, (member, options)
    assert served.call("ReadAllJson").string() == '{"s":{"k":"v"}}'


@users(REFUSED)
def test_calls_of_others_are_refused(served, owner, people, user):
    client = people(user)
    check_refused(client, served)
    assert error_name(client.call("Read", "s", "k", destination=owner)) == ACCESS_DENIED


@users(ALLOWED)
def test_call_with_descriptors_is_refused(served, people, user):
    client = people(user)
    with open(os.devnull, "rb") as file:
        for number in (1, 2, 14):
            for member, (arguments, _) in METHODS.items():
                reply = client.call(member, *arguments, descriptors=[file.fileno()] * number)
                assert error_name(reply) == ACCESS_DENIED, (member, number)
    assert client.call("Read", "s", "k").string() == "v"


@pytest.fixture
def lingering():
    """An open descriptor of a socket. Its last close waits longer than any test, because the peer never reads."""
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
    # If the daemon gets a copy of the descriptor, its copy must be the last one that is closed.
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
        assert error_name(client.call_bus("RequestName", BUS_NAME, flags)) == ACCESS_DENIED
    daemon = world.start("-d", wait=False, wrapper=as_user(user.user))
    assert daemon.wait_end() == 0
    assert re.search(rf'not allowed to own the service "{BUS_NAME}"', daemon.take_stderr())


def test_running_daemon_keeps_its_name_on_the_bus(served, people):
    owner = served.call_bus("GetNameOwner", BUS_NAME).string()
    for user in (MEMBER, STRANGER):
        client = people(user)
        assert error_name(client.call_bus("RequestName", BUS_NAME, 2)) == ACCESS_DENIED
        assert error_name(client.call_bus("ReleaseName", BUS_NAME)) is None, "the reply says 'not the owner'"
    assert served.call_bus("GetNameOwner", BUS_NAME).string() == owner


@pytest.mark.parametrize("kind, fields", [
    (SIGNAL, ()),
    (METHOD_RETURN, [(REPLY_SERIAL_FIELD, "u", 1)]),
    (ERROR, [(REPLY_SERIAL_FIELD, "u", 1), (ERROR_NAME_FIELD, "s", "com.tavimesh.Stray")]),
], ids=["signal", "reply", "error"])
def test_stray_messages_of_others_do_not_arrive(world, people, kind, fields):
    service = people(ROOT)
    assert error_name(service.call_bus("RequestName", BUS_NAME, 0)) is None
    member = people(MEMBER)
    with open(os.devnull, "rb") as file:
        for client, number in [(people(STRANGER), 0), (people(STRANGER), 1), (member, 1), (people(ROOT), 1)]:
            reply = client.call("Changed", kind=kind, more_fields=fields, descriptors=[file.fileno()] * number)
            assert error_name(reply) == ACCESS_DENIED
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
    assert error_name(listener.call_bus("AddMatch", rule)) == error
    assert served.call("Read", "s", "k").string() == "v"
    listener.send("GetId", interface=BUS_DAEMON, path="/", destination=BUS_DAEMON)
    heard = [listener.receive_any()]
    while heard[-1].kind != METHOD_RETURN:
        heard.append(listener.receive_any())
    assert {message.sender for message in heard} == {BUS_DAEMON}


# A distribution's configuration may permit all calls. These rules precede the others in the policy's own file, because
# the last rule of a context wins, and the bus reads the files of a directory in any order.
OPEN = ('<busconfig><policy context="default"><allow own="*"/><allow send_type="method_call"/></policy>'
        f'<policy user="{MEMBER.name}"><allow send_type="method_call"/></policy>')


@pytest.mark.parametrize("make_bus", [{"policies": {POLICY: SHIPPED.replace("<busconfig>", OPEN)}}], indirect=True,
                         ids=["open bus"])
def test_policy_closes_the_registry_on_a_bus_that_permits_all_calls(served, people):
    client = people(STRANGER)
    check_refused(client, served)
    assert error_name(client.call_bus("RequestName", BUS_NAME, 2)) == ACCESS_DENIED
    assert error_name(client.call_bus("RequestName", "com.tavimesh.Another", 0)) is None, "the bus is open"
    member = people(MEMBER)
    assert member.call("Read", "s", "k").string() == "v"
    with open(os.devnull, "rb") as file:
        assert error_name(member.call("Read", "s", "k", descriptors=[file.fileno()])) == ACCESS_DENIED


SHOWN = re.search(r"(?s)( {4}<busconfig>.*</busconfig>)", (SOURCES / "docs/integration.md").read_text())[1]


@pytest.mark.parametrize("make_bus, permitted, refused", [
    ({"accounts": {**ACCOUNTS, "group": "root:x:0:\n"}}, (ROOT,), (MEMBER, STRANGER)),
    ({"policies": {POLICY: SHIPPED, "com.example.player.conf": SHOWN}}, (PLAYER, MEMBER), (STRANGER,)),
], indirect=["make_bus"], ids=["without the group", "with the policy of the guide"])
def test_other_systems_permit_other_users(served, people, permitted, refused):
    for user in permitted:
        assert people(user).call("Read", "s", "k").string() == "v", user
    for user in refused:
        assert error_name(people(user).call("Read", "s", "k")) == ACCESS_DENIED, user
