"""A Debian system that boots in namespaces, with either of the two inits that Debian has. Its disk outlives a shutdown.
A failure shows what the system has written to its console."""

import os
import pathlib
import subprocess

from world.harness import wait_for
from world.init_namespaces import InitNamespaces

SYSTEMS = pathlib.Path(__file__).parents[2] / ".cache" / "packages"

# "$1" is the machine's directory, "$2" the layers below its disk, "$3" the directory of packages, "$4" empty if no
# cgroup is needed. The machine's kernel log is a file. The machine can change nothing through /sys and /proc/sys, and
# has no right to the clock and to the kernel's modules.
BOOT = """
root=$1/root
mount -t overlay overlay -o "lowerdir=$2,upperdir=$1/disk,workdir=$1/work" "$root"
mount -t proc proc "$root/proc"
mount --bind "$root/proc/sys" "$root/proc/sys"
mount -o remount,bind,ro "$root/proc/sys"
[ ! -e "$root/proc/sysrq-trigger" ] || mount --bind /dev/null "$root/proc/sysrq-trigger"
mount -t sysfs -o ro sysfs "$root/sys"
[ -z "$4" ] || mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mkdir "$root/run/packages"
mount --bind -o ro "$3" "$root/run/packages"
mount -t tmpfs -o mode=755 tmpfs "$1/dev"
for device in null zero full random urandom tty; do
  : >"$1/dev/$device"
  mount --bind "/dev/$device" "$1/dev/$device"
done
ln -s /proc/self/fd "$1/dev/fd"
: >"$1/dev/kmsg"
: >"$1/dev/console"
mount --bind "$1/console" "$1/dev/console"
mount --rbind "$1/dev" "$root/dev"
cd "$root"
pivot_root . mnt
umount -l /mnt
exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin container=test \
  setpriv --bounding-set=-sys_time,-sys_module,-sys_rawio,-syslog /sbin/init
"""

# Here packages, their manager and programs that log keep records.
RECORDS = ("/var/lib/dpkg/", "/var/lib/apt/", "/var/cache/", "/var/log/", "/var/lib/systemd/", "/etc/group",
           "/etc/gshadow", "/etc/ld.so.cache", "/etc/.pwd.lock", "/tmp/", "/var/tmp/")


class Machine(InitNamespaces):
    """Boots when it is made. `results` has a directory of packages for each build. `below` is the disk of a machine of
    the same kind that was shut down; the new machine continues with it."""

    layer: str
    script = BOOT
    # A script that says which services packages may start; None is all.
    service_policy = None

    def __init__(self, results, below=None):
        super().__init__()
        for name in ("disk", "work", "root", "dev"):
            (self.path / name).mkdir()
        (self.path / "console").touch()
        layers = [SYSTEMS / results.name / name for name in ("archives", self.layer, "base")]
        self.layers = layers if below is None else [below, *layers]
        self.results = results
        self.arguments = (":".join(map(str, self.layers)), results, "cgroup" if self.needs_cgroup else "")
        if below is None:
            self.change("usr/sbin/policy-rc.d", self.service_policy)
            self.prepare()
        self.boot()

    def change(self, name, text):
        """Writes a file of the disk before the first boot. None removes one that is in the layers."""
        path = self.path / "disk" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if text is None:
            os.mknod(path, 0o020000, os.makedev(0, 0))
        else:
            path.write_text(text)
            path.chmod(0o755)

    def prepare(self):
        """Changes the disk before the first boot."""

    def packages(self, build, *names):
        """The files of packages as the machine sees them."""
        found = [next((self.results / build).glob(f"{name}_*.deb")) for name in names]
        return [f"/run/packages/{build}/{package.name}" for package in found]

    def tracer(self, build):
        """The package of the tracer's library, which has another name in each release of Debian."""
        (package,) = (self.results / build).glob("ledgerd_*.deb")
        return subprocess.check_output(["dpkg-deb", "-f", package, "Suggests"], text=True).split()[0]

    def apt(self, *arguments):
        return self.run("apt-get", "-y", "-o", "APT::Sandbox::User=root", *arguments)

    def call(self, method, *arguments, user=()):
        """Calls the registry inside, by a wrapper if given. Returns the reply or error as dbus-send prints it."""
        done = self.attempt(*user, "dbus-send", "--system", "--print-reply=literal", "--dest=com.tavimesh.Registry",
                            "/com/tavimesh/Registry", f"com.tavimesh.Registry.{method}",
                            *(f"string:{argument}" for argument in arguments))
        return (done.stdout or done.stderr).strip()

    def files(self):
        """All files of the disk but the records."""
        found = self.run("find", "/", "-xdev", "-printf", "%p %l\\n").splitlines()
        return {line for line in found if not line.startswith(RECORDS)}

    def shut_down(self):
        """Shuts the system down. The disk stays."""
        self.attempt(*self.power_off)
        wait_for(lambda: self.outside.poll() is not None, "the system is down", patience=60)
        self.end()

    def report(self):
        return (self.path / "console").read_text(errors="backslashreplace")


class SystemdMachine(Machine):
    layer = "systemd"
    program = "systemd"
    needs_cgroup = True
    power_off = ("systemctl", "poweroff")
    # No test needs these, or they would start by themselves during a test.
    MASKED = ("apt-daily.timer", "apt-daily-upgrade.timer", "dpkg-db-backup.timer", "fstrim.timer", "e2scrub_all.timer",
              "systemd-logind.service", "getty.target", "console-getty.service", "systemd-networkd.service",
              "systemd-networkd-wait-online.service", "systemd-timesyncd.service", "systemd-random-seed.service",
              "systemd-journal-flush.service", "systemd-update-utmp.service", "systemd-tmpfiles-clean.timer")

    def prepare(self):
        units = self.path / "disk/etc/systemd/system"
        units.mkdir(parents=True)
        for name in self.MASKED:
            (units / name).symlink_to("/dev/null")

    def has_booted(self):
        return self.run("systemctl", "is-active", "multi-user.target", check=False) == "active"

    def report(self):
        if self.init is None:
            return super().report()
        return super().report() + self.attempt("journalctl", "--no-pager", "-n", "200").stdout

    def service(self, action):
        return self.attempt("systemctl", action, "ledgerd").returncode


class SysvinitMachine(Machine):
    layer = "sysvinit"
    program = "init"
    power_off = ("telinit", "0")
    # There is nothing to mount or check, so the early scripts do not run. The last line reports that all scripts of the
    # run level have ended.
    INITTAB = """id:2:initdefault:
si::sysinit:/bin/true
l0:0:wait:/etc/init.d/rc 0
l2:2:wait:/etc/init.d/rc 2
ok:2:once:/bin/touch /run/booted
"""
    # These would change the clock, the swap space and the disks of the host.
    EMPTIED = ("hwclock.sh", "umountfs", "umountnfs.sh", "umountroot")

    def prepare(self):
        self.change("etc/inittab", self.INITTAB)
        for name in self.EMPTIED:
            script = next(path for path in (layer / "etc/init.d" / name for layer in self.layers) if path.exists())
            # This header determines the order of the scripts.
            head, end, _ = script.read_text().partition("### END INIT INFO\n")
            assert end
            self.change(f"etc/init.d/{name}", head + end)

    def has_booted(self):
        return self.attempt("test", "-e", "/run/booted").returncode == 0

    def service(self, action):
        return self.attempt("/etc/init.d/ledgerd", action).returncode
