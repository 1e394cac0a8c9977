"""The examples: a client in three languages, and the scripts for the operation of devices."""

import json
import os
import subprocess

import pytest

from documents import SOURCES
from world.harness import CAPACITY, PATIENCE

EXAMPLES = SOURCES / "examples"
NOT_SERVED = "The name com.tavimesh.Registry was not provided by any .service files\n"
MISSING = {"cpp": NOT_SERVED, "py": NOT_SERVED, "sh": "ledgerctl: the daemon is not running\n"}


@pytest.fixture
def run(build, world):
    """Runs a program and returns its status, standard output and standard error."""
    path = f"{build.ledgerctl.parent}:{os.environ['PATH']}"

    def run(program, *arguments):
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": world.bus.address, "PATH": path}
        done = subprocess.run([program, *arguments], env=environment, stdin=subprocess.DEVNULL, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
        return done.returncode, done.stdout, done.stderr
    return run


@pytest.fixture(params=MISSING)
def example(request, build, run):
    program = build.example if request.param == "cpp" else EXAMPLES / f"hostname.{request.param}"
    return lambda *arguments: run(program, *arguments)


def test_examples_are_short():
    lines = {path.name: len(path.read_text().splitlines()) for path in EXAMPLES.glob("hostname.*")}
    assert len(lines) == 3 and max(lines.values()) <= 40


def test_name_is_written_and_read_back(client, example):
    assert example() == (0, "player-7\n", ""), "the default"
    for name in ("player-8", "", "two  spaces", "  leading", "Jürgens Küche", "a=b", "-x"):
        assert example(name) == (0, f"{name}\n", "")
        assert client.read("network", "hostname") == name
    client.write("network", "hostname", "old")
    assert example("x" * CAPACITY) == (1, "", "The registry is full; nothing has changed.\n")
    assert client.read("network", "hostname") == "old"


def test_other_errors_are_printed_unchanged(request, example):
    assert example("player-8") == (1, "", MISSING[request.node.callspec.params["example"]])


def snapshots(directory):
    return sorted(path.name for path in directory.iterdir())


@pytest.fixture
def old_snapshots(tmp_path):
    """A directory with three snapshots."""
    for year in (2021, 2022, 2023):
        (tmp_path / f"settings-{year}0101T000000Z.json").write_text("{}")
    return tmp_path


def test_snapshot_is_added_and_the_oldest_are_deleted(client, run, old_snapshots):
    client.write("network", "hostname", "player-7")
    assert run(EXAMPLES / "snapshot.sh", old_snapshots, "2") == (0, "", "")
    old, new = snapshots(old_snapshots)
    assert old == "settings-20230101T000000Z.json"
    assert json.loads((old_snapshots / new).read_text()) == {"network": {"hostname": "player-7"}}


def test_failed_snapshot_deletes_nothing(run, old_snapshots):
    before = snapshots(old_snapshots)
    assert run(EXAMPLES / "snapshot.sh", old_snapshots, "1") == (6, "", MISSING["sh"])
    assert snapshots(old_snapshots) == before


def test_units_of_the_snapshots_are_valid(run, tmp_path):
    for name in ("ledgerd-snapshot.service", "ledgerd-snapshot.timer"):
        unit = (EXAMPLES / name).read_text()
        (tmp_path / name).write_text(unit.replace("/usr/local/bin/snapshot.sh", str(EXAMPLES / "snapshot.sh")))
    assert run("systemd-analyze", "verify", "--man=no", tmp_path / "ledgerd-snapshot.timer") == (0, "", "")


@pytest.mark.parametrize("settings, mistakes", [
    ({"network": {"hostname": "player-7", "dhcp": "yes", "other": ""}, "other": {}}, ""),
    ({"network": {"dhcp": "maybe"}}, "/network/dhcp: 'maybe' is not one of ['yes', 'no']\n"
                                     "/network: 'hostname' is a required property\n"),
    ({"other": {"key": 1}}, "/other/key: 1 is not of type 'string'\n"),
])
def test_mistakes_in_settings_are_reported(run, tmp_path, settings, mistakes):
    dump = tmp_path / "settings.json"
    dump.write_text(json.dumps(settings))
    status = 1 if mistakes else 0
    assert run(EXAMPLES / "check_settings.py", EXAMPLES / "settings.schema.json", dump) == (status, "", mistakes)


def test_metrics_have_the_names_of_all_sections(client, run, tmp_path):
    client.write('a"b\\c\nd', "k", "v")
    assert run(EXAMPLES / "metrics.py", tmp_path / "ledgerd.prom") == (0, "", "")
    assert (tmp_path / "ledgerd.prom").read_text() == ("ledgerd_registry_bytes 16\n"
                                                       "ledgerd_registry_capacity_bytes 16383\n"
                                                       'ledgerd_registry_section_bytes{section="a\\"b\\\\c\\nd"} 16\n')
    assert [path.name for path in tmp_path.iterdir()] == ["ledgerd.prom"]


def test_metrics_stay_unchanged_if_the_daemon_does_not_run(run, tmp_path):
    (tmp_path / "ledgerd.prom").write_text("old")
    assert run(EXAMPLES / "metrics.py", tmp_path / "ledgerd.prom") == (6, "", MISSING["sh"])
    assert (tmp_path / "ledgerd.prom").read_text() == "old"
