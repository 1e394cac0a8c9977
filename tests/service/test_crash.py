"""The process is killed at each step of the file's replacement, and at random moments: the file is always one whole
text that was accepted, and the next start loads it.

LEDGERD_TEST_SEED chooses other random moments, --rounds more of them."""

import os
import random
import signal
import time

import pytest

from world import observe
from injection import FILE, NEW, STEPS, Injection
from model import parse
from world.raw_client import METHOD_RETURN, RawClient
from victim import OLD, Victim, files

SEED = int(os.environ.get("LEDGERD_TEST_SEED", "20240229"))

STALE = b"[stale]\n" + b"x" * 20000

# Longer than a write and a flush take together, and longer than a replacement, on any machine that is not too slow to
# be of use here.
LONGEST_CYCLE = 400e-6
LONGEST_REPLACEMENT = 30e-6
MOST_PATIENCE = 0.02


@pytest.fixture(scope="module")
def lasting_victim(lasting_world):
    return Victim(lasting_world, observe.without_leak_check())


@pytest.fixture
def victim(lasting_victim):
    """Another daemon if the test before has ended it."""
    lasting_victim.revive()
    return lasting_victim


def kill_at(calls):
    """strace's options to kill the process before it makes the first of these calls."""
    names = ",".join(f"?{name}" for name in calls)
    return [f"--trace={names}", f"--inject={names}:signal=KILL:when=1"]


# What is left when the process is killed just before each step; "end" is the first call after the replacement.
REPLACED = {"access": False, "open": False, "write": False, "close": False, "rename": False, "end": True}


def left_new(step, stale, text):
    """What the new file then holds, None for no file."""
    return {"access": stale, "open": stale, "write": b"", "close": text, "rename": text, "end": None}[step]


# What makes the daemon write, and its next call after that.
TRIGGERS = {"flush": ("sendmsg",), "import": ("sendmsg",), "end": ("exit_group",)}


def pull(victim, trigger):
    if trigger == "end":
        victim.daemon.signal(signal.SIGTERM)
    else:
        call = ("Flush",) if trigger == "flush" else ("WriteJson", "{}")
        assert victim.client.error(*call)[0] == "org.freedesktop.DBus.Error.NoReply"
    assert victim.daemon.wait_end() == -signal.SIGKILL


def check_next_life(victim, text, new):
    """The next daemon loads `text`, finds nothing wrong with a new file that was left, and replaces it."""
    victim.revive()
    keys = parse(text or b"").get(b"net", {})
    assert victim.client.key_list("net") == {key.decode(): value.decode() for key, value in keys.items()}
    assert victim.folder() == files(text, new)
    victim.client.write("net", "ip", "x")
    assert victim.flush() is None
    assert victim.folder() == files(b"[net]\nip=x\n")


@observe.needs_strace
@pytest.mark.parametrize("old", [OLD, None], ids=["file", "no file"])
@pytest.mark.parametrize("stale", [STALE, None], ids=["stale new file", "no new file"])
@pytest.mark.parametrize("trigger", TRIGGERS)
@pytest.mark.parametrize("step", REPLACED)
def test_crash_before_each_step_leaves_a_whole_text(victim, step, trigger, stale, old):
    text = victim.prepare(old)
    if stale is not None:
        victim.world.registry.with_name("registry~~new").write_bytes(stale)
    calls, paths = (TRIGGERS[trigger], ()) if step == "end" else (STEPS[step], (FILE, NEW))
    with Injection(victim.daemon, kill_at(calls), paths):
        pull(victim, trigger)
    left = text if REPLACED[step] else old
    new = left_new(step, stale, text)
    assert victim.folder() == files(left, new)
    check_next_life(victim, left, new)


@observe.needs_strace
def test_crash_in_the_middle_of_the_text_leaves_the_old_one(victim):
    victim.prepare(OLD)
    victim.limit_file_size(len("[net]"))
    with Injection(victim.daemon, ["--trace=write", "--inject=write:signal=KILL:when=2"]):
        pull(victim, "flush")
    assert victim.folder() == files(OLD, b"[net]")
    check_next_life(victim, OLD, b"[net]")


class Storm:
    """Writes and flushes without a pause. Each text is told from all others by a number and by its length."""

    def __init__(self, world, source):
        self.world = world
        self.source = source
        self.victim = Victim(world)
        self.values = ["0"]
        self.killed_with_new_file = 0
        self.killed_with_calls_pending = 0

    def text(self, number):
        return f"[storm]\nvalue={self.values[number]}\n".encode()

    def next_value(self):
        longest = self.source.choice([10, 300, 5000, 16000])
        self.values.append(f"{len(self.values)}:" + "x" * self.source.randrange(longest))
        return self.values[-1]

    def round(self):
        """Kills a daemon, after which the file must hold a text from between the last that was confirmed and the last
        that was sent."""
        raw = RawClient(self.world.bus)
        assert raw.call("Write", "storm", "value", self.next_value()).kind == METHOD_RETURN
        assert raw.call("Flush").kind == METHOD_RETURN
        confirmed = len(self.values) - 1
        # With that the new file is gone that the round before may have left.
        assert self.victim.folder() == files(self.text(confirmed))

        pairs = self.source.randrange(1, 60)
        for _ in range(pairs):
            raw.send("Write", "storm", "value", self.next_value())
            raw.send("Flush")
        replies = self.source.randrange(2 * pairs)
        kinds = [raw.receive().kind for _ in range(replies)]
        self.pass_time()
        self.victim.daemon.signal(signal.SIGKILL)
        assert self.victim.daemon.wait_end() == -signal.SIGKILL

        # The bus answers in the daemon's place what is left.
        kinds += [raw.receive().kind for _ in range(2 * pairs - replies)]
        answered = kinds.count(METHOD_RETURN)
        assert kinds[:answered] == [METHOD_RETURN] * answered
        confirmed += answered // 2
        raw.close()
        self.check_file(confirmed)
        self.killed_with_new_file += len(self.victim.folder()) - 1
        self.killed_with_calls_pending += answered < 2 * pairs

    def pass_time(self):
        """To a moment anywhere, or within a replacement. Spins, for sleeping would be much too coarse."""
        pause = self.source.uniform(0, LONGEST_CYCLE)
        if self.source.random() < 0.5:
            pause = self.source.uniform(0, LONGEST_REPLACEMENT)
            new, end = f"{self.world.registry}~~new", time.perf_counter() + MOST_PATIENCE
            while not os.path.exists(new) and time.perf_counter() < end:
                pass
        end = time.perf_counter() + pause
        while time.perf_counter() < end:
            pass

    def check_file(self, confirmed):
        found = self.world.registry_bytes()
        texts = [self.text(number) for number in range(confirmed, len(self.values))]
        assert found in texts, f"text {confirmed} of {len(self.values)} was confirmed, found {found[:40]!r}"

    def check_start(self):
        found = self.victim.folder()
        self.victim.revive()
        value = self.victim.client.read("storm", "value")
        assert f"[storm]\nvalue={value}\n".encode() == found["registry"]
        assert self.victim.folder() == found


def test_crash_at_any_moment_leaves_a_whole_text(world, request):
    rounds = request.config.getoption("--rounds")
    storm = Storm(world, random.Random(SEED))
    world.registry.write_bytes(storm.text(0))
    for number in range(rounds):
        try:
            storm.check_start()
            storm.round()
        except AssertionError as e:
            raise AssertionError(f"LEDGERD_TEST_SEED={SEED}, round {number}: {e}") from e
    print(f"{rounds} kills, {storm.killed_with_calls_pending} of them with calls pending, "
          f"{storm.killed_with_new_file} with the new file there, {len(storm.values)} texts")
    # Kills when all is done would prove little.
    assert storm.killed_with_calls_pending > rounds // 4
