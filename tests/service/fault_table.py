"""Which fault in which system call has which outcome, by the rules of the file's first read and of its replacement."""

import errno
import os
from dataclasses import dataclass

from injection import NEW

EVER = "+"
ONCE = ""

# What Linux's file systems can answer to each step, within reason; EINTR, because no call is tried again.
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


def describe(error):
    number = getattr(errno, error)
    return f"{os.strerror(number)} ({number})"


@dataclass(frozen=True)
class ReplacementFault:
    """A fault in one step of the replacement: in its first call or from that on."""
    step: str
    error: str
    lasting: str

    def __str__(self):
        return f"{self.step} {self.error} {'ever' if self.lasting else 'once'}"

    @property
    def message(self):
        """The error's text; None where the replacement goes on, as it does without a file to check."""
        if (self.step, self.error) == ("access", "ENOENT"):
            return None
        return (NEW + ": " if self.step == "open" else "") + describe(self.error)

    @property
    def steps(self):
        """The steps of one replacement that meets the fault."""
        if self.message is None:
            return REPLACEMENT
        done = REPLACEMENT[:REPLACEMENT.index(self.step) + 1]
        if self.step == "access":
            return done
        if self.step == "write":
            # The new file is not left open.
            done = [*done, "close"]
        return [*done, "remove"]

    def left_behind(self, text):
        """What is in the new file if it cannot be removed either; None for no file."""
        return {"access": None, "open": None, "write": b"", "close": text, "rename": text}[self.step]


REPLACEMENT_FAULTS = [ReplacementFault(step, error, lasting)
                      for step in REPLACEMENT for error in ERRORS[step] for lasting in (ONCE, EVER)]

# Each way to need the removal, with each way for that to fail.
REMOVAL_FAULTS = [(ReplacementFault(step, "EIO", ONCE), error)
                  for step in REPLACEMENT[1:] for error in ERRORS["remove"]]

PARTIAL_WRITE_FAULTS = [ReplacementFault("write", error, lasting)
                        for error in ERRORS["write"] for lasting in (ONCE, EVER)]


@dataclass(frozen=True)
class ReadFault:
    """A fault in one step of the first read: in its call number `call` or from that on."""
    step: str
    call: int
    error: str
    lasting: str

    def __str__(self):
        return f"{self.step} {self.call} {self.error} {'ever' if self.lasting else 'once'}"

    @property
    def when(self):
        return f"{self.call}{self.lasting}"

    @property
    def is_harmless(self):
        """The size need not be known beforehand, and once all is read it does not matter how the file is closed."""
        return (self.step, self.call) in (("seek", 1), ("close", 1))

    @property
    def printed(self):
        if self.is_harmless or (self.step, self.error) == ("open", "ENOENT"):
            return ""
        return f"Error reading registry file: {getattr(errno, self.error)}\n"

    @property
    def steps(self):
        # The size, back to the start, the text, the end.
        whole = [("open", 1), ("seek", 1), ("seek", 2), ("read", 1), ("read", 2), ("close", 1)]
        if (self.step, self.call) == ("seek", 1):
            # Without a size there is no way back, and a short text and its end are two reads too.
            whole.remove(("seek", 2))
        if self.is_harmless:
            return [step for step, _ in whole]
        done = [step for step, _ in whole[:whole.index((self.step, self.call)) + 1]]
        return done if self.step == "open" else [*done, "close"]


# Reading takes no room on the disk.
READ_ERRORS = {**ERRORS, "open": [error for error in ERRORS["open"] if error not in ("EDQUOT", "ENOSPC", "EROFS")]}

READ_FAULTS = [ReadFault(step, call, error, lasting)
               for step, call in [("open", 1), ("seek", 1), ("seek", 2), ("read", 1), ("read", 2), ("close", 1)]
               for error in READ_ERRORS[step] for lasting in (ONCE, EVER)]
