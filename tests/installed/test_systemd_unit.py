"""systemd understands the unit and rates it; nothing runs."""

import json
import re
import subprocess

import pytest

# Out of 10. The documents claim it.
EXPOSURE = 1.1
# The daemon must be root, who owns the name and the file. It needs the kernel log, the flash, the files of /proc that
# describe the board, and the sockets of the bus and the tracer. It creates no temporary file.
LEFT_TO_THE_DAEMON = {"RootDirectoryOrRootImage", "UserOrDynamicUser", "PrivateDevices", "ProtectKernelLogs",
                      "RestrictAddressFamilies_AF_UNIX", "ProcSubset", "PrivateTmp", "DeviceAllow"}
# Not every version of systemd rates these.
UNRATED = {"DevicePolicy=closed", "DeviceAllow=/dev/kmsg w", "DeviceAllow=char-mtd rw", "ReadOnlyPaths=/run",
           "TemporaryFileSystem=/dev/shm", "KeyringMode=private", "SystemCallErrorNumber=EPERM",
           "PrivateMounts=yes"}


@pytest.fixture
def unit(build, tmp_path):
    """The unit with the path of the built executable, which exists."""
    text, replaced = re.subn(r"(?m)^ExecStart=\S+", f"ExecStart={build.ledgerd}", build.unit.read_text())
    assert replaced == 1
    path = tmp_path / "ledgerd.service"
    path.write_text(text)
    return path


def analyze(verb, unit, *options):
    return subprocess.run(["systemd-analyze", verb, *options, unit], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)


def missing_restrictions(unit):
    """The restrictions that systemd knows and the service lacks."""
    table = json.loads(analyze("security", unit, "--offline=true", "--json=short").stdout)
    return {row["json_field"] for row in table if row["exposure"] is not None}


def test_unit_is_understood_and_a_misspelt_setting_is_reported(unit):
    verdict = analyze("verify", unit, "--man=no")
    assert (verdict.returncode, verdict.stdout) == (0, "")
    unit.write_text(unit.read_text().replace("NoNewPrivileges", "NoNewPrivilege"))
    assert "NoNewPrivilege" in analyze("verify", unit, "--man=no").stdout


def test_unit_has_every_restriction_that_the_daemon_can_bear_and_each_counts(unit):
    assert missing_restrictions(unit) == LEFT_TO_THE_DAEMON
    verdict = analyze("security", unit, "--offline=true").stdout.splitlines()[-1]
    assert float(re.search(r"Overall exposure level for ledgerd.service: ([0-9.]+)", verdict)[1]) == EXPOSURE
    text = unit.read_text()
    restrictions = text[text.index("\nCapabilityBoundingSet="):text.index("\n[Install]")].split("\n")
    rated = {line for line in restrictions if line and not line.startswith("#")} - UNRATED
    assert len(rated) > 20 and UNRATED <= set(text.splitlines())
    for line in rated:
        unit.write_text(text.replace(f"\n{line}\n", "\n"))
        assert missing_restrictions(unit) != LEFT_TO_THE_DAEMON, line
