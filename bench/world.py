"""A world of its own for the benchmarks: a private /var/lib, /run and /dev/kmsg in memory, and a private bus."""

import os
import pathlib
import subprocess
import sys
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parent.parent
REGISTRY_NAME = "com.tavimesh.Registry"
PATIENCE = 30.0

# Bash as the first process of the PID namespace: a daemon that nobody reaps would count as running.
REAP_ORPHANS = '"$@"; exit'


# The first argument of a script that enter() runs; the second is the folder of the world.
INSIDE = "--inside"


def enter(script, *arguments):
    """Runs the script in namespaces of its own, with INSIDE, the folder of a new world and `arguments`; returns its
    status. Everything that it starts ends with it."""
    with tempfile.TemporaryDirectory(prefix="ledgerd-bench-") as state:
        as_root = [] if os.geteuid() == 0 else ["--map-root-user"]
        return subprocess.call(["unshare", "--mount", "--pid", "--fork", "--kill-child", "--propagation", "private",
                                *as_root, "bash", "-c", REAP_ORPHANS, "bash",
                                sys.executable, "-B", script, INSIDE, state, *arguments])


class World:
    """The inside. Services are started on demand and end with the namespace."""

    def __init__(self, state):
        self.state = pathlib.Path(state)
        subprocess.run(["mount", "-t", "proc", "proc", "/proc"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", state], check=True)
        for folder in ("lib/plinthware", "run/dbus", "config", "cache", "home"):
            (self.state / folder).mkdir(parents=True)
        os.mkfifo(self.state / "kmsg")
        for source, target in (("lib", "/var/lib"), ("run", "/run"), ("kmsg", "/dev/kmsg")):
            subprocess.run(["mount", "--bind", self.state / source, target], check=True)
        # A reader, so that writers need not wait.
        self.kernel_log = os.open("/dev/kmsg", os.O_RDWR | os.O_NONBLOCK)
        os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
        self.bus = subprocess.Popen(
            ["dbus-daemon", f"--config-file={SOURCE}/scripts/private-bus.conf", "--nofork", "--nosyslog", "--nopidfile",
             "--print-address"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        # The address is printed when the bus listens. What it then says on standard error, that it may not raise its
        # limit of descriptors, does not matter here.
        self.address = self.bus.stdout.readline().decode().strip()
        if not self.address:
            sys.exit(f"dbus-daemon does not start: {self.bus.stderr.read().decode()}")

    def forget_kernel_log(self):
        os.read(self.kernel_log, 65536)

    def start_service(self, name, *command):
        """Starts a service of either bus, which are one here, and waits until it owns its name."""
        environment = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=self.address, HOME=str(self.state / "home"),
                           XDG_CONFIG_HOME=str(self.state / "config"), XDG_CACHE_HOME=str(self.state / "cache"),
                           XDG_RUNTIME_DIR="/run", GSETTINGS_BACKEND="memory")
        process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, text=True)
        deadline = time.monotonic() + PATIENCE
        while not self.has_owner(name):
            if process.poll() is not None or time.monotonic() > deadline:
                process.kill()
                sys.exit(f"{command[0]} does not serve {name}: {process.stderr.read()}")
        return process

    def has_owner(self, name):
        reply = subprocess.run(
            ["dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
             "org.freedesktop.DBus.NameHasOwner", f"string:{name}"], stdout=subprocess.PIPE, text=True, check=True)
        return "true" in reply.stdout
