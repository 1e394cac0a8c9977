"""The write in the background under the service manager, after its real delay of a minute."""

from world.booted_system import needs_boot
from world.harness import wait_for

pytestmark = needs_boot
DELAY = 60


def test_change_is_written_in_the_background(system):
    client = system.client()
    client.write("s", "k", "v")
    assert not system.registry.exists()
    wait_for(lambda: system.registry.exists() and system.registry.read_bytes() == b"[s]\nk=v\n", "the change is written",
             patience=2 * DELAY)
    assert client.read("s", "k") == "v"
    assert system.shown("NRestarts") == "0"
    client.close()
