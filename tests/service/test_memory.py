"""Each allocation of a served call fails in its turn, whether the daemon, libdbus or dbus-c++ makes it. The daemon
continues to serve, or ends with a line on standard error. A result is complete. The file is one whole accepted text."""

import contextlib
import mmap
import select

import pytest

from victim import Victim
from world.harness import wait_for
from world.raw_client import ERROR, RawClient

LONG = "a value that is longer than the buffer within a string object"
# More than any call makes.
MANY = 1 << 30

# The registry before each call; the last change is not written yet.
WRITTEN = {"k": LONG}
PENDING = {**WRITTEN, "pending": "1"}

# The arguments of each call, and the registry after it.
CALLS = {
    "Write": (("net", "ip", LONG + LONG), {**PENDING, "ip": LONG + LONG}),
    "Read": (("net", "k"), PENDING),
    "SectionList": ((), PENDING),
    "KeyList": (("net",), PENDING),
    "DeleteKey": (("net", "k"), {"pending": "1"}),
    "ReadAllJson": ((), PENDING),
    "WriteJson": (('{"net":{"k":"1"}}',), {**PENDING, "k": "1"}),
    "Flush": ((), PENDING),
    "NoSuchMethod": ((), PENDING),
}


@pytest.fixture
def countdown(world):
    """The number of allocations until one fails, 0 for none: an integer in memory that the daemon shares."""
    path = world.path / "allocations"
    path.write_bytes(bytes(4))
    with path.open("r+b") as file:
        return memoryview(mmap.mmap(file.fileno(), 4)).cast("i")


@pytest.fixture
def victim(world, countdown, build):
    return Victim(world, ("env", f"LD_PRELOAD={build.failing_malloc}",
                          f"LEDGERD_TEST_ALLOCATIONS={world.path}/allocations"))


def prepare(victim):
    victim.revive()
    victim.client.delete_all()
    victim.client.write("net", "k", LONG)
    victim.client.flush()
    victim.client.write("net", "pending", "1")


def allocations_and_reply(victim, countdown, member):
    with contextlib.closing(RawClient(victim.world.bus)) as raw:
        countdown[0] = MANY
        reply = raw.call(member, *CALLS[member][0])
        countdown[0], left = 0, countdown[0]
    return MANY - left, reply.body


def ends(victim, countdown, number, member, whole_reply):
    """Returns whether the daemon ends if this allocation of the call fails. Otherwise it serves the next call."""
    with contextlib.closing(RawClient(victim.world.bus)) as raw:
        countdown[0] = number
        call = raw.send(member, *CALLS[member][0])
        # A call whose error has no memory gets no reply. A call can make fewer allocations than the one that was
        # counted, because libdbus reuses messages.
        wait_for(lambda: countdown[0] == 0 or select.select([raw.socket], [], [], 0)[0],
                 f"allocation {number} fails, or the call is answered")
        countdown[0] = 0
        next_call = raw.send("SectionList")
        reply = raw.receive()
        if reply.reply_serial == call:
            assert reply.kind == ERROR or reply.body == whole_reply, number
            reply = raw.receive()
        assert reply.reply_serial == next_call
        return reply.kind == ERROR


@pytest.mark.parametrize("member", CALLS)
def test_failed_allocation_leaves_a_whole_file_and_a_daemon_that_serves_or_reports_its_end(victim, countdown, member):
    accepted = ["[net]\n" + "".join(f"{key}={value}\n" for key, value in sorted(keys.items()))
                for keys in (WRITTEN, PENDING, CALLS[member][1])]
    prepare(victim)
    allocations, whole_reply = allocations_and_reply(victim, countdown, member)
    assert allocations > 10
    for number in range(1, allocations + 1):
        prepare(victim)
        if ends(victim, countdown, number, member, whole_reply):
            victim.daemon.wait_end()
            assert victim.daemon.take_stderr().endswith("\n"), number
        assert victim.world.registry_bytes().decode() in accepted, number
