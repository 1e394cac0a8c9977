"""What a process holds in memory."""

import pathlib
import re

FIELDS = ("Rss", "Pss", "Private_Dirty")


def of(pid):
    """The sizes in KiB by the kernel's names for them."""
    rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    sizes = {name: int(size) for name, size in re.findall(r"^(\w+):\s+(\d+) kB", rollup, re.M)}
    return {field: sizes[field] for field in FIELDS}
