"""apt installs, upgrades, removes and purges the packages, without a network."""

import os

from world.harness import wait_for

MEMBER = ("setpriv", "--reuid=65534", "--regid=65534", "--groups=ledger")
STRANGER = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
REFUSED = "Error org.freedesktop.DBus.Error.AccessDenied:"
UNKNOWN = "Error org.freedesktop.DBus.Error.ServiceUnknown:"
RUNNING, NOT_RUNNING = 0, 3
EVERYTHING = ("ledgerd", "ledgerctl", "ledgerd-dev")
STATE = "/var/lib/plinthware"
REGISTRY = f"{STATE}/registry"


def test_service_runs_when_it_is_installed(machine):
    machine.apt("install", *machine.packages("amd64", "ledgerd"))
    assert machine.daemon() is not None and machine.service("status") == RUNNING
    assert machine.call("Write", "Net", "ip", "1") == ""
    assert machine.call("Read", "net", "IP") == "1"
    assert machine.call("Flush") == ""
    assert machine.run("stat", "--format=%U:%G %a", STATE, REGISTRY) == "root:root 755\nroot:root 600"
    assert machine.run("cat", REGISTRY) == "[net]\nip=1"
    # The bus has read the policy, and has read it again after the group was added.
    assert machine.call("SectionExists", "net", user=MEMBER) == "boolean true"
    assert machine.call("SectionExists", "net", user=STRANGER).startswith(REFUSED)


def test_settings_survive_a_reboot_and_the_service_starts_with_the_system(installed):
    assert installed.call("Write", "s", "k", "v") == "", "without a flush"
    installed.shut_down()
    installed.boot()
    # No call has been made that could have started it.
    wait_for(installed.daemon, "the daemon runs")
    assert installed.service("status") == RUNNING
    assert installed.call("Read", "s", "k") == "v"


def test_call_starts_a_service_that_was_stopped(installed):
    first = installed.daemon()
    installed.call("Write", "s", "k", "v")
    assert installed.service("stop") == 0
    assert installed.daemon() is None and installed.service("status") == NOT_RUNNING
    assert installed.call("Read", "s", "k", user=STRANGER).startswith(REFUSED)
    assert installed.daemon() is None
    assert installed.call("Read", "s", "k", user=MEMBER) == "v"
    assert installed.daemon() not in (None, first)
    assert installed.service("status") == RUNNING, "the init knows it as its own"


def test_probes_are_found_where_the_tracer_is_installed(installed):
    def libraries():
        with open(f"/proc/{installed.daemon()}/maps", encoding="utf-8") as maps:
            return {line.split(maxsplit=5)[5].rstrip("\n") for line in maps if "/" in line}

    (probes,) = (line for line in installed.run("dpkg", "-L", "ledgerd").splitlines() if line.endswith(".so"))
    assert probes not in libraries() and installed.call("SectionExists", "s") == "boolean false"
    installed.apt("install", installed.tracer("amd64"))
    # The daemon looks for it only if root's session daemon has its socket.
    installed.run("mkdir", "-p", "/run/lttng")
    installed.run("perl", "-MIO::Socket::UNIX", "-e",
                  'IO::Socket::UNIX->new(Local => "/run/lttng/lttng-ust-sock-8", Listen => 1) or die $!')
    first = installed.daemon()
    assert installed.service("restart") == 0
    installed.wait_for_another(first)
    assert installed.call("SectionExists", "s") == "boolean false"
    assert probes in libraries()


def test_test_of_the_source_package_passes(installed):
    """autopkgtest runs it as root on a system that has both packages."""
    installed.apt("install", *installed.packages("amd64", "ledgerctl"))
    installed.run("/run/packages/source/ledgerd/debian/tests/service")


def test_upgrade_keeps_settings_and_runs_the_new_program(installed):
    installed.call("Write", "s", "k", "v")
    first = installed.daemon()
    installed.apt("install", *installed.packages("upgrade", "ledgerd"))
    second = installed.wait_for_another(first)
    assert installed.service("status") == RUNNING
    assert installed.call("Read", "s", "k") == "v"
    assert not os.readlink(f"/proc/{second}/exe").endswith(" (deleted)")
    (version,) = {line.split("+")[1] for line in installed.run("dpkg-query", "-W", "ledgerd").splitlines()}
    assert version == "next1"


def test_removal_keeps_settings_and_purge_leaves_nothing(machine):
    before = machine.files()
    machine.apt("install", *machine.packages("amd64", *EVERYTHING))
    assert machine.files() - before
    machine.call("Write", "s", "k", "v")
    machine.apt("remove", "ledgerd")
    assert machine.daemon() is None
    assert machine.run("cat", REGISTRY) == "[s]\nk=v"
    assert machine.attempt("test", "-e", "/run/ledgd.pid").returncode != 0
    assert machine.call("Read", "s", "k").startswith(UNKNOWN), "the bus has nothing to start"
    machine.apt("install", *machine.packages("amd64", "ledgerd"))
    assert machine.call("Read", "s", "k") == "v"
    machine.apt("purge", "--autoremove", *EVERYTHING)
    assert machine.daemon() is None
    assert machine.files() == before
