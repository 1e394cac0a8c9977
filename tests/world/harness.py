"""Runs the unmodified daemon in a world of its own: a private system bus, and a mount namespace in which /var/lib, /run
and /dev/kmsg are the test's."""

import os
import pathlib
import select
import shutil
import signal
import subprocess
import tempfile
import time

import dbus
import dbus.bus
import dbus.lowlevel

BUS_NAME = "com.tavimesh.Registry"
OBJECT_PATH = "/com/tavimesh/Registry"
INTERFACE = "com.tavimesh.Registry"
ERROR_PREFIX = "com.tavimesh.Registry.Errors."
CAPACITY = 16383

MISSING_HARDWARE = ("BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n"
                    "SRB not valid. Please run manufacturing test.\n")

# Generous: these bound a failure, they do not time anything.
PATIENCE = 30.0
POLL_INTERVAL = 0.002

# Nothing outlives a test run that is killed.
DIE_WITH_TEST = ("setpriv", "--pdeathsig", "KILL")

# A bus that lets everybody do everything. A test's own lines come after it and so have the last word.
OPEN_BUS = pathlib.Path(__file__).parents[2] / "scripts" / "lib" / "private-bus.conf"
BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <include>{base}</include>
{lines}</busconfig>
"""

# Lays the test's directories over the system's and becomes the daemon, so that its process is the one that was started.
ENTER_WORLD = """
set -e
mount --bind "$1/lib" /var/lib
mount --bind "$1/run" /run
mount --bind "$1/kmsg" /dev/kmsg
shift
exec "$@"
"""


def wait_for(condition, what, patience=PATIENCE):
    """Returns the first true value of condition(); fails when there is none in time."""
    deadline = time.monotonic() + patience
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting until {what}")
        time.sleep(POLL_INTERVAL)


def is_sanitized(world):
    """Whether the daemon was built with a sanitizer, which takes memory as it likes."""
    binary = world.binary.read_bytes()
    return any(symbol in binary for symbol in [b"__asan_init", b"__tsan_init"])


class TemporaryTree:
    """A directory that is removed at the end, whatever is in it."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="ledgerd-test-"))

    def close(self):
        shutil.rmtree(self.path, ignore_errors=True)


class Bus:
    """A dbus-daemon with a configuration of its own: that of `base`, then `lines`."""

    def __init__(self, directory, lines="", base=OPEN_BUS, wrapper=()):
        self.socket = directory / "bus"
        self.address = f"unix:path={self.socket}"
        self.configuration = directory / "bus.conf"
        self.configuration.write_text(BUS_CONFIGURATION.format(base=base, lines=lines))
        self.process = subprocess.Popen(
            [*DIE_WITH_TEST, *wrapper, "dbus-daemon", f"--config-file={self.configuration}",
             f"--address={self.address}", "--nofork", "--nosyslog", "--nopidfile", "--print-address"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        # The address is printed when the bus listens.
        assert self.process.stdout.readline(), "dbus-daemon did not start"

    def refuse_name(self):
        """From now on nobody may own the daemon's name."""
        lines = f'  <policy context="default"><deny own="{BUS_NAME}"/></policy>\n'
        self.configuration.write_text(self.configuration.read_text().replace("</busconfig>", f"{lines}</busconfig>"))
        connection = self.connect()
        connection.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                 "ReloadConfig", "", ())
        connection.close()

    def connect(self):
        return dbus.bus.BusConnection(self.address)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdout.close()


class KernelLog:
    """The FIFO that stands for /dev/kmsg: each write of the daemon is one record."""

    def __init__(self, path):
        os.mkfifo(path)
        self.fd = os.open(path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
        self.text = b""
        self.taken = 0

    def read(self):
        """Everything that was written so far."""
        while select.select([self.fd], [], [], 0)[0]:
            self.text += os.read(self.fd, 65536)
        return self.text.decode()

    def take(self):
        """What was written since the last call."""
        text = self.read()[self.taken:]
        self.taken += len(text)
        return text

    def close(self):
        os.close(self.fd)


class World:
    """The directories that the daemon sees, and the bus, which `make_bus` starts in a directory. A daemon can be started
    in it again and again."""

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

    def start(self, *arguments, wait=True, wrapper=(), environment=None, **popen_options):
        """Starts a daemon in the foreground, behind `wrapper` if given, and waits until it owns its name."""
        daemon = Daemon(self, arguments or ("-d",), wrapper, environment or {}, popen_options)
        self.daemons.append(daemon)
        if wait:
            daemon.wait_ready()
        return daemon

    def wait_until_unserved(self):
        """Waits until the bus knows of the end of every daemon before."""
        connection = self.bus.connect()
        try:
            wait_for(lambda: not connection.name_has_owner(BUS_NAME), "the bus knows of the daemon's end")
        finally:
            connection.close()

    def client(self):
        """For tests whose client outlives a daemon."""
        return Client(self.bus.connect())

    def registry_bytes(self):
        return self.registry.read_bytes() if self.registry.exists() else b""

    def close(self):
        for daemon in self.daemons:
            daemon.close()
        self.bus.close()
        self.kernel_log.close()
        self.tree.close()


class Daemon:
    """One run of the daemon. What it prints must be taken by the test; see take_stderr."""

    def __init__(self, world, arguments, wrapper, environment, popen_options):
        self.world = world
        self.stderr_path = world.path / f"stderr.{len(world.daemons)}"
        self.taken = 0
        unshare = [*DIE_WITH_TEST, "unshare", "--mount", "--propagation", "private"]
        if os.geteuid() != 0:
            unshare.append("--map-root-user")
        popen_options.setdefault("stdin", subprocess.DEVNULL)
        popen_options.setdefault("stdout", subprocess.DEVNULL)
        with open(self.stderr_path, "wb") as stderr:
            popen_options.setdefault("stderr", stderr)
            self.process = subprocess.Popen(
                [*unshare, "--", "sh", "-c", ENTER_WORLD, "enter-world", str(world.path), *wrapper, str(world.binary),
                 *arguments],
                env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": world.bus.address, **environment}, **popen_options)

    @property
    def pid(self):
        return self.process.pid

    def wait_ready(self):
        connection = self.world.bus.connect()
        try:
            wait_for(lambda: self.process.poll() is not None or connection.name_has_owner(BUS_NAME),
                     "the daemon owns its name")
            assert self.process.poll() is None, f"the daemon ended at once: {self.stderr()}"
            # It owns the name before it has loaded the registry and enters its loop; a call waits for that.
            connection.call_blocking(BUS_NAME, OBJECT_PATH, "org.freedesktop.DBus.Introspectable", "Introspect", "", (),
                                     timeout=PATIENCE)
        finally:
            connection.close()

    def client(self, **options):
        return Client(self.world.bus.connect(), **options)

    def all_stderr(self):
        return self.stderr_path.read_text(errors="backslashreplace")

    def stderr(self):
        """What was printed, but for the lines with which every start on a machine without the device's flash begins."""
        return self.all_stderr().removeprefix(MISSING_HARDWARE)

    def take_stderr(self):
        """What was printed since the last call."""
        text = self.stderr()[self.taken:]
        self.taken += len(text)
        return text

    def signal(self, number):
        os.kill(self.pid, number)

    def wait_end(self, patience=PATIENCE):
        """Waits until the process has ended and returns its status as subprocess gives it."""
        return self.process.wait(patience)

    def stop(self):
        """An orderly end, with its final flush."""
        self.signal(signal.SIGTERM)
        assert self.wait_end() == 0

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()


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
        """Makes a call that must fail; returns the error's name and message."""
        try:
            result = self.call(member, *arguments, **options)
        except dbus.DBusException as e:
            return e.get_dbus_name(), e.get_dbus_message()
        raise AssertionError(f"{member} was expected to fail, answered {result!r}")

    def read(self, section, key):
        return str(self.call("Read", section, key))

    def write(self, section, key, value):
        self.call("Write", section, key, value)

    def delete_key(self, section, key):
        self.call("DeleteKey", section, key)

    def delete_section(self, section):
        self.call("DeleteSection", section)

    def delete_all(self):
        self.call("DeleteAll")

    def flush(self):
        self.call("Flush")

    def key_exists(self, section, key):
        return bool(self.call("KeyExists", section, key))

    def section_exists(self, section):
        return bool(self.call("SectionExists", section))

    def section_list(self):
        return [str(name) for name in self.call("SectionList")]

    def key_list(self, section):
        """The entries in the order of the reply."""
        return {str(key): str(value) for key, value in self.call("KeyList", section).items()}

    def read_all_json(self):
        return str(self.call("ReadAllJson"))

    def write_json(self, text):
        self.call("WriteJson", text)

    def close(self):
        self.connection.close()
