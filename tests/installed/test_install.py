"""The installed files are those that the guide for builders of images lists."""

import re
import subprocess

from manual import SOURCES

# What the paths of a part's files contain.
PARTS = {"CLIENT": "ledgerctl", "TRACING": "probes", "MAN": "/man/"}


def test_installed_files_and_their_modes_are_those_of_the_guide(build, tmp_path):
    subprocess.run([build.variables["CMAKE_COMMAND"], "--install", build.directory, "--prefix", tmp_path / "usr"],
                   stdout=subprocess.DEVNULL, check=True)
    # Debian's own directory of libraries has the architecture's name.
    libraries = f"/usr/{build.variables['CMAKE_INSTALL_LIBDIR']}/ledgerd/"
    installed = {f"/{path.relative_to(tmp_path)}".replace("/usr/etc/", "/etc/").replace(libraries, "/usr/lib/ledgerd/"):
                 path.stat().st_mode & 0o777 for path in tmp_path.rglob("*") if path.is_file()}
    rows = re.findall(r"(?m)^\| (`/.*?) \|", (SOURCES / "docs/integration.md").read_text())
    listed = [path for row in rows for path in re.findall("`([^`]+)`", row)]
    assert installed == {path: 0o755 if re.search("/(s?bin|init.d)/", path) else 0o644 for path in listed
                         if all(build.has(part) or name not in path for part, name in PARTS.items())}
