"""Which devices the unit leaves to the daemon."""

import pytest

from world.booted_system import needs_boot

pytestmark = needs_boot

# Reserved for experiments, so there is no driver: opening it fails in one way, and in another where the unit forbids it.
NO_DRIVER, FORBIDDEN = "No such device or address", "Operation not permitted"


@pytest.mark.parametrize("numbers, elsewhere, here", [
    ((1, 3), "", ""),
    ((240, 0), NO_DRIVER, FORBIDDEN),
], ids=["null", "any other"])
def test_device(system, numbers, elsewhere, here):
    device = system.path / "device"
    system.run("mknod", str(device), "c", *map(str, numbers))

    def error(before=""):
        """What the shell says of opening the device, empty if it could."""
        return system.run("sh", "-c", f"{before} exec 2>&1; : <{device}", check=False).rpartition(": ")[2]

    assert error() == elsewhere
    assert error("echo $$ >/sys/fs/cgroup/system.slice/ledgerd.service/cgroup.procs;") == here
