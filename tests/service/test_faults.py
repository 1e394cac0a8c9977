"""Each error of each system call that replaces the file, and faults of real disks. The table and its rules are in
fault_table.py. The fault of the deferred write is in test_background_flush_fault.py."""

import os
import re
import signal
import subprocess

import pytest

from attacked import EXCEPTION
from fault_table import PARTIAL_WRITE_FAULTS, REMOVAL_FAULTS, REPLACEMENT, REPLACEMENT_FAULTS
from file_calls import NEW, Injection, injected, rule, steps
from victim import OLD, Victim, files
from world import observe

NO_SPACE = "No space left on device (28)"


@pytest.fixture(scope="module")
def victim(lasting_world):
    return Victim(lasting_world)


def check_recovered(victim, text):
    """Without the fault the pending text is written, and nothing remains to be written."""
    assert victim.client.read_all_json() == '{"net":{"ip":"%s"}}' % text.decode().split("=")[1].strip()
    assert victim.flush() is None
    assert victim.directory() == files(text)
    with Injection(victim.daemon, []) as nothing:
        assert victim.flush() is None
    assert steps(nothing.lines()) == []


@observe.needs_strace
@pytest.mark.parametrize("old", [OLD, None], ids=["file", "no file"])
@pytest.mark.parametrize("trigger", [("Flush",), ("WriteJson", "{}")], ids=["Flush", "WriteJson"])
@pytest.mark.parametrize("fault", REPLACEMENT_FAULTS, ids=str)
def test_replacement_fails_as_a_whole(victim, fault, trigger, old):
    text = victim.prepare(old)
    descriptors = victim.descriptors()
    with Injection(victim.daemon, [rule(fault.step, f"error={fault.error}", fault.when)]) as first:
        assert victim.flush(*trigger) == fault.message
        assert victim.directory() == files(old if fault.message else text)
        # The next flush tries again.
        if fault.message:
            assert victim.flush() == (fault.message if fault.lasting else None)
            assert victim.directory() == files(old if fault.lasting else text)
    again = [] if fault.message is None else fault.steps if fault.lasting else REPLACEMENT
    assert steps(first.lines()) == [*fault.steps, *again]
    assert injected(first.lines()) == (2 if fault.lasting and fault.message else 1)
    # strace does not carry out a call that it makes fail, so that descriptor stays open.
    not_closed = injected(first.lines()) if fault.step == "close" else 0
    assert victim.descriptors() == descriptors + not_closed
    check_recovered(victim, text)


@observe.needs_strace
@pytest.mark.parametrize("fault, error", REMOVAL_FAULTS, ids=str)
def test_new_file_that_cannot_be_removed_changes_nothing_else(victim, fault, error):
    text = victim.prepare(OLD)
    with Injection(victim.daemon, [rule(fault.step, f"error={fault.error}", fault.when),
                                   rule("remove", f"error={error}", "1")]) as injection:
        assert victim.flush() == fault.message
        assert victim.directory() == files(OLD, fault.new_file(text))
    assert steps(injection.lines()) == fault.steps
    assert injected(injection.lines()) == 2
    check_recovered(victim, text)


@observe.needs_strace
@pytest.mark.parametrize("fault", PARTIAL_WRITE_FAULTS, ids=str)
def test_fault_after_a_partial_write_fails_the_replacement(victim, fault):
    text = victim.prepare(OLD)
    with Injection(victim.daemon, [rule("write", f"error={fault.error}", fault.when)]) as injection:
        victim.limit_file_size(len("[net]"))
        assert victim.flush() == fault.message
        victim.limit_file_size()
        assert victim.directory() == files(OLD)
        assert victim.flush() == (fault.message if fault.lasting else None)
    assert steps(injection.lines())[:6] == ["access", "open", "write", "write", "close", "remove"]
    assert injected(injection.lines()) == (2 if fault.lasting else 1)
    check_recovered(victim, text)


@observe.needs_strace
@pytest.mark.parametrize("when, times", [("1", 1), ("1..3", 3), ("1+", None)], ids=["once", "three times", "ever"])
@pytest.mark.parametrize("written", [1, 5])
def test_partial_writes_are_continued_at_the_right_byte(victim, written, when, times):
    """strace only pretends that the kernel has written the bytes, so the file gets the rest alone."""
    text = victim.prepare(OLD)
    assert len(text) % written == 0
    with Injection(victim.daemon, [rule("write", f"retval={written}", when)]) as injection:
        assert victim.flush() is None
    skipped = len(text) if times is None else written * times
    assert victim.directory() == files(text[skipped:])
    assert steps(injection.lines()).count("write") == (len(text) // written if times is None else times + 1)


@observe.needs_strace
@pytest.mark.parametrize("new", [b"", b"[net]"], ids=["first", "after a partial one"])
def test_write_of_no_byte_is_a_failed_assertion(victim, new):
    victim.prepare(OLD)
    daemon = victim.daemon
    if new:
        victim.limit_file_size(len(new))
    with Injection(daemon, [rule("write", "retval=0", "2" if new else "1")]):
        assert victim.client.error("Flush")[0] == "org.freedesktop.DBus.Error.NoReply"
        assert daemon.wait_end() == -signal.SIGABRT
    assert re.fullmatch(rf"<2>User space assert from process {daemon.pid}: n != 0\n"
                        r"ASSERT Executing lib/platform/posix_helpers\.cpp:\d+:[^\n]*write_all_throw[^\n]*\n",
                        victim.world.kernel_log.take())
    # The next replacement removes the new file.
    assert victim.directory() == files(OLD, new)
    victim.revive()
    assert victim.client.read_all_json() == '{"net":{"ip":"old"}}'
    assert victim.directory() == files(OLD, new)
    check_recovered(victim, victim.prepare(OLD))


SMALL_DISK = ["mount -t tmpfs -o size=64k tmpfs .", r"printf '[net]\nip=old\n' >registry"]
READ_ONLY = ["mount --bind . .", "mount -o remount,bind,ro ."]

# Commands that break the disk before the daemon starts, the error, and the command that repairs the disk.
DISKS = {
    "full": ([*SMALL_DISK, "dd if=/dev/zero of=filler bs=4k 2>/dev/null || true"], NO_SPACE, "rm filler"),
    "room for a part of the text": (
        [*SMALL_DISK, "dd if=/dev/zero of=filler bs=4k count=13 2>/dev/null"], NO_SPACE, "rm filler"),
    # The access check of a file that exists fails before the daemon makes a new file.
    "read-only": ([r"printf '[net]\nip=old\n' >registry", *READ_ONLY], "Read-only file system (30)",
                  "mount -o remount,bind,rw ."),
    "read-only without a file": (READ_ONLY, NEW + ": Read-only file system (30)", "mount -o remount,bind,rw ."),
}


@pytest.mark.parametrize("breaking, error, repair", DISKS.values(), ids=DISKS.keys())
def test_broken_disk_keeps_the_old_file_until_it_is_repaired(world, breaking, error, repair):
    change = "cd /var/lib/plinthware; "
    # A shell changes to its directory again after a mount.
    commands = "\n".join([*(f"({change}{command})" for command in breaking), 'exec "$@"'])
    daemon = world.start(wrapper=("sh", "-ec", commands, "sh"))
    registry = observe.registry_behind(daemon)
    before = {file.name: file.read_bytes() for file in registry.parent.iterdir()}
    client = daemon.client()
    value = "x" * 16000
    client.write("net", "ip", value)
    for _ in range(3):
        assert client.error("Flush") == (EXCEPTION, error)
        assert client.read("net", "ip") == value
        assert {file.name: file.read_bytes() for file in registry.parent.iterdir()} == before
    client.write("net", "mask", "24")
    user = ["--user", "--preserve-credentials"] if os.geteuid() != 0 else []
    subprocess.run(["nsenter", f"--target={daemon.pid}", *user, "--mount", "sh", "-c", change + repair], check=True)
    client.flush()
    assert registry.read_bytes() == f"[net]\nip={value}\nmask=24\n".encode()
    assert os.listdir(registry.parent) == ["registry"]
    client.close()


def test_end_writes_the_text_that_a_failed_flush_left_or_fails_and_keeps_the_old_file(victim):
    new = victim.world.registry.with_name("registry~~new")
    text = victim.prepare(OLD)
    new.symlink_to("/dev/full")
    assert victim.flush() == NO_SPACE
    victim.daemon.stop()
    assert victim.directory() == files(text)

    victim.prepare(OLD)
    new.symlink_to("/dev/full")
    victim.daemon.signal(signal.SIGTERM)
    assert victim.daemon.wait_end() == -signal.SIGABRT
    assert NO_SPACE in victim.daemon.take_stderr()
    assert victim.directory() == files(OLD)
