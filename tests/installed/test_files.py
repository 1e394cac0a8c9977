"""The installed files: their paths, the policy of the bus, the group and the directory."""

import re
import subprocess
import xml.etree.ElementTree

import pytest

from manual import SOURCES

NAME = "com.tavimesh.Registry"
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


def test_rules_are_for_everybody_the_group_and_root_and_apply_to_the_whole_service():
    """The bus reads one set of rules made of all policies. A rule that names no destination, or another one, affects
    other services."""
    root = xml.etree.ElementTree.parse(SOURCES / f"packaging/{NAME}.conf").getroot()
    own, send = {"own": NAME}, {"send_destination": NAME}
    assert [(policy.tag, policy.attrib, [(rule.tag, rule.attrib) for rule in policy]) for policy in root] == [
        ("policy", {"context": "default"}, [("deny", own), ("deny", send)]),
        ("policy", {"group": "ledger"}, [("allow", send)]),
        ("policy", {"user": "root"}, [("allow", own), ("allow", send)]),
        # The one rule for some messages only: those with file descriptors.
        ("policy", {"context": "mandatory"}, [("deny", {**send, "min_fds": "1"})]),
    ]


def run(program, root, *arguments):
    subprocess.run([program, f"--root={root}", *arguments], stderr=subprocess.DEVNULL, check=True)


def test_one_group_without_members_is_created(tmp_path):
    files = {"passwd": "root:x:0:0::/:/bin/sh\n", "group": "root:x:0:\n"}
    (tmp_path / "etc").mkdir()
    for name, text in files.items():
        (tmp_path / "etc" / name).write_text(text)
    for _ in range(2):
        run("systemd-sysusers", tmp_path, SOURCES / "packaging/sysusers.d/ledgerd.conf")
    (added,) = set((tmp_path / "etc/group").read_text().splitlines()) - {"root:x:0:"}
    name, _, number, members = added.split(":")
    assert (name, members) == ("ledger", "") and 0 < int(number) < 1000, "a group of the system"
    assert (tmp_path / "etc/passwd").read_text() == files["passwd"]


@pytest.mark.parametrize("mode_before", [None, 0o700], ids=["missing", "with another mode"])
def test_directory_gets_its_mode_and_its_files_stay_unchanged(tmp_path, mode_before):
    directory = tmp_path / "var/lib/plinthware"
    registry = directory / "registry"
    directory.parent.mkdir(parents=True)
    if mode_before is not None:
        directory.mkdir(mode_before)
        registry.write_text("[s]\nk=v\n")
        registry.chmod(0o600)
    run("systemd-tmpfiles", tmp_path, "--create", "--clean", "--remove", SOURCES / "packaging/tmpfiles.d/ledgerd.conf")
    assert directory.stat().st_mode & 0o7777 == 0o755
    if mode_before is not None:
        assert (registry.read_text(), registry.stat().st_mode & 0o7777) == ("[s]\nk=v\n", 0o600)
