"""systemd runs the shipped unit, and the real bus, in namespaces with a private /var/lib, /run, /dev/kmsg and /etc. It
knows no other units but the few that these two need."""

import pathlib
import shutil

import dbus.bus
import pytest

from world.harness import Client, wait_for
from world.init_namespaces import InitNamespaces, cgroup_of_test, remove_cgroup
from world.kernel_log import KernelLog

SYSTEM_UNITS = pathlib.Path("/usr/lib/systemd/system")
BORROWED_UNITS = ("basic.target", "dbus.service", "dbus.socket", "local-fs-pre.target", "local-fs.target",
                  "paths.target", "shutdown.target", "slices.target", "sockets.target", "swap.target", "sysinit.target",
                  "timers.target", "umount.target")
ROOT_UNIT = "[Unit]\nWants=ledgerd.service\nAfter=ledgerd.service\n"

# "$1" is the system's directory, "$2" the directory of the executable.
BOOT = """
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
"""


class BootedSystem(InitNamespaces):
    """`packaging` is the source's directory of that name. The build made `unit` and `activation` of its templates."""

    script = BOOT
    program = "systemd"
    needs_cgroup = True

    def __init__(self, binary, packaging, unit, activation):
        super().__init__()
        self.binary = binary
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
        # Otherwise the service manager writes one to the machine's disk if there is none.
        (self.path / "etc" / "machine-id").write_text("0123456789abcdef0123456789abcdef\n")
        program = next(pathlib.Path(line.removeprefix("ExecStart=").split()[0])
                       for line in unit.read_text().splitlines() if line.startswith("ExecStart="))
        shutil.copy(binary, self.path / "sbin" / program.name)
        self.kernel_log = KernelLog(self.path / "kmsg")
        self.memory_cgroup = None
        self.arguments = (program.parent,)
        self.boot()

    def has_booted(self):
        return (pathlib.Path(f"/proc/{self.init}/root/run/systemd/private").exists() and
                self.systemctl("is-active", "ledgerd", check=False) == "active")

    def report(self):
        return self.kernel_log.read()

    def systemctl(self, *arguments, check=True):
        return self.run("systemctl", *arguments, check=check)

    def mask(self, unit):
        """Does what `systemctl mask` does in the usual directories of units."""
        (self.path / "units" / unit).unlink()
        (self.path / "units" / unit).symlink_to("/dev/null")
        self.systemctl("daemon-reload")

    def shown(self, name):
        """A property of the service."""
        return self.systemctl("show", "ledgerd", "--property", name, "--value")

    def limits_memory(self):
        """Whether the kernel limits the daemon's memory to that of the unit. If the controller has its own hierarchy,
        which the service manager does not use, this limits the present daemon there, but not later ones."""
        if self.run("find", "/sys/fs/cgroup/system.slice/ledgerd.service/memory.max", check=False):
            return True
        directory = cgroup_of_test("memory")
        if directory is None:
            return False
        self.memory_cgroup = directory / self.path.name
        self.memory_cgroup.mkdir()
        (self.memory_cgroup / "memory.limit_in_bytes").write_text(self.shown("MemoryMax"))
        (self.memory_cgroup / "cgroup.procs").write_text(str(self.daemon()))
        return True

    def wait_for_another(self, former):
        super().wait_for_another(former)
        wait_for(lambda: self.shown("ActiveState") == "active", "it has its name")

    def client(self):
        return Client(dbus.bus.BusConnection(f"unix:path=/proc/{self.init}/root/run/dbus/system_bus_socket"))

    def end(self):
        super().end()
        if self.memory_cgroup is not None:
            remove_cgroup(self.memory_cgroup)
        self.kernel_log.close()


needs_boot = pytest.mark.skipif(not (BootedSystem.can_boot() and (SYSTEM_UNITS / "dbus.service").exists()),
                                reason="needs root, and a cgroup2 that may be written")
