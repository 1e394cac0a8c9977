"""A deferred write that fails, at its real delay of a minute."""

import os
import re
import signal
import time

DELAY = 60


def test_failed_background_flush_is_reported_and_ends_the_process(world):
    world.registry.write_bytes(b"[net]\nip=old\n")
    daemon = world.start()
    client = daemon.client()
    began = time.monotonic()
    client.write("net", "ip", "new")
    world.registry.with_name("registry~~new").symlink_to("/dev/full")
    assert daemon.wait_end(patience=2 * DELAY) == -signal.SIGABRT
    # test_flush_deadline.py has the exact moment.
    assert time.monotonic() - began >= DELAY
    client.close()
    assert daemon.take_stderr() == (
        "Lazy persistent store flush caused exception: No space left on device (28)\n")
    assert re.fullmatch(rf"<2>User space assert from process {daemon.pid}: [^\n]+\n"
                        r"ASSERT Executing lib/platform/lazy_persistent_store\.cpp:\d+:[^\n]+\n",
                        world.kernel_log.take())
    assert world.registry_bytes() == b"[net]\nip=old\n"
    assert os.listdir(world.registry.parent) == ["registry"]
