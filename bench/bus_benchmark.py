"""Loads our daemon, the floor and the peers with calls, all on one bus in one run."""

import pathlib
import re
import subprocess

import memory
import world

# Debian's descriptions of the peers say by which command each is started.
PEERS = {"xfconfd": "org.xfce.Xfconf", "dconf-service": "ca.desrt.dconf"}
DESCRIPTIONS = pathlib.Path("/usr/share/dbus-1/services")

FIELDS = ("p50", "p99", "cpu", "bus_cpu", "rate")


def peer_command(bus_name):
    description = (DESCRIPTIONS / f"{bus_name}.service").read_text(encoding="ascii")
    return re.search(r"^Exec=(.*)$", description, re.M)[1].split()


def commands(build):
    """The bus name and the command of each service."""
    peers = {name: (bus_name, *peer_command(bus_name)) for name, bus_name in PEERS.items()}
    return {"ledgerd": (world.REGISTRY_NAME, str(build / "daemon/ledgerd"), "-d"),
            "echo": ("com.example.Echo", str(build / "bench/ledgerd_echo_service")), **peers}


def run(place, build, rounds, passes, block):
    """Returns the calls' figures, {(mode, kind): {field: [a value for each round]}}, in nanoseconds but for "rate",
    which is in calls per second; and the services' memory."""
    services = {name: place.start_service(*command) for name, command in commands(build).items()}
    output = subprocess.run(
        [build / "bench/ledgerd_bus_client", *map(str, (place.bus.pid, rounds, passes, block))],
        stdout=subprocess.PIPE, text=True, check=True).stdout
    # dconf-service takes a change that it cannot read for another one, without an error.
    written = (place.state / "config/dconf/user").read_bytes()
    assert b"k499" in written and b"f" * 26 in written, "dconf-service has not written what was sent"
    figures = {}
    for line in output.splitlines():
        mode, kind, calls, *values = line.split()
        fields = figures.setdefault((mode, kind), {field: [] for field in FIELDS})
        p50, p99, elapsed, cpu, bus_cpu = map(int, values)
        for field, value in zip(FIELDS, (p50, p99, cpu, bus_cpu, int(calls) * 1e9 / elapsed)):
            fields[field].append(value)
    usage = {name: memory.of(process.pid) for name, process in services.items()}
    for process in services.values():
        process.terminate()
        process.wait()
        process.stderr.close()
    return figures, usage
