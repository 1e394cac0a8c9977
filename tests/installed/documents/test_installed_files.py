"""What the guide for builders of images says is installed, and what is."""

import pathlib
import re
import subprocess

from manual import SOURCES


def place(path, libraries):
    """Where a file below the prefix is in an image; Debian's own folder of libraries has the architecture's name."""
    if path.is_relative_to(libraries):
        path = "lib" / path.relative_to(libraries)
    return str(pathlib.PurePath("/" if path.parts[0] == "etc" else "/usr") / path)


def test_guide_lists_the_installed_files(request, tmp_path):
    option = request.config.getoption
    subprocess.run([option("--cmake"), "--install", option("--build"), "--prefix", tmp_path],
                   stdout=subprocess.DEVNULL, check=True)
    installed = {path.relative_to(tmp_path) for path in tmp_path.rglob("*") if path.is_file()}
    guide = (SOURCES / "docs/integration.md").read_text()
    rows = re.findall(r"(?m)^\| (`/.*?) \|", guide)
    listed = {path for row in rows for path in re.findall("`([^`]+)`", row)}
    assert listed == {place(path, option("--libdir")) for path in installed}
