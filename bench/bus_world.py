"""Namespaces for the benchmark: a private /var/lib, /run and /dev/kmsg in memory, and a private bus."""

import os
import pathlib
import subprocess
import sys
import tempfile
import time

import dbus.bus

SOURCE = pathlib.Path(__file__).resolve().parent.parent
STORE = pathlib.Path("/var/lib/plinthware")
PATIENCE = 30.0
BUS = (dbus.BUS_DAEMON_NAME, dbus.BUS_DAEMON_PATH, dbus.BUS_DAEMON_IFACE)

# Bash is the first process of the PID namespace and reaps orphans. A daemon that nobody reaps would count as running.
REAP_ORPHANS = '"$@"; exit'

# Starts a service that has its own directory for the registry file.
WITH_OWN_STORE = f'mount --bind "$0" {STORE} && exec "$@"'

# The first argument of a script that enter() runs. The second is the directory of the world.
INSIDE = "--inside"


def enter(script, *arguments):
    """Runs the script in its own namespaces. Its arguments are INSIDE, the directory of a new world, and `arguments`.
    Returns its exit status. All processes that the script starts end with it."""
    with tempfile.TemporaryDirectory(prefix="ledgerd-bench-") as state:
        as_root = [] if os.geteuid() == 0 else ["--map-root-user"]
        return subprocess.call(["unshare", "--mount", "--pid", "--fork", "--kill-child", "--propagation", "private",
                                *as_root, "bash", "-c", REAP_ORPHANS, "bash",
                                sys.executable, "-B", script, INSIDE, state, *arguments])


class World:
    """The private world, as a script in the namespaces sees it. All its processes end with the PID namespace."""

    def __init__(self, state):
        self.state = pathlib.Path(state)
        subprocess.run(["mount", "-t", "proc", "proc", "/proc"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", state], check=True)
        for directory in ("lib/plinthware", "run/dbus"):
            (self.state / directory).mkdir(parents=True)
        for source, target in ((self.state / "lib", "/var/lib"), (self.state / "run", "/run"),
                               ("/dev/null", "/dev/kmsg")):
            subprocess.run(["mount", "--bind", source, target], check=True)
        self.bus = subprocess.Popen(
            ["dbus-daemon", f"--config-file={SOURCE}/scripts/lib/private-bus.conf", "--nofork", "--nosyslog",
             "--nopidfile", "--print-address"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.address = self.bus.stdout.readline().strip()
        # One bus is both the system bus and the session bus.
        os.environ.update(DBUS_SYSTEM_BUS_ADDRESS=self.address, DBUS_SESSION_BUS_ADDRESS=self.address,
                          HOME=state, XDG_CONFIG_HOME=state, XDG_CACHE_HOME=state, XDG_RUNTIME_DIR="/run")
        self.connection = dbus.bus.BusConnection(self.address)

    def start(self, name, *command):
        """Starts a service. Returns its process and its unique name. If the well-known name already has an owner, the
        service waits in the queue of the name."""
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline and process.poll() is None:
            for owner in self.owners(name):
                if self.connection.call_blocking(*BUS, "GetConnectionUnixProcessID", "s", (owner,)) == process.pid:
                    return process, str(owner)
        sys.exit(f"{command} does not request the name {name}")

    def start_with_store(self, name, text, *command):
        """Like start, for a daemon that finds `text` in its own registry file."""
        store = tempfile.mkdtemp(dir=self.state)
        (pathlib.Path(store) / "registry").write_text(text, encoding="ascii")
        return self.start(name, "unshare", "--mount", "sh", "-c", WITH_OWN_STORE, store, *command)

    def owners(self, name):
        try:
            return self.connection.call_blocking(*BUS, "ListQueuedOwners", "s", (name,))
        except dbus.exceptions.DBusException:
            return []


def private_memory(pid):
    """Returns the size of the pages that only this process has written, in KiB."""
    rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    return next(int(line.split()[1]) for line in rollup.splitlines() if line.startswith("Private_Dirty"))
