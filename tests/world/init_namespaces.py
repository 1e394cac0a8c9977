"""An init in namespaces of its own: processes, mounts, network (none), host name, messages and cgroup."""

import contextlib
import os
import pathlib
import subprocess

from world.harness import DIE_WITH_TEST, TemporaryTree, unshare, wait_for

JOIN_CGROUP = '[ -z "$1" ] || echo $$ >"$1/cgroup.procs"; shift; exec "$@"'
ENVIRONMENT = ("env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive")


def cgroup_of_test(controller=""):
    """The directory of the test's own cgroup in the unified hierarchy, or in the older one of a controller; or None."""
    kind = "cgroup" if controller else "cgroup2"
    with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
        directories = [left.split()[4] for left, right in (line.split(" - ") for line in mounts)
                       if right.split()[0] == kind and controller in ["", *right.split()[2].split(",")]]
    with open("/proc/self/cgroup", encoding="utf-8") as groups:
        own = [path for _, controllers, path in (line.rstrip("\n").split(":", 2) for line in groups)
               if controller in controllers.split(",")]
    return pathlib.Path(directories[0] + own[0]) if directories and own else None


def has_writable_cgroup():
    directory = cgroup_of_test()
    return (directory is not None and os.access(directory, os.W_OK) and
            os.statvfs(directory).f_flag & os.ST_RDONLY == 0)


def remove_cgroup(path):
    """Removes the cgroup of a system as soon as its last process has ended."""
    def removed():
        try:
            for directory, _, _ in os.walk(path, topdown=False):
                os.rmdir(directory)
        except OSError:
            return False
        return True

    wait_for(removed, "the system has ended")


class InitNamespaces:
    """A system with an init."""

    # Mounts the system's files and becomes the init. Its arguments are the system's directory and `arguments`.
    script: str
    arguments = ()
    # The end of the path of the init.
    program: str
    needs_cgroup = False

    def __init__(self):
        self.tree = TemporaryTree()
        self.path = self.tree.path
        # The bus is another user.
        self.path.chmod(0o755)
        self.cgroup = self.outside = self.init = None

    @classmethod
    def can_boot(cls):
        return os.geteuid() == 0 and (not cls.needs_cgroup or has_writable_cgroup())

    def boot(self):
        if self.needs_cgroup:
            self.cgroup = cgroup_of_test() / self.path.name
            self.cgroup.mkdir()
        namespaces = unshare("--mount", "--pid", "--fork", "--kill-child", "--cgroup", "--ipc", "--uts", "--net")
        self.outside = subprocess.Popen(
            [*DIE_WITH_TEST, "sh", "-c", JOIN_CGROUP, "join-cgroup", str(self.cgroup or ""), *namespaces,
             "sh", "-ec", self.script, "boot", str(self.path), *map(str, self.arguments)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        try:
            self.init = wait_for(self.find_init, "the system boots")
            wait_for(self.has_booted, "the system has booted")
        except AssertionError as failure:
            report = self.report()
            self.close()
            raise AssertionError(f"{failure}\n{report}") from failure

    def find_init(self):
        """The first process of the namespaces. After the last mounts it becomes the init."""
        assert self.outside.poll() is None, "the system ended"
        children = pathlib.Path(f"/proc/{self.outside.pid}/task/{self.outside.pid}/children").read_text().split()
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            if children and os.readlink(f"/proc/{children[0]}/exe").endswith(self.program):
                return int(children[0])
        return None

    def attempt(self, *command):
        """Runs a command inside. Returns the ended process."""
        return subprocess.run(["nsenter", f"--target={self.init}", "--all", "--", *ENVIRONMENT, *command],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              timeout=120, check=False)

    def run(self, *command, check=True):
        """Runs a command inside. Returns what it printed."""
        done = self.attempt(*command)
        assert not check or done.returncode == 0, f"{command}: {done.stdout}{done.stderr}\n{self.report()}"
        return done.stdout.rstrip("\n")

    def daemon(self):
        """The ID outside of the daemon's process, or None."""
        for pid in filter(str.isdigit, os.listdir("/proc")):
            # It may end at any time, and even root may not read all of some processes.
            with contextlib.suppress(FileNotFoundError, ProcessLookupError, PermissionError):
                if ("/sbin/ledgerd" in os.readlink(f"/proc/{pid}/exe") and
                        os.readlink(f"/proc/{pid}/ns/pid") == os.readlink(f"/proc/{self.init}/ns/pid")):
                    return int(pid)
        return None

    def wait_for_another(self, former):
        """Waits for a daemon that is not the process `former`. Returns its process."""
        return wait_for(lambda: (pid := self.daemon()) != former and pid, "another daemon runs")

    def end(self):
        """Waits until the processes of the system have ended."""
        self.outside.wait()
        if self.cgroup is not None:
            remove_cgroup(self.cgroup)
            self.cgroup = None

    def close(self):
        if self.outside is not None:
            self.outside.kill()
            self.end()
        self.tree.close()
