"""The manual pages as their readers see them."""

import functools
import os
import pathlib
import re
import subprocess

SOURCES = pathlib.Path(__file__).parents[2]
TERMINAL = 80
# So wide that no sentence is broken.
ENDLESS = 30000


@functools.lru_cache(maxsize=None)
def render(page, width):
    """The page's text without bold and underline, in lines of at most `width`."""
    environment = {**os.environ, "MANWIDTH": str(width), "MANOPT": "", "LC_ALL": "C.UTF-8", "GROFF_NO_SGR": "1"}
    shown = subprocess.run(["man", "--local-file", "--encoding=UTF-8", str(page)], env=environment, check=True,
                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert not shown.stderr, shown.stderr
    return re.sub(".\b", "", shown.stdout)


def sections(text):
    """Heading -> the text of the section."""
    parts = re.split(r"(?m)^(\S.*)\n", text)
    return dict(zip(parts[1::2], parts[2::2]))


def terms(text, indent):
    """The lines of a section that begin at `indent`: the terms that the lines after them explain."""
    return re.findall(rf"(?m)^ {{{indent}}}(\S.*)$", text)
