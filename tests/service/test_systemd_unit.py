"""The daemon under the real service manager, with everything that the unit takes away from it."""

import os
import pathlib
import re
import signal
import stat

import pytest

from world import observe
from attacked import FULL, INVALID_NAME, MEGABYTE
from world.booted_system import needs_boot
from world.harness import PATIENCE, wait_for
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


def owner_and_mode(path):
    status = path.stat()
    return status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)


def test_restrictions_are_in_force(system):
    pid = system.daemon()
    fields = observe.status(pid)
    assert {fields[name] for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")} == {"0" * 16}
    assert (fields["NoNewPrivs"], fields["Seccomp"], fields["Uid"].split()) == ("1", "2", ["0"] * 4)
    assert fields["Umask"] == "0077"
    for namespace in ("net", "user", "mnt"):
        assert os.readlink(f"/proc/{pid}/ns/{namespace}") != os.readlink(f"/proc/{system.init}/ns/{namespace}")
    root = pathlib.Path(f"/proc/{pid}/root")
    for folder in ("usr", "etc", "var", "var/lib", "run"):
        assert os.statvfs(root / folder).f_flag & os.ST_RDONLY, folder 
    assert not os.statvfs(root / "var/lib/plinthware").f_flag & os.ST_RDONLY
    assert (root / "dev/shm").stat().st_dev != pathlib.Path(f"/proc/{system.init}/root/dev/shm").stat().st_dev


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
    assert owner_and_mode(system.registry) == (0, 0, 0o600)
    assert owner_and_mode(system.registry.parent) == (0, 0, 0o755)


def test_stop_writes_what_is_pending(system, client):
    client.write("s", "k", "v")
    assert not system.registry.exists()
    system.systemctl("stop", "ledgerd")
    assert system.registry.read_bytes() == b"[s]\nk=v\n"
    assert [system.shown(name) for name in ("ActiveState", "Result", "NRestarts")] == ["inactive", "success", "0"]
    system.systemctl("start", "ledgerd")
    # The call that starts it has waited for the name.
    assert client.read("s", "k") == "v"


def test_call_to_a_stopped_service_starts_it(system, client):
    client.write("s", "k", "v")
    first = system.daemon()
    system.systemctl("stop", "ledgerd")
    assert system.daemon() is None
    assert client.read("s", "k") == "v"
    assert system.shown("ActiveState") == "active"
    assert system.daemon() not in (None, first)


def test_masked_service_is_not_started_by_a_call(system, client):
    system.systemctl("stop", "ledgerd")
    system.mask("ledgerd.service")
    assert client.error("Read", "s", "k")[0] == "org.freedesktop.systemd1.UnitMasked"
    assert system.daemon() is None


@pytest.mark.parametrize("number, kept", [(signal.SIGTERM, "v"), (signal.SIGHUP, "v"), (signal.SIGKILL, "")],
                         ids=["SIGTERM", "SIGHUP", "SIGKILL"])
def test_daemon_that_ends_by_itself_is_started_again(system, client, number, kept):
    client.write("s", "k", "v")
    first = system.daemon()
    os.kill(first, number)
    system.wait_for_another(first)
    assert system.shown("NRestarts") == "1"
    assert client.read("s", "k") == kept


@pytest.fixture
def limited_memory(system):
    if not system.limits_memory():
        pytest.skip("needs a controller for memory that the test may use")


def test_longest_import_fits_into_the_memory_of_the_unit(system, client, limited_memory):
    first = system.daemon()
    client.timeout = 4 * PATIENCE
    # Of all texts of that length it needs the most memory.
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
    """Makes the daemon abort and waits for the next one; returns what the kernel log says of it."""
    client.write("s", "k", "v")
    pid = system.daemon()
    inner_pid = observe.status(pid)["NSpid"].split()[-1]
    # A write that takes nothing, and no error: the program takes that for impossible.
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
def test_failed_assertion_reaches_the_kernel_log_and_the_daemon_comes_back(system, client):
    assert fail_an_assertion(system, client) is not None
    assert client.read("s", "k") == ""


@needs_strace
@needs_tracer
def test_failed_assertion_reaches_the_tracer(system, client, build):
    installed = build.installed_probes
    libraries = next(folder for folder in installed.parents if folder.exists())
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


def test_name_on_the_bus_is_closed_to_strangers(system):
    stranger = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    call = ["busctl", "--system", "call", "com.tavimesh.Registry", "/com/tavimesh/Registry", "com.tavimesh.Registry",
            "SectionList"]
    assert system.run(*call) == "as 0"
    assert system.run(*stranger, *call, check=False) == ""
    member = ["setpriv", "--reuid=65534", "--regid=65534", "--groups=ledger"]
    assert system.run(*member, *call) == "as 0"
