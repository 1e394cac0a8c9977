"""The machine under the two inits that Debian has."""

import os

from world import booted_system
from world.packaged_machine import Machine


class SystemdMachine(Machine):
    layer = "systemd"
    program = "systemd"
    needs_cgroup = True
    power_off = ("systemctl", "poweroff")
    # What a test does not need, or what would begin by itself in its midst.
    MASKED = ("apt-daily.timer", "apt-daily-upgrade.timer", "dpkg-db-backup.timer", "fstrim.timer", "e2scrub_all.timer",
              "systemd-logind.service", "getty.target", "console-getty.service", "systemd-networkd.service",
              "systemd-networkd-wait-online.service", "systemd-timesyncd.service", "systemd-random-seed.service",
              "systemd-journal-flush.service", "systemd-update-utmp.service", "systemd-tmpfiles-clean.timer")

    @staticmethod
    def can_boot():
        return booted_system.can_boot()

    def prepare(self):
        folder = self.path / "disk" / "etc" / "systemd" / "system"
        folder.mkdir(parents=True)
        for name in self.MASKED:
            (folder / name).symlink_to("/dev/null")

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
    # Nothing is to be mounted or checked, so none of the early scripts. The last line says that all scripts of the run
    # level have ended.
    INITTAB = """id:2:initdefault:
si::sysinit:/bin/true
l0:0:wait:/etc/init.d/rc 0
l2:2:wait:/etc/init.d/rc 2
ok:2:once:/bin/touch /run/booted
"""
    # These would reach for the clock, the swap space and the disks of the machine that this one is in.
    EMPTIED = ("hwclock.sh", "umountfs", "umountnfs.sh", "umountroot")

    @staticmethod
    def can_boot():
        return os.geteuid() == 0

    def prepare(self):
        self.change("etc/inittab", self.INITTAB)
        for name in self.EMPTIED:
            script = next(path for path in (layer / "etc/init.d" / name for layer in self.layers) if path.exists())
            # The order in which scripts run is made of this.
            head, end, _ = script.read_text().partition("### END INIT INFO\n")
            assert end
            self.change(f"etc/init.d/{name}", head + end)

    def has_booted(self):
        return self.attempt("test", "-e", "/run/booted").returncode == 0

    def service(self, action):
        return self.attempt("/etc/init.d/ledgerd", action).returncode
