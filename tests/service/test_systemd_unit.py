"""The daemon under the real service manager, with the restrictions of the unit."""

import os
import pathlib
import re
import signal
import stat

import pytest

from world import observe
from attacked import FULL, INVALID_NAME, MEGABYTE
from world.booted_system import needs_boot
from world.harness import BUS_NAME, PATIENCE, wait_for
from world.observe import needs_strace
from test_imports import longest, two_spellings
from tracer import EVENT, needs_tracer

pytestmark = needs_boot
NO_REPLY = "org.freedesktop.DBus.Error.NoReply"


@pytest.fixture
def client(system):
    client = system.client()
    yield client
    client.close()


def test_restrictions_are_in_force(system):
    pid = system.daemon()
    fields = observe.status(pid)
    assert {fields[name] for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")} == {"0" * 16}
    assert (fields["NoNewPrivs"], fields["Seccomp"], fields["Uid"].split()) == ("1", "2", ["0"] * 4)
    assert fields["Umask"] == "0077"
    for namespace in ("net", "user", "mnt"):
        assert os.readlink(f"/proc/{pid}/ns/{namespace}") != os.readlink(f"/proc/{system.init}/ns/{namespace}")
    root = pathlib.Path(f"/proc/{pid}/root")
    for directory in ("usr", "etc", "var", "var/lib", "run"):
        assert os.statvfs(root / directory).f_flag & os.ST_RDONLY, directory
    assert not os.statvfs(root / "var/lib/plinthware").f_flag & os.ST_RDONLY
    assert (root / "dev/shm").stat().st_dev != pathlib.Path(f"/proc/{system.init}/root/dev/shm").stat().st_dev


def test_unit_forbids_devices_without_a_driver_and_permits_null(system):
    # The number is reserved for experiments.
    for numbers, outside, inside in [(("1", "3"), "", ""), (("240", "0"), "No such device or address",
                                                           "Operation not permitted")]:
        device = system.path / f"device{numbers[0]}"
        system.run("mknod", str(device), "c", *numbers)
        for enter, error in [("", outside),
                             ("echo $$ >/sys/fs/cgroup/system.slice/ledgerd.service/cgroup.procs;", inside)]:
            printed = system.run("sh", "-c", f"{enter} exec 2>&1; : <{device}", check=False)
            assert printed.rpartition(": ")[2] == error, (numbers, enter)


def test_methods_work(system, client):
    client.write("Net", "ip", "1")
    assert client.read("net", "IP") == "1"
    assert (client.key_exists("net", "ip"), client.section_exists("other")) == (True, False)
    client.write_json('{"net":{"b":"2","ip":null},"gone":{"k":"v"},"more":{"k":"v"}}')
    assert (client.section_list(), client.key_list("net")) == (["gone", "more", "net"], {"b": "2"})
    client.delete_section("gone")
    client.delete_key("more", "k")
    assert client.read_all_json() == '{"more":{},"net":{"b":"2"}}'
    client.delete_all()
    client.write("s", "k", "v")
    client.flush()
    assert system.registry.read_bytes() == b"[s]\nk=v\n"
    for path, mode in ((system.registry, 0o600), (system.registry.parent, 0o755)):
        status = path.stat()
        assert (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)) == (0, 0, mode)


def test_stop_writes_pending_changes_and_start_waits_for_the_name(system, client):
    client.write("s", "k", "v")
    assert not system.registry.exists()
    system.systemctl("stop", "ledgerd")
    assert system.registry.read_bytes() == b"[s]\nk=v\n"
    assert [system.shown(name) for name in ("ActiveState", "Result", "NRestarts")] == ["inactive", "success", "0"]
    system.systemctl("start", "ledgerd")
    assert client.connection.name_has_owner(BUS_NAME)
    assert client.read("s", "k") == "v"


def test_call_starts_a_stopped_service_unless_it_is_masked(system, client):
    first = system.daemon()
    system.systemctl("stop", "ledgerd")
    assert system.daemon() is None
    assert client.read("s", "k") == ""
    assert system.shown("ActiveState") == "active"
    assert system.daemon() not in (None, first)
    system.systemctl("stop", "ledgerd")
    system.mask("ledgerd.service")
    assert client.error("Read", "s", "k")[0] == "org.freedesktop.systemd1.UnitMasked"
    assert system.daemon() is None


def test_ended_daemon_is_started_again(system, client):
    kept = {signal.SIGTERM: "v", signal.SIGHUP: "v", signal.SIGKILL: ""}
    for restarts, (number, value) in enumerate(kept.items(), 1):
        client.write("s", number.name, "v")
        former = system.daemon()
        os.kill(former, number)
        system.wait_for_another(former)
        assert system.shown("NRestarts") == str(restarts)
        assert client.read("s", number.name) == value, number


@pytest.fixture
def limited_memory(system):
    if not system.limits_memory():
        pytest.skip("needs a controller for memory that the test may use")


def test_longest_import_fits_into_the_memory_of_the_unit(system, client, limited_memory):
    first = system.daemon()
    client.timeout = 4 * PATIENCE
    # This text needs the most memory of all texts of that length.
    assert client.error("WriteJson", two_spellings(longest(system), '""')) == FULL
    assert system.daemon() == first


def test_daemon_that_outgrows_the_memory_of_the_unit_is_started_again(system, client, limited_memory):
    client.write("s", "k", "v")
    client.flush()
    first = system.daemon()
    client.timeout = 4 * PATIENCE
    # A key that is refused leaves its new section in memory until the next change.
    answers = [client.error("Write", f"{number}" + "x" * 30 * MEGABYTE, "\u00e9", "") for number in range(9)]
    assert answers[0] == INVALID_NAME and NO_REPLY in [name for name, _ in answers]
    system.wait_for_another(first)
    assert system.shown("NRestarts") == "1"
    assert client.read("s", "k") == "v"


def fail_an_assertion(system, client):
    """Makes the daemon abort and waits for the next one. Returns its match in the kernel log."""
    client.write("s", "k", "v")
    pid = system.daemon()
    inner_pid = observe.status(pid)["NSpid"].split()[-1]
    # A write of 0 bytes without an error. The program asserts that this cannot happen.
    tracer = observe.attached_strace(pid, system.path / "strace", "-P", "/var/lib/plinthware/registry~~new",
                                     "-e", "trace=write", "-e", "inject=write:retval=0")
    try:
        assert client.error("Flush")[0] == NO_REPLY
        system.wait_for_another(pid)
    finally:
        tracer.kill()
        tracer.wait()
    return re.search(rf"<2>User space assert from process {inner_pid}: n != 0\n"
                     r"ASSERT Executing lib/platform/posix_helpers\.cpp:(\d+):[^\n]+\n", system.kernel_log.read())


@needs_strace
def test_failed_assertion_reaches_the_kernel_log_and_the_daemon_is_started_again(system, client):
    assert fail_an_assertion(system, client) is not None
    assert client.read("s", "k") == ""


@needs_strace
@needs_tracer
def test_failed_assertion_reaches_the_tracer(system, client, build):
    installed = build.installed_probes
    libraries = next(directory for directory in installed.parents if directory.exists())
    layer = system.path / "probes"
    system.run("install", "-D", str(build.probes), str(layer / installed.relative_to(libraries)))
    system.run("mount", "-t", "overlay", "overlay", "-o", f"lowerdir={layer}:{libraries}", str(libraries))
    system.run("sh", "-c", "HOME=/run lttng-sessiond --no-kernel --daemonize >/dev/null 2>&1")
    lttng = ("env", "HOME=/run", "lttng", "--no-sessiond")
    system.systemctl("restart", "ledgerd")
    wait_for(lambda: EVENT in system.run(*lttng, "list", "--userspace", check=False), "the tracer knows the daemon")
    for command in (["create", "session", "--output=/run/trace"], ["enable-event", "--userspace", EVENT], ["start"]):
        system.run(*lttng, *command)
    report = fail_an_assertion(system, client)
    system.run(*lttng, "destroy", "session")
    event = system.run("babeltrace2", "/run/trace")
    assert f"{EVENT}: " in event and event.endswith(f'{{ desc = "ASRT", value = {report[1]} }}')
