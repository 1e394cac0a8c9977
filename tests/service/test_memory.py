"""Each allocation of a served call fails in its turn, whether the daemon, libdbus or dbus-c++ makes it. The daemon goes
on serving, or ends with a line on standard error. The file is a whole text that was accepted."""

import mmap
import select
import struct

import pytest

from world.harness import wait_for
from world.raw_client import ERROR, RawClient
from victim import Victim

LONG = "a value that is longer than the buffer within a string object"
# More than any call makes.
MANY = 1 << 30

# The registry before each call; the last change is not written yet.
WRITTEN = {"k": LONG}
PENDING = {**WRITTEN, "pending": "1"}

CALLS = {
    "Write": ("net", "ip", LONG + LONG),
    "Read": ("net", "k"),
    "SectionList": (),
    "KeyList": ("net",),
    "DeleteKey": ("net", "k"),
    "ReadAllJson": (),
    "WriteJson": ('{"net":{"k":"1"}}',),
    "Flush": (),
    "NoSuchMethod": (),
}

CHANGED = {
    "Write": {**PENDING, "ip": LONG + LONG},
    "DeleteKey": {"pending": "1"},
    "WriteJson": {**PENDING, "k": "1"},
}

# dbus-c++ does not notice that libdbus has no memory for an entry of a dictionary, and the process ends without a line.
SILENT_ENDS = {"KeyList": 1}


class Countdown:
    """How many allocations the daemon makes until one fails; 0 for none."""

    def __init__(self, path):
        path.write_bytes(bytes(4))
        with path.open("r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 4)

    @property
    def number(self):
        return struct.unpack("i", self.memory)[0]

    @number.setter
    def number(self, number):
        self.memory[:] = struct.pack("i", number)


@pytest.fixture
def countdown(world):
    return Countdown(world.path / "allocations")


@pytest.fixture
def victim(world, countdown, request):
    library = request.config.getoption("--failing-malloc")
    return Victim(world, ("env", f"LD_PRELOAD={library}", f"LEDGERD_TEST_ALLOCATIONS={world.path}/allocations"))


def file_text(keys):
    return ("[net]\n" + "".join(f"{key}={value}\n" for key, value in sorted(keys.items()))).encode()


def prepare(victim):
    victim.revive()
    victim.client.delete_all()
    victim.client.write("net", "k", LONG)
    victim.client.flush()
    victim.client.write("net", "pending", "1")


def allocations_of(victim, countdown, member):
    raw = RawClient(victim.world.bus)
    countdown.number = MANY
    raw.call(member, *CALLS[member])
    countdown.number, left = 0, countdown.number
    raw.close()
    return MANY - left


def ends(victim, countdown, number, member):
    """Whether the daemon ends when this allocation of the call fails. If not, it serves the next call."""
    raw = RawClient(victim.world.bus)
    countdown.number = number
    raw.send(member, *CALLS[member])
    # A call whose error has no memory either stays without a reply. A call can also make fewer allocations than the one
    # that was counted: libdbus reuses messages.
    wait_for(lambda: countdown.number == 0 or select.select([raw.socket], [], [], 0)[0],
             f"allocation {number} fails, or the call is answered")
    countdown.number = 0
    next_call = raw.send("SectionList")
    replies = iter(raw.receive, None)
    kind = next(reply.kind for reply in replies if reply.reply_serial == next_call)
    raw.close()
    return kind == ERROR


@pytest.mark.parametrize("member", CALLS)
def test_failed_allocation_leaves_a_whole_file_and_a_daemon_that_serves_or_reports_its_end(victim, countdown, member):
    accepted = [file_text(keys) for keys in (WRITTEN, PENDING, CHANGED.get(member, PENDING))]
    prepare(victim)
    allocations = allocations_of(victim, countdown, member)
    assert allocations > 10
    silent_ends = []
    for number in range(1, allocations + 1):
        prepare(victim)
        if ends(victim, countdown, number, member):
            victim.daemon.wait_end()
            if not victim.daemon.take_stderr().endswith("\n"):
                silent_ends.append(number)
        assert victim.world.registry_bytes() in accepted, number
    assert len(silent_ends) == SILENT_ENDS.get(member, 0), silent_ends
