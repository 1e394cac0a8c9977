"""The daemon as a service: a world with a PID namespace of its own, an init that reaps daemons, and mounts over /proc,
/dev and other directories. A PID file in it can only name a process of the test, or none."""

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

import pytest

from world import observe
from world.harness import (BUS_NAME, DIE_WITH_TEST, MISSING_HARDWARE, PATIENCE, Program, World, enter_world, unshare,
                           wait_for)

SERVICE_NAME = "ledgd"
# A user without any process on the machine.
NOBODY_ELSE = 54321
# Debian's user without privileges. The group has the same number.
NOBODY = 65534

# The thread sanitizer starts a thread in each process.
needs_one_thread = pytest.mark.usefixtures("build_without_threads")
needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can take on another user's identity")

# "$1" is the world's directory, "$2" the mounts of the test.
ENTER_NAMESPACES = """
set -e
tree=$1
mount -t proc proc /proc
eval "$2"
exec "$3" -S -E -c "$4"
"""

# The first process of the PID namespace. It reaps orphans and prints the ID and the status of each. It ends at the end
# of its standard input, and all processes of the namespace with it.
INIT = """
import os, signal
def reap(*_):
    try:
        while (ended := os.waitpid(-1, os.WNOHANG))[0]:
            os.write(1, b"%d %d\\n" % (ended[0], os.waitstatus_to_exitcode(ended[1])))
    except ChildProcessError:
        pass
signal.signal(signal.SIGCHLD, reap)
os.write(1, b"ready\\n")
os.read(0, 1)
"""

# No file can be added to procfs. It is therefore mounted elsewhere, and /proc consists of links into it. The link of a
# process that does not exist dangles: opening it fails as in procfs.
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
mount -o remount,bind,ro /dev
"""

# The executable is opened first: its directory may be closed to the user.
BECOME_USER = """
import os, sys
user, executable = int(sys.argv[1]), os.open(sys.argv[2], os.O_RDONLY)
os.setgroups([])
os.setresgid(user, user, user)
os.setresuid(user, user, user)
os.execve(executable, sys.argv[2:], os.environ)
"""


def as_user(user):
    """A wrapper that drops all privileges."""
    return sys.executable, "-c", BECOME_USER, str(user)


class NamespaceWorld(World):
    """A world with namespaces that outlive a daemon. The first command creates them. A test adds its mounts before that
    command."""

    def __init__(self, binary):
        super().__init__(binary)
        self.pid_file = self.path / "run" / "ledgd.pid"
        self.layers = ""
        self.namespaces = None
        self.commands = []
        self.statuses = {}

    def lay_over_proc(self, **files):
        """Adds files with these texts to /proc, which then has no other boardid or mtd."""
        self._add_files("proc", files)
        self.layers += MADE_UP_PROC

    def lay_over_dev(self, **files):
        """Mounts a read-only /dev that has a few devices, files with these texts, and no kernel log."""
        self._add_files("devices", files)
        self.layers += PRIVATE_DEV

    def _add_files(self, directory, files):
        (self.path / directory).mkdir()
        for name, text in files.items():
            (self.path / directory / name).write_text(text)

    def lay_over_directory(self, directory, add=None, hide=(), writable=False):
        """Adds files to a directory of the system, relative path -> source, and hides others."""
        layer = pathlib.Path(tempfile.mkdtemp(dir=self.path))
        for name, source in (add or {}).items():
            (layer / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, layer / name)
        for name in hide:
            # In a layer of the kernel's overlay file system, this device hides the file of the layers below.
            os.mknod(layer / name, stat.S_IFCHR, os.makedev(0, 0))
        layer.chmod(0o755)
        options = f"lowerdir={layer}:{directory}"
        if writable:
            options += "".join(f",{name}={tempfile.mkdtemp(dir=self.path)}" for name in ("upperdir", "workdir"))
        self.layers += f"mount -t overlay overlay -o {shlex.quote(options)} {shlex.quote(str(directory))}\n"

    def enter(self):
        if self.namespaces is not None:
            return
        self.namespaces = subprocess.Popen(
            [*DIE_WITH_TEST, *unshare("--mount", "--pid", "--fork", "--kill-child"), *enter_world(self), "sh", "-c",
             ENTER_NAMESPACES, "enter-namespaces", str(self.path), self.layers, sys.executable, INIT],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0, cwd="/")
        assert self.namespaces.stdout.readline() == b"ready\n", "the namespaces cannot be created"

    def launch(self, *arguments, wrapper=(), **options):
        """Starts the daemon's executable inside, by `wrapper` if given."""
        return self.spawn(*wrapper, str(self.binary), *arguments, **options)

    def spawn(self, *command, environment=None, **popen_options):
        """Starts any program inside."""
        self.enter()
        self.commands.append(Command(self, command, environment or {}, popen_options))
        return self.commands[-1]

    def run(self, *arguments, **options):
        """Runs the daemon's executable to its end. Returns its status and what it has printed."""
        return self.launch(*arguments, **options).result()

    def start(self, *arguments, **options):
        """Starts a service as the system does. The start command must print nothing."""
        assert self.run(*arguments, **options) == (0, "")
        return self.service()

    def service(self):
        """The process that the PID file names."""
        return Service(self, int(self.pid_file.read_text()))

    def stop(self, *arguments, **options):
        """Stops the service as the system does. The command must print nothing."""
        assert self.run("-k", *arguments, **options) == (0, "")

    def processes(self, name=None):
        """Returns the processes of the namespace, or those with a name: their ID there -> their ID outside."""
        namespace = os.readlink(f"/proc/{self.namespaces.pid}/ns/pid_for_children")
        found = {}
        for pid in filter(str.isdigit, os.listdir("/proc")):
            # It may end at any time.
            with contextlib.suppress(FileNotFoundError, ProcessLookupError, PermissionError):
                if os.readlink(f"/proc/{pid}/ns/pid") == namespace:
                    fields = observe.status(pid)
                    if name in (None, fields["Name"]):
                        found[int(fields["NSpid"].split()[-1])] = int(pid)
        return found

    processes_named = processes

    def wait_until_name_is_owned(self):
        with contextlib.closing(self.bus.connect()) as connection:
            wait_for(lambda: connection.name_has_owner(BUS_NAME), "a daemon owns its name")

    def exit_status(self, inner_pid):
        """Waits until an orphan has ended. Returns its status as subprocess does."""
        output = self.namespaces.stdout
        while inner_pid not in self.statuses:
            assert select.select([output], [], [], PATIENCE)[0], f"process {inner_pid} has not ended"
            pid, status = map(int, output.readline().split())
            self.statuses[pid] = status
        return self.statuses[inner_pid]

    def unready_service(self):
        """Waits until there is a PID file and a daemon, which need not be ready."""
        def is_running():
            text = self.pid_file.read_text() if self.pid_file.exists() else ""
            return text.endswith("\n") and int(text) in self.processes(SERVICE_NAME)

        wait_for(is_running, "there is a PID file and a daemon")
        return self.service()

    def take_log(self):
        """Returns what was written to the kernel log since the last call, without MISSING_HARDWARE."""
        return self.kernel_log.take().replace(MISSING_HARDWARE, "")

    def end_services(self):
        """Ends all services, so that the verdict of a sanitizer at exit counts too."""
        for inner_pid, pid in self.processes(SERVICE_NAME).items() if self.namespaces is not None else ():
            # It may just be ending.
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGCONT)
                os.kill(pid, signal.SIGTERM)
                self.exit_status(inner_pid)

    def finish(self):
        """Fails if there is output that the test has not taken."""
        try:
            self.end_services()
            output = [*(command.take_stderr() for command in self.commands), self.take_log()]
            assert not any(output), f"unexpected standard error or kernel log: {output}"
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
        super().close()


class Command(Program):
    """A program that was started inside."""

    def __init__(self, world, command, environment, popen_options):
        namespaces = f"/proc/{world.namespaces.pid}/ns"
        user = () if os.geteuid() == 0 else (f"--user={namespaces}/user", "--preserve-credentials")
        # A signal to its process group, or to a parent that it cannot see, must not reach the test.
        super().__init__(world, ["nsenter", f"--mount={namespaces}/mnt", f"--pid={namespaces}/pid_for_children", *user,
                                 "--", *command], environment, {"start_new_session": True, **popen_options})

    @property
    def status(self):
        return self.process.poll()

    @property
    def pid(self):
        """The ID of the program's process. Its parent is nsenter, the process that the test started."""
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        return int(wait_for(children.read_text, "the program runs"))

    def wait(self):
        """Waits until the program has ended."""
        self.process.wait(PATIENCE)

    def result(self):
        """Waits until the program has ended. Returns its status and what it has printed since the last call."""
        self.wait()
        return self.status, self.take_stderr()


class Service:
    """A daemonised process."""

    def __init__(self, world, inner_pid):
        self.world = world
        self.inner_pid = inner_pid
        self.pid = world.processes()[inner_pid]

    def client(self):
        return self.world.client()

    def is_detached(self):
        """Whether it has left the streams of its starter."""
        return observe.descriptors(self.pid).get(2) == "/dev/kmsg"

    def has_connected(self):
        """Whether it has a connection to the bus, answered or not."""
        return any(target.startswith("socket:") for target in observe.descriptors(self.pid).values())

    def signal(self, number):
        os.kill(self.pid, number)

    def wait_end(self):
        return self.world.exit_status(self.inner_pid)

    def owns_the_name(self):
        return self.world.owner() == self.pid
