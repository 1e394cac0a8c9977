"""What systemd says of the unit without running it."""

import pathlib
import re
import subprocess

import pytest

# Out of 10; the service manager's own words begin at 2.0 for "OK" and at 5.0 for "MEDIUM".
HIGHEST_EXPOSURE = 2.5


@pytest.fixture
def unit(request, tmp_path):
    """The unit with the executable where it was built, so that it is found."""
    shipped = pathlib.Path(request.config.getoption("--unit")).read_text()
    built, replaced = re.subn(r"(?m)^ExecStart=\S+", "ExecStart=" + request.config.getoption("--ledgerd"), shipped)
    assert replaced == 1
    path = tmp_path / "ledgerd.service"
    path.write_text(built)
    return path


def analyze(verb, unit, *options):
    return subprocess.run(["systemd-analyze", verb, *options, str(unit)], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)


def exposure(unit):
    verdict = analyze("security", unit, "--offline=true").stdout.splitlines()[-1]
    return float(re.search(r"Overall exposure level for ledgerd.service: ([0-9.]+)", verdict)[1])


def test_unit_is_understood(unit):
    verdict = analyze("verify", unit, "--man=no")
    assert (verdict.returncode, verdict.stdout) == (0, "")


def test_misspelt_setting_would_be_seen(unit):
    unit.write_text(unit.read_text().replace("NoNewPrivileges", "NoNewPrivilege"))
    assert "NoNewPrivilege" in analyze("verify", unit, "--man=no").stdout


def test_exposure_is_low(unit):
    assert exposure(unit) <= HIGHEST_EXPOSURE


def test_lost_restrictions_would_be_seen(unit):
    text = unit.read_text()
    for setting in ("CapabilityBoundingSet", "SystemCallFilter"):
        text = re.sub(rf"(?m)^{setting}=.*\n", "", text)
    unit.write_text(text)
    assert exposure(unit) > HIGHEST_EXPOSURE


def test_what_the_daemon_needs_is_left_to_it(unit):
    lines = unit.read_text().splitlines()
    # These hide the kernel log, the flash, or the files of /proc that describe the board.
    for hiding in ("PrivateDevices", "ProtectKernelLogs", "ProcSubset"):
        assert not [line for line in lines if line.startswith(hiding + "=")]
    assert {"DeviceAllow=/dev/kmsg w", "DeviceAllow=char-mtd rw"} <= set(lines)
