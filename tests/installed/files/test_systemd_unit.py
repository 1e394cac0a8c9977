"""What systemd says of the unit without running it."""

import json
import pathlib
import re
import subprocess

import pytest

# Out of 10. The documents claim it.
EXPOSURE = 1.1
# What the daemon needs: to be root, whose the name and the file are; the kernel log, the flash, the files of /proc that
# describe the board, and the sockets of the bus and the tracer. It makes no temporary file.
LEFT_TO_THE_DAEMON = {"RootDirectoryOrRootImage", "UserOrDynamicUser", "PrivateDevices", "ProtectKernelLogs",
                      "RestrictAddressFamilies_AF_UNIX", "ProcSubset", "PrivateTmp", "DeviceAllow"}
# Of these the service manager's table says nothing, or not in each of its versions.
UNRATED = {"DevicePolicy=closed", "DeviceAllow=/dev/kmsg w", "DeviceAllow=char-mtd rw", "ReadOnlyPaths=/run",
           "TemporaryFileSystem=/dev/shm", "KeyringMode=private", "SystemCallErrorNumber=EPERM",
           "PrivateMounts=yes"}


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


def open_doors(unit):
    """Which of the restrictions that systemd knows the service lacks."""
    table = json.loads(analyze("security", unit, "--offline=true", "--json=short").stdout)
    return {row["json_field"] for row in table if row["exposure"] is not None}


def test_unit_is_understood(unit):
    verdict = analyze("verify", unit, "--man=no")
    assert (verdict.returncode, verdict.stdout) == (0, "")


def test_misspelt_setting_would_be_seen(unit):
    unit.write_text(unit.read_text().replace("NoNewPrivileges", "NoNewPrivilege"))
    assert "NoNewPrivilege" in analyze("verify", unit, "--man=no").stdout


def test_unit_has_every_restriction_that_the_daemon_can_bear(unit):
    assert open_doors(unit) == LEFT_TO_THE_DAEMON
    verdict = analyze("security", unit, "--offline=true").stdout.splitlines()[-1]
    assert float(re.search(r"Overall exposure level for ledgerd.service: ([0-9.]+)", verdict)[1]) == EXPOSURE


def test_each_lost_restriction_would_be_seen(unit):
    text = unit.read_text()
    restrictions = text[text.index("\nCapabilityBoundingSet="):text.index("\n[Install]")].split("\n")
    rated = {line for line in restrictions if line and not line.startswith("#")} - UNRATED
    assert len(rated) > 20
    for line in rated:
        unit.write_text(text.replace(f"\n{line}\n", "\n"))
        assert open_doors(unit) != LEFT_TO_THE_DAEMON, line


def test_what_the_table_does_not_rate_is_there_too(unit):
    assert UNRATED <= set(unit.read_text().splitlines())
