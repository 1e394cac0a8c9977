"""Runs the unmodified daemon in a world of its own: a private system bus, and a mount namespace in which /var/lib, /run
and /dev/kmsg are the test's."""

import contextlib
import itertools
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

import dbus
import dbus.bus

from world.kernel_log import KernelLog

BUS_NAME = "com.tavimesh.Registry"
OBJECT_PATH = "/com/tavimesh/Registry"
INTERFACE = "com.tavimesh.Registry"
ERROR_PREFIX = "com.tavimesh.Registry.Errors."
CAPACITY = 16383

MISSING_HARDWARE = ("BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n"
                    "SRB not valid. Please run manufacturing test.\n")

# Generous: it limits the time until a failure.
PATIENCE = 30.0
POLL_INTERVAL = 0.002

# No process outlives a test run that is killed.
DIE_WITH_TEST = ("setpriv", "--pdeathsig", "KILL")

# A bus that allows everything. The lines of a test follow it and override it.
OPEN_BUS = pathlib.Path(__file__).parents[2] / "scripts" / "lib" / "private-bus.conf"
BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <include>{base}</include>
{lines}</busconfig>
"""

# Mounts the test's directories over the system's and executes the daemon in the same process.
ENTER_WORLD = """
set -e
mount --bind "$1/lib" /var/lib
mount --bind "$1/run" /run
mount --bind "$1/kmsg" /dev/kmsg
shift
exec "$@"
"""


def wait_for(condition, what, patience=PATIENCE):
    """Returns the first true value of condition(). Fails if there is none in time."""
    deadline = time.monotonic() + patience
    while True:
        if value := condition():
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting until {what}")
        time.sleep(POLL_INTERVAL)


def unshare(*namespaces):
    """The command that makes private namespaces, also for a user who is not root."""
    user = () if os.geteuid() == 0 else ("--map-root-user",)
    return "unshare", *namespaces, "--propagation", "private", *user, "--"


def enter_world(world):
    return "sh", "-c", ENTER_WORLD, "enter-world", str(world.path)


def is_sanitized(world):
    """Whether the daemon was built with a sanitizer, which needs memory and descriptors of its own."""
    binary = world.binary.read_bytes()
    return any(symbol in binary for symbol in [b"__asan_init", b"__tsan_init"])


class TemporaryTree:
    """A directory that is removed at the end, with all that is in it."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="ledgerd-test-"))

    def close(self):
        shutil.rmtree(self.path, ignore_errors=True)


class Bus:
    """A dbus-daemon with the configuration of `base`, then `lines`."""

    def __init__(self, directory, lines="", base=OPEN_BUS, wrapper=()):
        self.socket = directory / "bus"
        self.address = f"unix:path={self.socket}"
        configuration = directory / "bus.conf"
        configuration.write_text(BUS_CONFIGURATION.format(base=base, lines=lines))
        self.process = subprocess.Popen(
            [*DIE_WITH_TEST, *wrapper, "dbus-daemon", f"--config-file={configuration}", f"--address={self.address}",
             "--nofork", "--nosyslog", "--nopidfile", "--print-address"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        # The address is printed when the bus listens.
        assert self.process.stdout.readline(), "dbus-daemon did not start"

    def connect(self):
        return dbus.bus.BusConnection(self.address)

    def call(self, member, name=BUS_NAME):
        """Calls a method of the bus itself that has a name as its argument."""
        with contextlib.closing(self.connect()) as connection:
            return connection.call_blocking(dbus.BUS_DAEMON_NAME, dbus.BUS_DAEMON_PATH, dbus.BUS_DAEMON_IFACE, member,
                                            "s", (name,))

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdout.close()


class World:
    """The directories that the daemon sees, and the bus, which `make_bus` starts in a directory. Daemons can be started
    in it any number of times."""

    def __init__(self, binary, make_bus=Bus):
        self.binary = binary
        self.tree = TemporaryTree()
        self.path = self.tree.path
        self.registry = self.path / "lib" / "plinthware" / "registry"
        self.registry.parent.mkdir(parents=True)
        (self.path / "run").mkdir()
        self.kernel_log = KernelLog(self.path / "kmsg")
        self.bus = make_bus(self.path)
        self.daemons = []
        self.clients = []
        self.numbers = itertools.count()

    def start(self, *arguments, wait=True, wrapper=(), environment=None, **popen_options):
        """Starts a daemon in the foreground, by `wrapper` if given, and waits until it serves."""
        daemon = Daemon(self, arguments or ("-d",), wrapper, environment or {}, popen_options)
        self.daemons.append(daemon)
        if wait:
            daemon.wait_ready()
        return daemon

    def owner(self):
        """Returns the process ID of the owner of the daemon's name, None if there is no owner."""
        if not self.bus.call("NameHasOwner"):
            return None
        return int(self.bus.call("GetConnectionUnixProcessID"))

    def wait_until_unserved(self):
        """Waits until the bus knows of the end of all daemons."""
        with contextlib.closing(self.bus.connect()) as connection:
            wait_for(lambda: not connection.name_has_owner(BUS_NAME), "the bus knows of the daemon's end")

    def client(self, **options):
        """Returns a client, which stays open until the end of the world."""
        self.clients.append(Client(self.bus.connect(), **options))
        return self.clients[-1]

    def registry_bytes(self):
        return self.registry.read_bytes() if self.registry.exists() else b""

    def close(self):
        for each in (*self.clients, *self.daemons, self.bus, self.kernel_log, self.tree):
            each.close()


class Program:
    """A process in a world. A test that expects output on standard error must call take_stderr."""

    def __init__(self, world, command, environment, popen_options):
        self.world = world
        self.stderr_path = world.path / f"stderr.{next(world.numbers)}"
        self.taken = 0
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": world.bus.address, **environment}
        with open(self.stderr_path, "wb") as stderr:
            options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": stderr, **popen_options}
            self.process = subprocess.Popen(command, env=environment, **options)

    def stderr(self):
        """Returns everything that was printed so far."""
        return self.stderr_path.read_text(errors="backslashreplace")

    def take_stderr(self):
        """Returns what was printed since the last call."""
        text = self.stderr()[self.taken:]
        self.taken += len(text)
        return text

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


class Daemon(Program):
    """One run of the daemon in the foreground."""

    def __init__(self, world, arguments, wrapper, environment, popen_options):
        command = [*DIE_WITH_TEST, *unshare("--mount"), *enter_world(world), *wrapper, str(world.binary), *arguments]
        super().__init__(world, command, environment, popen_options)

    @property
    def pid(self):
        return self.process.pid

    def wait_ready(self):
        with contextlib.closing(self.world.bus.connect()) as connection:
            wait_for(lambda: self.process.poll() is not None or connection.name_has_owner(BUS_NAME),
                     "the daemon owns its name")
            assert self.process.poll() is None, f"the daemon ended at once: {self.stderr()}"
            # The daemon owns its name before it loads the registry. The reply to a call shows that it is ready.
            connection.call_blocking(BUS_NAME, OBJECT_PATH, "org.freedesktop.DBus.Introspectable", "Introspect", "", (),
                                     timeout=PATIENCE)

    def client(self, **options):
        return self.world.client(**options)

    def stderr(self):
        """Returns the output without the lines that each start prints on a machine without the device's flash."""
        return super().stderr().removeprefix(MISSING_HARDWARE)

    def signal(self, number):
        os.kill(self.pid, number)

    def wait_end(self, patience=PATIENCE):
        """Waits until the process has ended. Returns its status as subprocess does."""
        return self.process.wait(patience)

    def stop(self):
        """Makes the daemon write its pending changes and end."""
        self.signal(signal.SIGTERM)
        assert self.wait_end() == 0


def method(member, convert=lambda reply: None):
    return lambda client, *arguments: convert(client.call(member, *arguments))


class Client:
    """The twelve methods as a real client library calls them."""

    def __init__(self, connection, timeout=PATIENCE):
        self.connection = connection
        self.timeout = timeout

    def call(self, member, *arguments, signature=None, interface=INTERFACE, path=OBJECT_PATH):
        if signature is None:
            signature = "s" * len(arguments)
        return self.connection.call_blocking(BUS_NAME, path, interface, member, signature, arguments,
                                             timeout=self.timeout)

    def error(self, member, *arguments, **options):
        """Makes a call that must fail. Returns the error's name and message."""
        try:
            result = self.call(member, *arguments, **options)
        except dbus.DBusException as e:
            return e.get_dbus_name(), e.get_dbus_message()
        raise AssertionError(f"{member} was expected to fail, but returned {result!r}")

    read = method("Read", str)
    write = method("Write")
    delete_key = method("DeleteKey")
    delete_section = method("DeleteSection")
    delete_all = method("DeleteAll")
    flush = method("Flush")
    key_exists = method("KeyExists", bool)
    section_exists = method("SectionExists", bool)
    section_list = method("SectionList", lambda names: [str(name) for name in names])
    # In the order of the reply.
    key_list = method("KeyList", lambda entries: {str(key): str(value) for key, value in entries.items()})
    read_all_json = method("ReadAllJson", str)
    write_json = method("WriteJson")

    def close(self):
        self.connection.close()
