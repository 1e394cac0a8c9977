"""The daemon as a service: beside the mounts and the bus of a world there are process IDs of its own, so that a PID
file names what the test put there and nothing else, an init that reaps daemons, and what a test lays over /proc, /dev
and folders of the system."""

import contextlib
import os
import pathlib
import select
import shlex
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

import pytest

from world import observe
from world.harness import BUS_NAME, Client, ENTER_WORLD, MISSING_HARDWARE, PATIENCE, World, wait_for

SERVICE_NAME = "ledgd"
INIT = pathlib.Path(__file__).with_name("namespace_init.py")
# A user whom no process of the machine has.
NOBODY_ELSE = 54321
# A user without privileges whom Debian has, with a group of the same number.
NOBODY = 65534

# A build that watches threads starts one of its own in each process.
needs_one_thread = pytest.mark.usefixtures("build_without_threads")
needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can take on another user's identity")

# "$1" is the world's directory, "$2" the layers of the test.
ENTER_NAMESPACES = """
set -e
tree=$1
mount -t proc proc /proc
eval "$2"
exec "$3" -S -E "$4"
"""

# procfs takes no new files, so it goes elsewhere and /proc is made of links into it. The links to processes dangle
# until there is such a process; opening one then fails as it does in procfs.
MADE_UP_PROC = """
mkdir "$tree/procfs"
mount -t proc proc "$tree/procfs"
mount -t tmpfs tmpfs /proc
(ls "$tree/procfs" | grep -vE '^([0-9]+|boardid|mtd)$'; seq 4096) | sed "s|^|$tree/procfs/|" | xargs ln -s -t /proc
cp -R "$tree/proc/." /proc
"""

PRIVATE_DEV = """
mkdir "$tree/dev"
mount -t tmpfs tmpfs "$tree/dev"
for device in null zero full random urandom; do
  touch "$tree/dev/$device"
  mount --bind "/dev/$device" "$tree/dev/$device"
done
cp -R "$tree/devices/." "$tree/dev"
mount --rbind "$tree/dev" /dev
"""

# The executable is opened first: its directory may be closed to the user.
BECOME_USER = """
import os, resource, sys
user, processes, executable = int(sys.argv[1]), int(sys.argv[2]), os.open(sys.argv[3], os.O_RDONLY)
if processes:
    resource.setrlimit(resource.RLIMIT_NPROC, (processes, processes))
os.setgroups([])
os.setresgid(user, user, user)
os.setresuid(user, user, user)
os.execve(executable, sys.argv[3:], os.environ)
"""


def as_user(user, processes=0):
    """A wrapper that drops all privileges; `processes` limits how many the user may have, 0 leaves the limit alone."""
    return sys.executable, "-c", BECOME_USER, str(user), str(processes)


def without_leak_check():
    """The environment of a process in which a sanitizer cannot look for leaks: it may not start what it needs."""
    return {"ASAN_OPTIONS": ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "detect_leaks=0"]))}


def wait_for_exit(pidfd, patience):
    assert select.select([pidfd], [], [], patience)[0], "the process has not ended"
    return time.monotonic()


class NamespaceWorld(World):
    """A world with namespaces that outlive a daemon. They are entered when the first command is run, so a test lays out
    its layers before."""

    def __init__(self, binary):
        super().__init__(binary)
        self.pid_file = self.path / "run" / "ledgd.pid"
        self.layers = ""
        self.namespaces = None
        self.commands = []
        self.services = []
        self.statuses = {}

    def lay_over_proc(self, **files):
        """/proc gets these files, given by their texts, and has no boardid or mtd but these."""
        (self.path / "proc").mkdir()
        for name, text in files.items():
            (self.path / "proc" / name).write_text(text)
        self.layers += MADE_UP_PROC

    def lay_over_dev(self, read_only=False, **files):
        """/dev has a few devices and these files, and no kernel log."""
        (self.path / "devices").mkdir()
        for name, text in files.items():
            (self.path / "devices" / name).write_text(text)
        self.layers += PRIVATE_DEV
        if read_only:
            self.layers += "mount -o remount,bind,ro /dev\n"

    def lay_over_folder(self, folder, add=None, hide=(), writable=False):
        """A system folder gets files, given by their relative paths and their sources, and loses others."""
        layer = pathlib.Path(tempfile.mkdtemp(dir=self.path))
        for name, source in (add or {}).items():
            (layer / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, layer / name)
        for name in hide:
            # This is how a layer of the kernel's overlay file system says that there is no such file below.
            os.mknod(layer / name, stat.S_IFCHR, os.makedev(0, 0))
        layer.chmod(0o755)
        options = f"lowerdir={layer}:{folder}"
        if writable:
            options += "".join(f",{name}={tempfile.mkdtemp(dir=self.path)}" for name in ("upperdir", "workdir"))
        self.layers += f"mount -t overlay overlay -o {shlex.quote(options)} {shlex.quote(str(folder))}\n"

    def enter(self):
        if self.namespaces is not None:
            return
        unshare = ["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child"]
        if os.geteuid() != 0:
            unshare.append("--map-root-user")
        self.namespaces = subprocess.Popen(
            [*unshare, "--", "sh", "-c", ENTER_WORLD, "enter-world", str(self.path), "sh", "-c", ENTER_NAMESPACES,
             "enter-namespaces", str(self.path), self.layers, sys.executable, str(INIT)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0, cwd="/")
        assert self.namespaces.stdout.readline() == b"ready\n", "the namespaces could not be made"

    def launch(self, *arguments, wrapper=(), **options):
        """Runs the daemon's executable inside, behind `wrapper` if given; returns at once."""
        return self.spawn(*wrapper, str(self.binary), *arguments, **options)

    def spawn(self, *command, environment=None, **popen_options):
        """Runs any program inside; returns at once."""
        self.enter()
        self.commands.append(Command(self, command, environment or {}, popen_options))
        return self.commands[-1]

    def run(self, *arguments, **options):
        """Runs the daemon's executable to its end; what it prints must be taken."""
        command = self.launch(*arguments, **options)
        command.wait()
        return command

    def start(self, *arguments, **options):
        """Starts a service the way the system does, which must not print anything."""
        command = self.run(*arguments, **options)
        assert (command.status, command.take_stderr()) == (0, "")
        return self.service()

    def service(self):
        """The process that the PID file names."""
        text = self.pid_file.read_text()
        return self.service_with(int(text))

    def service_with(self, inner_pid):
        self.services.append(Service(self, inner_pid))
        return self.services[-1]

    def stop(self, *arguments, **options):
        """Stops the service the way the system does, which must not print anything."""
        command = self.run("-k", *arguments, **options)
        assert (command.status, command.take_stderr()) == (0, "")

    def processes(self):
        """The processes of the namespace: under the ID that they have there, the ID that the test knows them by."""
        namespace = os.readlink(f"/proc/{self.namespaces.pid}/ns/pid_for_children")
        found = {}
        for pid in filter(str.isdigit, os.listdir("/proc")):
            # It may end while it is looked at.
            with contextlib.suppress(FileNotFoundError, ProcessLookupError, PermissionError):
                if os.readlink(f"/proc/{pid}/ns/pid") == namespace:
                    found[int(observe.status(pid)["NSpid"].split()[-1])] = int(pid)
        return found

    def processes_named(self, name):
        found = {}
        for inner_pid, pid in self.processes().items():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                if observe.status(pid)["Name"] == name:
                    found[inner_pid] = pid
        return found

    def wait_until_name_is_owned(self):
        connection = self.bus.connect()
        wait_for(lambda: connection.name_has_owner(BUS_NAME), "a daemon owns its name")
        connection.close()

    def exit_status(self, inner_pid):
        """Waits until an orphan has ended; returns its status as subprocess gives it."""
        output = self.namespaces.stdout
        while inner_pid not in self.statuses:
            assert select.select([output], [], [], PATIENCE)[0], f"process {inner_pid} has not ended"
            # Lines are short enough to be written at once; the pipe has no other reader.
            pid, status = map(int, output.readline().split())
            self.statuses[pid] = status
        return self.statuses[inner_pid]

    def unready_service(self):
        """Waits until there is a PID file and a daemon, which need not be ready."""
        def named():
            text = self.pid_file.read_text() if self.pid_file.exists() else ""
            return text.endswith("\n") and int(text) in self.processes_named(SERVICE_NAME)

        wait_for(named, "there is a PID file and a daemon")
        return self.service()

    def client(self):
        return Client(self.bus.connect())

    def take_log(self):
        """What went to the kernel log since the last call, but for the lines with which each start on a machine without
        the device's flash begins."""
        return self.kernel_log.take().replace(MISSING_HARDWARE, "")

    def finish(self):
        """An orderly end, so that a sanitizer's verdict at exit counts too. What was printed and not taken is an
        error."""
        try:
            if self.namespaces is not None:
                for inner_pid in self.processes_named(SERVICE_NAME):
                    # It may be about to end by itself.
                    with contextlib.suppress(KeyError, ProcessLookupError):
                        service = self.service_with(inner_pid)
                        service.signal(signal.SIGCONT)
                        service.signal(signal.SIGTERM)
                        service.wait_end()
            printed = [text for text in (command.take_stderr() for command in self.commands) if text]
            assert not printed, f"unexpected standard error: {printed}"
            logged = self.take_log()
            assert not logged, f"unexpected kernel log: {logged}"
        finally:
            self.close()

    def close(self):
        if self.namespaces is not None:
            self.namespaces.kill()
            self.namespaces.wait()
            self.namespaces.stdin.close()
            self.namespaces.stdout.close()
        for command in self.commands:
            command.close()
        for service in self.services:
            service.close()
        super().close()


class Command:
    """A program that was started inside. What it prints must be taken by the test."""

    def __init__(self, world, command, environment, popen_options):
        self.world = world
        self.stderr_path = world.path / f"stderr.{len(world.commands)}"
        self.taken = 0
        namespaces = f"/proc/{world.namespaces.pid}/ns"
        nsenter = ["nsenter", f"--mount={namespaces}/mnt", f"--pid={namespaces}/pid_for_children"]
        if os.geteuid() != 0:
            nsenter += [f"--user={namespaces}/user", "--preserve-credentials"]
        popen_options.setdefault("stdin", subprocess.DEVNULL)
        popen_options.setdefault("stdout", subprocess.DEVNULL)
        # A signal to its process group, or to a parent that it cannot see, must not reach the test.
        popen_options.setdefault("start_new_session", True)
        with open(self.stderr_path, "wb") as stderr:
            popen_options.setdefault("stderr", stderr)
            self.process = subprocess.Popen(
                [*nsenter, "--", *command],
                env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": world.bus.address, **environment}, **popen_options)
        self.pidfd = os.pidfd_open(self.process.pid)

    @property
    def status(self):
        return self.process.poll()

    @property
    def pid(self):
        """The program's process; the one that was started waits for it."""
        return wait_for(lambda: next((pid for pid in self.world.processes().values()
                                      if int(observe.status(pid)["PPid"]) == self.process.pid), None),
                        "the program runs")

    def wait(self, patience=PATIENCE):
        """Waits until the program has ended; returns when that was."""
        ended = wait_for_exit(self.pidfd, patience)
        self.process.wait()
        return ended

    def take_stderr(self):
        text = self.stderr_path.read_text(errors="backslashreplace")[self.taken:]
        self.taken += len(text)
        return text

    def close(self):
        # All in the namespace are dead by now.
        self.process.wait()
        os.close(self.pidfd)


class Service:
    """A daemonised process."""

    def __init__(self, world, inner_pid):
        self.world = world
        self.inner_pid = inner_pid
        self.pid = world.processes()[inner_pid]
        self.pidfd = os.pidfd_open(self.pid)

    def client(self):
        return self.world.client()

    def is_detached(self):
        """Whether it has let go of the streams of its starter. May be asked while it does."""
        try:
            return os.readlink(f"/proc/{self.pid}/fd/2") == "/dev/kmsg"
        except FileNotFoundError:
            return False

    def has_connected(self):
        """Whether it has a connection to the bus, be it answered or not. May be asked at any time."""
        try:
            return any(target.startswith("socket:") for target in observe.descriptors(self.pid).values())
        except FileNotFoundError:
            return False

    def signal(self, number):
        signal.pidfd_send_signal(self.pidfd, number)

    def has_ended(self):
        return bool(select.select([self.pidfd], [], [], 0)[0])

    def wait_exit(self):
        """Waits until the process has ended, reaped or not; returns when that was."""
        return wait_for_exit(self.pidfd, PATIENCE)

    def wait_end(self):
        """Waits until the process has ended and is reaped; returns its status as subprocess gives it."""
        return self.world.exit_status(self.inner_pid)

    def owns_the_name(self):
        connection = self.world.bus.connect()
        try:
            owner = connection.get_name_owner(BUS_NAME)
            return connection.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                            "GetConnectionUnixProcessID", "s", (owner,)) == self.pid
        finally:
            connection.close()

    def close(self):
        os.close(self.pidfd)
