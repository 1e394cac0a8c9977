"""Every error that a system call can give, in every step of the file's first read and of its replacement. The table and
its rules are in fault_table; here each row is tried on the unmodified daemon."""

import os
import re
import signal

import pytest

from world import observe
from fault_table import PARTIAL_WRITE_FAULTS, READ_FAULTS, REMOVAL_FAULTS, REPLACEMENT, REPLACEMENT_FAULTS
from injection import FILE, NEW, Injection, injected, rule, steps
from world.observe import needs_strace
from victim import OLD, Victim, files

pytestmark = needs_strace

NO_REPLY = "org.freedesktop.DBus.Error.NoReply"


@pytest.fixture(scope="module")
def lasting_victim(lasting_world):
    return Victim(lasting_world)


@pytest.fixture
def victim(lasting_victim):
    """Another daemon if the test before has ended it."""
    lasting_victim.revive()
    return lasting_victim


def recovered(victim, text):
    """With the fault gone the pending text is written, and nothing is left to write."""
    assert victim.client.read_all_json() == '{"net":{"ip":"%s"}}' % text.decode().split("=")[1].strip()
    assert victim.flush() is None
    assert victim.folder() == files(text)
    with Injection(victim.daemon, []) as nothing:
        assert victim.flush() is None
    assert steps(nothing.lines()) == []


@pytest.mark.parametrize("old", [OLD, None], ids=["file", "no file"])
@pytest.mark.parametrize("trigger", ["Flush", "WriteJson"])
@pytest.mark.parametrize("fault", REPLACEMENT_FAULTS, ids=str)
def test_replacement_fails_as_a_whole(victim, fault, trigger, old):
    text = victim.prepare(old)
    arguments = ["{}"] if trigger == "WriteJson" else []
    descriptors = victim.descriptors()
    with Injection(victim.daemon, [rule(fault.step, f"error={fault.error}", f"1{fault.lasting}")]) as first:
        assert victim.answer(trigger, *arguments) == fault.message
        assert victim.folder() == files(old if fault.message else text)
        # Nobody may be told of a success that was not one: the next flush tries again, and meets the fault or not.
        if fault.message:
            assert victim.flush() == (fault.message if fault.lasting else None)
            assert victim.folder() == files(old if fault.lasting else text)
    again = [] if fault.message is None else fault.steps if fault.lasting else REPLACEMENT
    assert steps(first.lines()) == [*fault.steps, *again]
    assert injected(first.lines()) == (2 if fault.lasting and fault.message else 1)
    # A close that was not carried out is no leak of the daemon's.
    not_closed = injected(first.lines()) if fault.step == "close" else 0
    assert victim.descriptors() == descriptors + not_closed
    recovered(victim, text)


@pytest.mark.parametrize("fault, error", REMOVAL_FAULTS, ids=[f"{fault}, remove {error}"
                                                              for fault, error in REMOVAL_FAULTS])
def test_new_file_that_cannot_be_removed_changes_nothing_else(victim, fault, error):
    text = victim.prepare(OLD)
    with Injection(victim.daemon, [rule(fault.step, f"error={fault.error}", "1"),
                                   rule("remove", f"error={error}", "1")]) as injection:
        assert victim.flush() == fault.message
        assert victim.folder() == files(OLD, fault.left_behind(text))
    assert steps(injection.lines()) == fault.steps
    assert injected(injection.lines()) == 2
    recovered(victim, text)


@pytest.mark.parametrize("fault", PARTIAL_WRITE_FAULTS, ids=str)
def test_fault_behind_a_partial_write_fails_the_replacement(victim, fault):
    text = victim.prepare(OLD)
    with Injection(victim.daemon, [rule("write", f"error={fault.error}", f"2{fault.lasting}")]) as injection:
        victim.limit_file_size(len("[net]"))
        assert victim.flush() == fault.message
        victim.limit_file_size()
        assert victim.folder() == files(OLD)
        assert victim.flush() == (fault.message if fault.lasting else None)
    assert steps(injection.lines())[:6] == ["access", "open", "write", "write", "close", "remove"]
    assert injected(injection.lines()) == (2 if fault.lasting else 1)
    recovered(victim, text)


@pytest.mark.parametrize("when, times", [("1", 1), ("1..3", 3), ("1+", None)], ids=["once", "thrice", "ever"])
@pytest.mark.parametrize("taken", [1, 5])
def test_partial_writes_are_gone_on_with_at_the_right_place(victim, taken, when, times):
    """strace only pretends that the kernel has taken the bytes, so what was gone on with is all that the file gets."""
    text = victim.prepare(OLD)
    assert len(text) % taken == 0
    with Injection(victim.daemon, [rule("write", f"retval={taken}", when)]) as injection:
        assert victim.flush() is None
    skipped = len(text) if times is None else taken * times
    assert victim.folder() == files(text[skipped:])
    writes = [step for step in steps(injection.lines()) if step == "write"]
    assert len(writes) == (len(text) // taken if times is None else times + 1)


@pytest.mark.parametrize("new", [b"", b"[net]"], ids=["first", "behind a partial one"])
def test_write_that_takes_nothing_is_a_failed_assertion(victim, new):
    world, daemon = victim.world, victim.daemon
    victim.prepare(OLD)
    if new:
        victim.limit_file_size(len(new))
    with Injection(daemon, [rule("write", "retval=0", "2" if new else "1")]):
        assert victim.client.error("Flush")[0] == NO_REPLY
        assert daemon.wait_end() == -signal.SIGABRT
    assert re.fullmatch(rf"<2>User space assert from process {daemon.pid}: n != 0\n"
                        r"ASSERT Executing lib/platform/posix_helpers\.cpp:\d+:[^\n]*write_all_throw[^\n]*\n",
                        world.kernel_log.take())
    # Nobody is left to remove the new file; the next replacement does.
    assert victim.folder() == files(OLD, new)
    victim.revive()
    assert victim.client.read_all_json() == '{"net":{"ip":"old"}}'
    assert victim.folder() == files(OLD, new)
    recovered(victim, victim.prepare(OLD))


@pytest.mark.parametrize("fault", READ_FAULTS, ids=str)
def test_first_read_that_fails_is_an_empty_registry(world, fault):
    world.registry.write_bytes(OLD)
    strace = observe.Strace(world, "-P", FILE, rule(fault.step, f"error={fault.error}", fault.when))
    daemon = world.start(wrapper=strace.wrapper)
    client = daemon.client()
    assert daemon.take_stderr() == fault.printed
    loaded = fault.is_harmless
    assert client.read_all_json() == ('{"net":{"ip":"old"}}' if loaded else "{}")
    # The file is not written before there is something to write.
    client.flush()
    assert world.registry_bytes() == OLD
    client.write("net", "mask", "24")
    client.flush()
    client.close()
    daemon.stop()
    assert world.registry_bytes() == (b"[net]\nip=old\nmask=24\n" if loaded else b"[net]\nmask=24\n")
    assert os.listdir(world.registry.parent) == ["registry"]
    reading = [line for line in strace.finished_lines(daemon) if NEW not in line and "W_OK" not in line]
    assert steps(reading) == fault.steps
