"""A Debian system that boots in namespaces: its own processes, mounts, network (none) and, for systemd, cgroup. Its disk
outlives a shutdown. What it writes to its console is shown when a test fails."""

import contextlib
import os
import pathlib
import subprocess

from world import booted_system
from world.harness import DIE_WITH_TEST, TemporaryTree, wait_for

# "$1" is the machine's folder, "$2" the layers below its disk, "$3" the folder of packages, "$4" a cgroup or nothing. The
# machine's /dev has no kernel log but a file, it can change nothing through /sys and /proc/sys, and has no right to the
# clock and to the kernel's modules.
BOOT = """
set -e
[ -z "$4" ] || echo $$ >"$4/cgroup.procs"
exec unshare --mount --propagation private --pid --fork --kill-child --cgroup --ipc --uts --net -- sh -c '
  set -e
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
' boot "$@"
"""

# Where packages, their manager and programs that log keep what they know of the past.
MEMORY = ("/var/lib/dpkg/", "/var/lib/apt/", "/var/cache/", "/var/log/", "/var/lib/systemd/", "/etc/group", "/etc/gshadow",
          "/etc/ld.so.cache", "/etc/.pwd.lock", "/tmp/", "/var/tmp/")


class Machine:
    """Boots when it is made. `results` has a folder of packages for each build, `below` is the disk of a machine of the
    same kind that was shut down, to go on from."""

    layer: str
    needs_cgroup = False
    # Says which services packages may start; None is all.
    service_policy = None

    def __init__(self, cache, results, below=None):
        self.tree = TemporaryTree()
        self.path = self.tree.path
        self.path.chmod(0o755)
        for name in ("disk", "work", "root", "dev"):
            (self.path / name).mkdir()
        (self.path / "console").touch()
        layers = [cache / name for name in ("archives", self.layer, "base")]
        self.layers = layers if below is None else [below, *layers]
        self.results = results
        self.cgroup = self.outside = self.init = None
        if below is None:
            self.change("usr/sbin/policy-rc.d", self.service_policy)
            self.prepare()
        self.boot()

    def change(self, name, text):
        """A file of the disk before the first boot; None removes one that is in the layers."""
        path = self.path / "disk" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if text is None:
            os.mknod(path, 0o020000, os.makedev(0, 0))
        else:
            path.write_text(text)
            path.chmod(0o755)

    def prepare(self):
        """What the disk needs before the first boot."""

    def boot(self):
        if self.needs_cgroup:
            self.cgroup = booted_system.cgroup_of_test() / self.path.name
            self.cgroup.mkdir()
        self.outside = subprocess.Popen(
            [*DIE_WITH_TEST, "sh", "-c", BOOT, "boot", str(self.path), ":".join(map(str, self.layers)),
             str(self.results), str(self.cgroup or "")], stdin=subprocess.DEVNULL)
        try:
            self.init = wait_for(self.find_init, "the system boots")
            wait_for(self.has_booted, "the system has booted")
        except AssertionError as failure:
            report = self.report()
            self.close()
            raise AssertionError(f"{failure}\n{report}") from failure

    def find_init(self):
        """The first process of the namespaces."""
        assert self.outside.poll() is None, "the system ended"
        children = pathlib.Path(f"/proc/{self.outside.pid}/task/{self.outside.pid}/children").read_text().split()
        # Later the root of its namespaces is the disk.
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            if children and os.readlink(f"/proc/{children[0]}/exe").endswith(self.program):
                return int(children[0])
        return None

    def run(self, *command, check=True):
        """Runs a command inside; returns what it printed."""
        done = self.attempt(*command)
        assert not check or done.returncode == 0, f"{command}: {done.stdout}{done.stderr}\n{self.report()}"
        return done.stdout.rstrip("\n")

    def attempt(self, *command):
        return subprocess.run(["nsenter", f"--target={self.init}", "--mount", "--pid", "--cgroup", "--ipc", "--uts",
                               "--net", "--", "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                               "DEBIAN_FRONTEND=noninteractive", *command],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              timeout=120, check=False)

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
        """Calls the registry from within, as root or behind a wrapper; returns what dbus-send prints of the reply, or of
        the error."""
        done = self.attempt(*user, "dbus-send", "--system", "--print-reply=literal", "--dest=com.tavimesh.Registry",
                            "/com/tavimesh/Registry", f"com.tavimesh.Registry.{method}",
                            *(f"string:{argument}" for argument in arguments))
        return (done.stdout or done.stderr).strip()

    def daemon(self):
        """The daemon's process as the test knows it, or None."""
        for pid in filter(str.isdigit, os.listdir("/proc")):
            # It may end while it is looked at, and of some processes even root may not see everything.
            with contextlib.suppress(FileNotFoundError, ProcessLookupError, PermissionError):
                if (os.readlink(f"/proc/{pid}/exe").startswith("/usr/sbin/ledgerd") and
                        os.readlink(f"/proc/{pid}/ns/pid") == os.readlink(f"/proc/{self.init}/ns/pid")):
                    return int(pid)
        return None

    def files(self):
        """All files of the disk, but for those that remember."""
        found = self.run("find", "/", "-xdev", "-printf", "%p %l\\n").splitlines()
        return {line for line in found if not line.startswith(MEMORY)}

    def shut_down(self):
        """An orderly end; the disk stays."""
        self.attempt(*self.power_off)
        wait_for(lambda: self.outside.poll() is not None, "the system is down", patience=60)
        self.remove_cgroup()

    def report(self):
        return (self.path / "console").read_text(errors="backslashreplace")

    def close(self):
        if self.outside is not None and self.outside.poll() is None:
            self.outside.kill()
            self.outside.wait()
        self.remove_cgroup()
        self.tree.close()

    def remove_cgroup(self):
        if self.cgroup is not None:
            booted_system.remove_cgroup(self.cgroup)
            self.cgroup = None
