"""The deferred write, at its real delay: takes a minute."""

import time

from world.harness import wait_for

DELAY = 60
TOLERANCE = 1


def wait_until_written(world, identity, end):
    """Watches the file until it is another one than `identity`; returns when that was, or None at the time `end`."""
    def look():
        found = file_identity(world)
        now = time.monotonic()
        if found != identity:
            return (now,)
        return (None,) if now >= end else None

    return wait_for(look, "the file is written", patience=2 * DELAY)[0]


def file_identity(world):
    if not world.registry.exists():
        return None
    found = world.registry.stat()
    return found.st_ino, found.st_mtime_ns


def test_writes_at_0_30_and_59_seconds_are_one_write_of_the_file_at_60(world):
    daemon = world.start()
    client = daemon.client()
    began = time.monotonic()
    client.write("net", "ip", "at 0")
    for moment in (30, 59):
        assert wait_until_written(world, None, began + moment) is None
        client.write("net", "ip", f"at {moment}")
    written = wait_until_written(world, None, began + 2 * DELAY)
    # The deadline counts from the acceptance of the first write, which came after `began`.
    assert DELAY <= written - began <= DELAY + TOLERANCE
    assert world.registry_bytes() == b"[net]\nip=at 59\n"

    # The file is up to date, so neither a flush nor the end writes it again.
    identity = file_identity(world)
    assert client.read("net", "ip") == "at 59"
    client.flush()
    client.close()
    daemon.stop()
    assert file_identity(world) == identity
