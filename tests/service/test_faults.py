"""Real faults of the file system under a running daemon. The background write's is in test_background_flush_fault."""

import os
import signal
import subprocess

import pytest

from world import observe
from world.harness import ERROR_PREFIX

NO_SPACE = "No space left on device (28)"
FOLDER = "/var/lib/plinthware"


def new_file(world):
    return world.registry.with_name("registry~~new")


def inside(*commands):
    """A wrapper that runs shell commands in the daemon's namespace before the daemon."""
    return ("sh", "-ec", "\n".join([*commands, 'exec "$@"']), "inside")


def run_inside(daemon, *command):
    user = ["--user", "--preserve-credentials"] if os.geteuid() != 0 else []
    subprocess.run(["nsenter", f"--target={daemon.pid}", *user, "--mount", *command], check=True)


def assert_flush_fails(client, text):
    assert client.error("Flush") == (ERROR_PREFIX + "Exception", text)


def test_failed_flush_is_answered_and_the_text_stays_pending(world, daemon, client):
    client.write("net", "ip", "old")
    client.flush()
    client.write("net", "ip", "new")
    for _ in range(3):
        new_file(world).symlink_to("/dev/full")
        assert_flush_fails(client, NO_SPACE)
        assert client.read("net", "ip") == "new"
        assert world.registry_bytes() == b"[net]\nip=old\n"
        assert os.listdir(world.registry.parent) == ["registry"]
    # More changes are accepted between the failure and the success.
    client.write("net", "mask", "24")
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=new\nmask=24\n"


def test_failed_import_flush_is_answered_and_its_changes_stay(world, daemon, client):
    new_file(world).symlink_to("/dev/full")
    assert client.error("WriteJson", '{"net":{"ip":"1"}}') == (ERROR_PREFIX + "Exception", NO_SPACE)
    assert client.read("net", "ip") == "1"
    assert not world.registry.exists()
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=1\n"


def test_text_that_a_failed_flush_left_is_written_at_the_end(world, daemon, client):
    client.write("net", "ip", "1")
    new_file(world).symlink_to("/dev/full")
    assert_flush_fails(client, NO_SPACE)
    daemon.stop()
    assert world.registry_bytes() == b"[net]\nip=1\n"


def test_failed_flush_at_the_end_kills_the_process_and_keeps_the_old_file(world):
    world.registry.write_bytes(b"[net]\nip=old\n")
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "new")
    client.close()
    new_file(world).symlink_to("/dev/full")
    daemon.signal(signal.SIGTERM)
    assert daemon.wait_end() == -signal.SIGABRT
    assert NO_SPACE in daemon.take_stderr()
    assert world.registry_bytes() == b"[net]\nip=old\n"
    assert os.listdir(world.registry.parent) == ["registry"]


def test_full_disk_keeps_the_old_file_until_there_is_room(world):
    fill = f"dd if=/dev/zero of={FOLDER}/filler bs=4k 2>/dev/null || true"
    daemon = world.start(wrapper=inside(f"mount -t tmpfs -o size=64k tmpfs {FOLDER}",
                                        f"printf '[net]\\nip=old\\n' >{FOLDER}/registry", fill))
    registry = observe.registry_behind(daemon)
    client = daemon.client()
    assert client.read("net", "ip") == "old"
    client.write("net", "ip", "new")
    assert_flush_fails(client, NO_SPACE)
    assert registry.read_bytes() == b"[net]\nip=old\n"
    assert sorted(os.listdir(registry.parent)) == ["filler", "registry"]
    (registry.parent / "filler").unlink()
    client.flush()
    assert registry.read_bytes() == b"[net]\nip=new\n"
    client.close()


def test_disk_that_fills_up_in_the_middle_of_the_text_keeps_the_old_file(world):
    """There is room for a part of the new text, so the first write is a short one."""
    daemon = world.start(wrapper=inside(f"mount -t tmpfs -o size=64k tmpfs {FOLDER}",
                                        f"printf '[net]\\nip=old\\n' >{FOLDER}/registry",
                                        f"dd if=/dev/zero of={FOLDER}/filler bs=4k count=13 2>/dev/null"))
    registry = observe.registry_behind(daemon)
    client = daemon.client()
    client.write("net", "ip", "x" * 16000)
    assert_flush_fails(client, NO_SPACE)
    assert registry.read_bytes() == b"[net]\nip=old\n"
    assert sorted(os.listdir(registry.parent)) == ["filler", "registry"]
    (registry.parent / "filler").unlink()
    client.flush()
    assert registry.read_bytes() == b"[net]\nip=" + b"x" * 16000 + b"\n"
    client.close()


@pytest.mark.parametrize("old, error", [
    # The access check of a file that is there fails before a new file is tried.
    (b"[net]\nip=old\n", "Read-only file system (30)"),
    (None, f"{FOLDER}/registry~~new: Read-only file system (30)"),
], ids=["old file", "no file"])
def test_read_only_folder_is_answered_until_it_is_writable(world, old, error):
    if old is not None:
        world.registry.write_bytes(old)
    daemon = world.start(wrapper=inside(f"mount --bind {FOLDER} {FOLDER}", f"mount -o remount,bind,ro {FOLDER}"))
    client = daemon.client()
    client.write("net", "ip", "new")
    assert_flush_fails(client, error)
    assert client.read("net", "ip") == "new"
    assert world.registry_bytes() == (old or b"")
    run_inside(daemon, "mount", "-o", "remount,bind,rw", FOLDER)
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=new\n"
    client.close()


def test_directory_in_place_of_the_file_fails_the_rename(world):
    world.registry.mkdir()
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "1")
    assert daemon.take_stderr() == "Error reading registry file: 21\n"
    assert_flush_fails(client, "Is a directory (21)")
    assert os.listdir(world.registry.parent) == ["registry"]
    world.registry.rmdir()
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=1\n"
    client.close()


def test_missing_folder_is_answered_until_it_is_there(world):
    world.registry.parent.rmdir()
    daemon = world.start()
    client = daemon.client()
    client.write("net", "ip", "1")
    assert_flush_fails(client, f"{FOLDER}/registry~~new: No such file or directory (2)")
    world.registry.parent.mkdir()
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=1\n"
    client.close()


def test_directory_in_place_of_the_new_file_is_answered(world, daemon, client):
    new_file(world).mkdir()
    client.write("net", "ip", "1")
    assert_flush_fails(client, f"{FOLDER}/registry~~new: Is a directory (21)")
    assert not world.registry.exists()
    new_file(world).rmdir()
    client.flush()
    assert world.registry_bytes() == b"[net]\nip=1\n"
