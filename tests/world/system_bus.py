"""The system bus in Debian's configuration with the policies of a test, and users whom only that bus knows."""

import os
from dataclasses import dataclass

from world.harness import Bus
from world.raw_client import ERROR, RawClient

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
LEDGER_GROUP = 61000

# `$system` is a directory that make_system has made.
MOUNT_SYSTEM = """
for file in passwd group nsswitch.conf; do
  mount --bind "$system/$file" "/etc/$file"
done
mount --bind "$system/policies" /usr/share/dbus-1/system.d
mount --bind "$system/local" /etc/dbus-1
"""


@dataclass(frozen=True)
class User:
    """The identity that the kernel reports to the bus."""
    name: str
    user: int
    group: int
    groups: tuple = ()

    def connect(self, bus):
        """A connection that is the user's to its end."""
        groups = os.getgroups()
        os.setgroups(self.groups)
        os.setegid(self.group)
        os.seteuid(self.user)
        try:
            return RawClient(bus)
        finally:
            os.seteuid(0)
            os.setegid(0)
            os.setgroups(groups)


ROOT = User("root", 0, 0)
MEMBER = User("member", 61001, 61001, (61001, LEDGER_GROUP))
FIRST_GROUP_MEMBER = User("first-group-member", 61002, LEDGER_GROUP)
STRANGER = User("stranger", 61003, 61003, (61003,))
# The group's entry names this user, but the process does not have the group.
LISTED = User("listed", 61004, 61004)
# The user of the guide for builders of images.
PLAYER = User("player", 61005, 61005, (61005,))

# The bus refuses users without an entry. The bus itself stays root: a process that changes its user would no longer die
# with the test.
ACCOUNTS = {
    "passwd": "root:x:0:0::/:/bin/sh\nmessagebus:x:0:0::/:/bin/sh\n" + "".join(
        f"{each.name}:x:{each.user}:{each.group}::/:/bin/sh\n"
        for each in (MEMBER, FIRST_GROUP_MEMBER, STRANGER, LISTED, PLAYER)),
    "group": f"root:x:0:\nledger:x:{LEDGER_GROUP}:{LISTED.name}\n",
    "nsswitch.conf": "passwd: files\ngroup: files\n",
}


def make_system(directory, policies, accounts=ACCOUNTS):
    """Makes the files for MOUNT_SYSTEM. `policies` maps names of files to texts. There are no other policies."""
    for name in ("policies", "local"):
        (directory / name).mkdir(parents=True)
    for name, text in [*accounts.items(), *((f"policies/{name}", text) for name, text in policies.items())]:
        (directory / name).write_text(text)
    # Users must be able to reach the bus's socket.
    directory.parent.chmod(0o711)


def error_name(reply):
    """The error's name, or None."""
    return reply.error[0] if reply.kind == ERROR else None


class SystemBus(Bus):
    def __init__(self, directory, policies, accounts=ACCOUNTS):
        make_system(directory / "system", policies, accounts)
        unshare = ("unshare", "--mount", "--propagation", "private", "--", "sh", "-ec",
                   f'system=$1\nshift{MOUNT_SYSTEM}exec "$@"', "enter-system", str(directory / "system"))
        super().__init__(directory, base="/usr/share/dbus-1/system.conf", wrapper=unshare)
