"""A system with an init, in namespaces: the real service manager runs the unit as it is shipped, beside the real bus.
It sees a private /var/lib, /run, /dev/kmsg and /etc, and no other units but the few that these two need."""

import contextlib
import os
import pathlib
import shutil
import subprocess

import dbus.bus
import pytest

from world import observe
from world.harness import DIE_WITH_TEST, Client, KernelLog, TemporaryTree, wait_for

SYSTEM_UNITS = pathlib.Path("/usr/lib/systemd/system")
BORROWED_UNITS = ("basic.target", "dbus.service", "dbus.socket", "local-fs-pre.target", "local-fs.target",
                  "paths.target", "shutdown.target", "slices.target", "sockets.target", "swap.target", "sysinit.target",
                  "timers.target", "umount.target")
ROOT_UNIT = "[Unit]\nWants=ledgerd.service\nAfter=ledgerd.service\n"

# "$1" is the system's directory, "$2" the folder of the executable, "$3" a cgroup.
BOOT = """
set -e
echo $$ >"$3/cgroup.procs"
exec unshare --mount --propagation private --pid --fork --kill-child --cgroup --ipc --uts -- sh -c '
  set -e
  overlay() { mount -t overlay overlay -o "lowerdir=$2,upperdir=$1,workdir=$1.work" "$2"; }
  mount -t proc proc /proc
  mount -t tmpfs -o mode=755 tmpfs /run
  mount -t tmpfs tmpfs /dev/shm
  mount --bind "$1/lib" /var/lib
  mount --bind "$1/kmsg" /dev/kmsg
  mount --bind "$1/sbin" "$2"
  overlay "$1/etc" /etc
  overlay "$1/policies" /usr/share/dbus-1/system.d
  overlay "$1/activation" /usr/share/dbus-1/system-services
  umount -R /sys/fs/cgroup
  mount -t cgroup2 cgroup2 /sys/fs/cgroup
  mkdir /run/systemd
  systemd-sysusers "$1/sysusers.conf"
  exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin container=test SYSTEMD_UNIT_PATH="$1/units" \
    /usr/lib/systemd/systemd --system --unit=ledgerd-test.target --log-target=kmsg
' boot "$@"
"""


def cgroup_of_test(controller=""):
    """The directory of the test's own cgroup, or None: in the unified hierarchy, or in the older one of a controller."""
    kind = "cgroup" if controller else "cgroup2"
    with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
        folders = [left.split()[4] for left, right in (line.split(" - ") for line in mounts)
                   if right.split()[0] == kind and controller in ["", *right.split()[2].split(",")]]
    with open("/proc/self/cgroup", encoding="utf-8") as groups:
        own = [path for _, controllers, path in (line.rstrip("\n").split(":", 2) for line in groups)
               if controller in controllers.split(",")]
    return pathlib.Path(folders[0] + own[0]) if folders and own else None


def remove_cgroup(path):
    """Waits until a system has ended, and removes its cgroup: that can go when the last of its processes has."""
    def removed():
        try:
            for folder, _, _ in os.walk(path, topdown=False):
                os.rmdir(folder)
        except OSError:
            return False
        return True

    wait_for(removed, "the system has ended")


def can_boot():
    folder = cgroup_of_test()
    return (os.geteuid() == 0 and folder is not None and os.access(folder, os.W_OK) and
            os.statvfs(folder).f_flag & os.ST_RDONLY == 0 and (SYSTEM_UNITS / "dbus.service").exists())


needs_boot = pytest.mark.skipif(not can_boot(), reason="needs root, and a cgroup2 that may be written")


class BootedSystem:
    """`packaging` is the source's folder of that name; `unit` was made of it, and `activation`, which tells the bus of the
    unit."""

    def __init__(self, binary, packaging, unit, activation):
        self.binary = binary
        self.tree = TemporaryTree()
        self.path = self.tree.path
        # The bus is another user, and reads its policies.
        self.path.chmod(0o755)
        for name in ("lib", "sbin", "units", "etc", "etc.work", "policies", "policies.work", "activation",
                     "activation.work"):
            (self.path / name).mkdir()
        self.registry = self.path / "lib" / "plinthware" / "registry"
        for name in BORROWED_UNITS:
            shutil.copy(SYSTEM_UNITS / name, self.path / "units")
        shutil.copy(unit, self.path / "units" / "ledgerd.service")
        (self.path / "units" / "ledgerd-test.target").write_text(ROOT_UNIT)
        shutil.copy(packaging / "com.tavimesh.Registry.conf", self.path / "policies")
        shutil.copy(activation, self.path / "activation")
        shutil.copy(packaging / "sysusers.d" / "ledgerd.conf", self.path / "sysusers.conf")
        # Else the service manager writes one to the machine's disk where there is none.
        (self.path / "etc" / "machine-id").write_text("0123456789abcdef0123456789abcdef\n")
        command = next(line.removeprefix("ExecStart=").split() for line in unit.read_text().splitlines()
                       if line.startswith("ExecStart="))
        shutil.copy(binary, self.path / "sbin" / pathlib.Path(command[0]).name)
        self.kernel_log = KernelLog(self.path / "kmsg")
        self.cgroup = cgroup_of_test() / self.path.name
        self.cgroup.mkdir()
        self.memory_cgroup = None
        self.outside = subprocess.Popen(
            [*DIE_WITH_TEST, "sh", "-c", BOOT, "boot", str(self.path), str(pathlib.Path(command[0]).parent),
             str(self.cgroup)], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        try:
            self.init = wait_for(self.find_init, "the system boots")
            wait_for(lambda: self.systemctl("is-active", "ledgerd", check=False) == "active", "the service runs")
        except AssertionError as failure:
            log = self.kernel_log.read()
            self.close()
            raise AssertionError(f"{failure}; the system's log:\n{log}") from failure

    def find_init(self):
        """The first process of the namespaces, when it takes commands."""
        assert self.outside.poll() is None, "the system ended"
        children = pathlib.Path(f"/proc/{self.outside.pid}/task/{self.outside.pid}/children").read_text().split()
        if not children or observe.status(children[0])["Name"] != "systemd":
            return None
        return int(children[0]) if pathlib.Path(f"/proc/{children[0]}/root/run/systemd/private").exists() else None

    def run(self, *command, check=True):
        """Runs a command inside; returns what it printed."""
        done = subprocess.run(["nsenter", f"--target={self.init}", "--mount", "--pid", "--cgroup", "--ipc", "--uts", "--",
                               *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, timeout=60, check=False)
        assert not check or done.returncode == 0, f"{command}: {done.stderr}"
        return done.stdout.rstrip("\n")

    def systemctl(self, *arguments, check=True):
        return self.run("systemctl", *arguments, check=check)

    def mask(self, unit):
        """As `systemctl mask` does where the service manager looks for units in its usual folders."""
        (self.path / "units" / unit).unlink()
        (self.path / "units" / unit).symlink_to("/dev/null")
        self.systemctl("daemon-reload")

    def shown(self, name):
        """A property of the service."""
        return self.systemctl("show", "ledgerd", "--property", name, "--value")

    def pid(self):
        """The daemon's process, as the test knows it, or None."""
        for pid in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                fields = observe.status(pid)
                if fields["Name"] == observe.PROCESS_NAME and len(fields["NSpid"].split()) > 1 and os.readlink(
                        f"/proc/{pid}/ns/pid") == os.readlink(f"/proc/{self.init}/ns/pid"):
                    return int(pid)
        return None

    def limits_memory(self):
        """Whether the kernel limits the daemon's memory as the unit says. If the controller is in a hierarchy of its own,
        which the service manager does not use, this puts the daemon, but not the ones after it, under the limit there."""
        if self.run("find", "/sys/fs/cgroup/system.slice/ledgerd.service/memory.max", check=False):
            return True
        folder = cgroup_of_test("memory")
        if folder is None:
            return False
        self.memory_cgroup = folder / self.path.name
        self.memory_cgroup.mkdir()
        (self.memory_cgroup / "memory.limit_in_bytes").write_text(self.shown("MemoryMax"))
        (self.memory_cgroup / "cgroup.procs").write_text(str(self.pid()))
        return True

    def wait_for_another(self, former):
        """Waits until a daemon serves that is not the process `former`."""
        wait_for(lambda: self.pid() not in (None, former), "another daemon runs")
        wait_for(lambda: self.shown("ActiveState") == "active", "it has its name")

    def client(self):
        return Client(dbus.bus.BusConnection(f"unix:path=/proc/{self.init}/root/run/dbus/system_bus_socket"))

    def close(self):
        self.outside.kill()
        self.outside.wait()
        for cgroup in filter(None, (self.cgroup, self.memory_cgroup)):
            remove_cgroup(cgroup)
        self.kernel_log.close()
        self.tree.close()
