"""The outcome of each fault in each system call, by the rules of the file's first read and of its replacement."""

import errno
import os
from dataclasses import dataclass

from file_calls import NEW

EVER = "+"
ONCE = ""

# The likely errors of Linux's file systems in each step. EINTR is one, because the daemon repeats no call.
ERRORS = {
    "access": ["ENOENT", "EACCES", "EIO", "ELOOP", "ENOMEM", "EROFS", "EINTR"],
    "open": ["ENOENT", "EACCES", "EDQUOT", "EINTR", "EIO", "EISDIR", "ELOOP", "EMFILE", "ENFILE", "ENOMEM", "ENOSPC",
             "EPERM", "EROFS"],
    "write": ["EDQUOT", "EFBIG", "EINTR", "EIO", "ENOMEM", "ENOSPC", "EPERM", "EROFS"],
    "close": ["EDQUOT", "EINTR", "EIO", "ENOSPC"],
    "rename": ["ENOENT", "EACCES", "EBUSY", "EDQUOT", "EINTR", "EIO", "EISDIR", "ENOMEM", "ENOSPC", "EPERM", "EROFS"],
    "remove": ["ENOENT", "EACCES", "EBUSY", "EIO", "ENOMEM", "EPERM", "EROFS"],
    "seek": ["EINTR", "EIO", "EOVERFLOW", "ESPIPE"],
    "read": ["EINTR", "EIO", "EISDIR", "ENOMEM", "ESTALE"],
}

REPLACEMENT = ["access", "open", "write", "close", "rename"]
# The size, back to the start, the text, the end.
READ = [("open", 1), ("seek", 1), ("seek", 2), ("read", 1), ("read", 2), ("close", 1)]


def describe(error):
    number = getattr(errno, error)
    return f"{os.strerror(number)} ({number})"


@dataclass(frozen=True)
class Fault:
    """A fault in one step: in its call number `call` only, or from that call on."""
    step: str
    error: str
    lasting: str
    call: int = 1

    def __str__(self):
        return f"{self.step} {self.call} {self.error} {'ever' if self.lasting else 'once'}"

    @property
    def when(self):
        return f"{self.call}{self.lasting}"


class ReplacementFault(Fault):
    @property
    def message(self):
        """The error's text; None if the replacement continues, which it does if there is no file to check."""
        if (self.step, self.error) == ("access", "ENOENT"):
            return None
        return (NEW + ": " if self.step == "open" else "") + describe(self.error)

    @property
    def steps(self):
        """The steps of one replacement that meets the fault."""
        if self.message is None:
            return REPLACEMENT
        done = REPLACEMENT[:REPLACEMENT.index(self.step) + 1]
        return done + {"access": [], "write": ["close", "remove"]}.get(self.step, ["remove"])

    def new_file(self, text):
        """The new file if it cannot be removed; None for no file."""
        return {"access": None, "open": None, "write": b"", "close": text, "rename": text}[self.step]


REPLACEMENT_FAULTS = [ReplacementFault(step, error, lasting)
                      for step in REPLACEMENT for error in ERRORS[step] for lasting in (ONCE, EVER)]

# Each error of the removal, after a fault in each step that leads to it.
REMOVAL_FAULTS = [(ReplacementFault(step, "EIO", ONCE), error)
                  for step in REPLACEMENT[1:] for error in ERRORS["remove"]]

PARTIAL_WRITE_FAULTS = [ReplacementFault("write", error, lasting, 2)
                        for error in ERRORS["write"] for lasting in (ONCE, EVER)]


class ReadFault(Fault):
    @property
    def is_harmless(self):
        """The daemon need not know the size, and a failed close after the whole text is harmless."""
        return (self.step, self.call) in (("seek", 1), ("close", 1))

    @property
    def printed(self):
        if self.is_harmless or (self.step, self.error) == ("open", "ENOENT"):
            return ""
        return f"Error reading registry file: {getattr(errno, self.error)}\n"

    @property
    def steps(self):
        done = [step for step, _ in READ[:READ.index((self.step, self.call)) + 1]]
        if self.step == "seek" and self.is_harmless:
            # Without a size the daemon does not seek back. It reads a short text and its end in two calls, too.
            return [*done, "read", "read", "close"]
        return done if self.step in ("open", "close") else [*done, "close"]


READ_FAULTS = [ReadFault(step, error, lasting, call)
               for step, call in READ for error in ERRORS[step] for lasting in (ONCE, EVER)
               # Errors of writing only.
               if (step, error) not in [("open", "EDQUOT"), ("open", "ENOSPC"), ("open", "EROFS")]]
