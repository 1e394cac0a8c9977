"""The system bus as Debian configures it, with one policy more, and users who exist for that bus alone."""

import contextlib
import os
from dataclasses import dataclass

from world.harness import Bus

LEDGER_GROUP = 61000

# "$1" is a directory with the accounts and the folders of policies that the bus is to see.
ENTER_SYSTEM = """
set -e
for file in passwd group nsswitch.conf; do
  mount --bind "$1/$file" "/etc/$file"
done
mount --bind "$1/policies" /usr/share/dbus-1/system.d
mount --bind "$1/local" /etc/dbus-1
shift
exec "$@"
"""


@dataclass(frozen=True)
class User:
    """What the kernel tells the bus of a process."""
    name: str
    user: int
    group: int
    groups: tuple = ()

    @contextlib.contextmanager
    def acting(self):
        """The test acts as this user. A connection that is made meanwhile is the user's to its end."""
        groups = os.getgroups()
        os.setgroups(self.groups)
        os.setegid(self.group)
        os.seteuid(self.user)
        try:
            yield
        finally:
            os.seteuid(0)
            os.setegid(0)
            os.setgroups(groups)


ROOT = User("root", 0, 0)
MEMBER = User("member", 61001, 61001, (61001, LEDGER_GROUP))
FIRST_GROUP_MEMBER = User("first-group-member", 61002, LEDGER_GROUP)
STRANGER = User("stranger", 61003, 61003, (61003,))
# A user whom the group's entry names, in a process that has not taken on the group.
LISTED = User("listed", 61004, 61004)


# The bus turns away a user without an entry. It stays root itself: a process that changes its user no longer dies with
# the test.
ACCOUNTS = {
    "passwd": "root:x:0:0::/:/bin/sh\nmessagebus:x:0:0::/:/bin/sh\n" + "".join(
        f"{user.name}:x:{user.user}:{user.group}::/:/bin/sh\n" for user in (MEMBER, FIRST_GROUP_MEMBER, STRANGER, LISTED)),
    "group": f"root:x:0:\nledger:x:{LEDGER_GROUP}:{LISTED.name}\n",
    "nsswitch.conf": "passwd: files\ngroup: files\n",
}


class SystemBus(Bus):
    """`policies` maps the names of files to their texts; there are no others. `lines` is as in Bus, and follows."""

    def __init__(self, directory, policies, accounts=None, lines=""):
        system = directory / "system"
        (system / "policies").mkdir(parents=True)
        (system / "local").mkdir()
        for name, text in {**ACCOUNTS, **(accounts or {})}.items():
            (system / name).write_text(text)
        for name, text in policies.items():
            (system / "policies" / name).write_text(text)
        # Users must be able to reach the bus's socket.
        directory.chmod(0o711)
        unshare = ("unshare", "--mount", "--propagation", "private", "--", "sh", "-c", ENTER_SYSTEM, "enter-system",
                   str(system))
        super().__init__(directory, lines, base="/usr/share/dbus-1/system.conf", wrapper=unshare)
