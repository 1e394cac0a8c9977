"""SIGKILL before each step of the file's replacement, and at random moments: the file is always one whole text that was
accepted, and the next start loads it. LEDGERD_TEST_SEED chooses other random moments, --rounds their number."""

import os
import random
import signal
import time

import pytest

from world import observe
from file_calls import FILE, NEW, STEPS, Injection
from model import parse
from world.raw_client import METHOD_RETURN, RawClient
from victim import OLD, Victim, files

SEED = int(os.environ.get("LEDGERD_TEST_SEED", "20240229"))

STALE = b"[stale]\n" + b"x" * 20000

# In seconds: more than most machines need for a write and a flush, and for a replacement; the longest wait for a
# replacement.
LONGEST_CYCLE = 400e-6
LONGEST_REPLACEMENT = 30e-6
MOST_PATIENCE = 0.02


@pytest.fixture(scope="module")
def victim(lasting_world):
    return Victim(lasting_world, observe.without_leak_check())


def kill_before(calls):
    """strace's options to kill the process before the first of these calls."""
    names = ",".join(f"?{name}" for name in calls)
    return [f"--trace={names}", f"--inject={names}:signal=KILL:when=1"]


# The contents of both files after a kill before each step of the replacement; "end" is the next call after it.
LEFT = {"access": ("old", "stale"), "open": ("old", "stale"), "write": ("old", "empty"), "close": ("old", "text"),
        "rename": ("old", "text"), "end": ("text", "none")}

# The ways to make the daemon write, and its next call after that.
TRIGGERS = {"flush": ("sendmsg",), "import": ("sendmsg",), "end": ("exit_group",)}


def pull(victim, trigger):
    if trigger == "end":
        victim.daemon.signal(signal.SIGTERM)
    else:
        call = ("Flush",) if trigger == "flush" else ("WriteJson", "{}")
        assert victim.client.error(*call)[0] == "org.freedesktop.DBus.Error.NoReply"
    assert victim.daemon.wait_end() == -signal.SIGKILL


def check_next_life(victim, text, new):
    """The files have these contents. The next daemon loads `text`, leaves both alone, and replaces both."""
    assert victim.directory() == files(text, new)
    victim.revive()
    keys = parse(text or b"").get(b"net", {})
    assert victim.client.key_list("net") == {key.decode(): value.decode() for key, value in keys.items()}
    assert victim.directory() == files(text, new)
    victim.client.write("net", "ip", "x")
    assert victim.flush() is None
    assert victim.directory() == files(b"[net]\nip=x\n")


@observe.needs_strace
@pytest.mark.parametrize("old", [OLD, None], ids=["file", "no file"])
@pytest.mark.parametrize("stale", [STALE, None], ids=["stale new file", "no new file"])
@pytest.mark.parametrize("trigger", TRIGGERS)
@pytest.mark.parametrize("step", LEFT)
def test_crash_before_each_step_leaves_a_whole_text(victim, step, trigger, stale, old):
    text = victim.prepare(old)
    if stale is not None:
        victim.world.registry.with_name("registry~~new").write_bytes(stale)
    calls, paths = (TRIGGERS[trigger], ()) if step == "end" else (STEPS[step], (FILE, NEW))
    with Injection(victim.daemon, kill_before(calls), paths):
        pull(victim, trigger)
    contents = {"old": old, "stale": stale, "text": text, "empty": b"", "none": None}
    check_next_life(victim, *(contents[name] for name in LEFT[step]))


@observe.needs_strace
def test_crash_in_the_middle_of_the_text_leaves_the_old_one(victim):
    victim.prepare(OLD)
    victim.limit_file_size(len("[net]"))
    with Injection(victim.daemon, ["--trace=write", "--inject=write:signal=KILL:when=2"]):
        pull(victim, "flush")
    check_next_life(victim, OLD, b"[net]")


class Storm:
    """Writes and flushes without a pause. Each text has its own number."""

    def __init__(self, world, source):
        self.world = world
        self.source = source
        self.victim = Victim(world)
        self.values = ["0"]
        self.killed_with_new_file = 0
        self.killed_with_calls_pending = 0

    def text(self, number):
        return f"[storm]\nvalue={self.values[number]}\n".encode()

    def send_pairs(self, raw, count):
        for _ in range(count):
            longest = self.source.choice([10, 300, 5000, 16000])
            self.values.append(f"{len(self.values)}:" + "x" * self.source.randrange(longest))
            raw.send("Write", "storm", "value", self.values[-1])
            raw.send("Flush")

    def round(self):
        """Starts a daemon and kills it. Then the file must hold the last text that was confirmed, or a later one."""
        found = self.victim.directory()
        self.victim.revive()
        value = self.victim.client.read("storm", "value")
        assert f"[storm]\nvalue={value}\n".encode() == found["registry"]
        assert self.victim.directory() == found

        raw = RawClient(self.world.bus)
        self.send_pairs(raw, 1)
        assert [raw.receive().kind, raw.receive().kind] == [METHOD_RETURN, METHOD_RETURN]
        confirmed = len(self.values) - 1
        # The flush has also removed the new file of the previous round.
        assert self.victim.directory() == files(self.text(confirmed))

        pairs = self.source.randrange(1, 60)
        self.send_pairs(raw, pairs)
        replies = self.source.randrange(2 * pairs)
        kinds = [raw.receive().kind for _ in range(replies)]
        self.spin()
        self.victim.daemon.signal(signal.SIGKILL)
        assert self.victim.daemon.wait_end() == -signal.SIGKILL

        # The bus answers the other calls.
        kinds += [raw.receive().kind for _ in range(2 * pairs - replies)]
        raw.close()
        answered = kinds.count(METHOD_RETURN)
        assert kinds[:answered] == [METHOD_RETURN] * answered
        confirmed += answered // 2
        found = self.world.registry_bytes()
        assert found in [self.text(number) for number in range(confirmed, len(self.values))], \
            f"text {confirmed} of {len(self.values)} was confirmed, found {found[:40]!r}"
        self.killed_with_new_file += len(self.victim.directory()) - 1
        self.killed_with_calls_pending += answered < 2 * pairs

    def spin(self):
        """Waits for any moment, or for one within a replacement, which is too short for a sleep."""
        pause = self.source.uniform(0, LONGEST_CYCLE)
        if self.source.random() < 0.5:
            pause = self.source.uniform(0, LONGEST_REPLACEMENT)
            new, end = f"{self.world.registry}~~new", time.perf_counter() + MOST_PATIENCE
            while not os.path.exists(new) and time.perf_counter() < end:
                pass
        end = time.perf_counter() + pause
        while time.perf_counter() < end:
            pass


def test_crash_at_any_moment_leaves_a_whole_text(world, request):
    rounds = request.config.getoption("--rounds")
    storm = Storm(world, random.Random(SEED))
    world.registry.write_bytes(storm.text(0))
    for number in range(rounds):
        try:
            storm.round()
        except AssertionError as e:
            raise AssertionError(f"LEDGERD_TEST_SEED={SEED}, round {number}: {e}") from e
    print(f"{rounds} kills, {storm.killed_with_calls_pending} of them with calls pending, "
          f"{storm.killed_with_new_file} with a new file, {len(storm.values)} texts")
    # A kill after all calls would prove little.
    assert storm.killed_with_calls_pending > rounds // 4
