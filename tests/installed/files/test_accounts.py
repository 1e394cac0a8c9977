"""What Debian's own programs make of the entries for the group and the folder, in a tree of the test's own."""

import pathlib
import subprocess

import pytest

PACKAGING = pathlib.Path(__file__).parents[3] / "packaging"


@pytest.fixture
def root(tmp_path):
    """A system without accounts but root's."""
    (tmp_path / "etc").mkdir()
    (tmp_path / "etc" / "passwd").write_text("root:x:0:0::/:/bin/sh\n")
    (tmp_path / "etc" / "group").write_text("root:x:0:\n")
    (tmp_path / "var" / "lib").mkdir(parents=True)
    return tmp_path


def run(program, root, *arguments):
    subprocess.run([program, f"--root={root}", *arguments], stderr=subprocess.DEVNULL, check=True)


def test_group_without_members_is_made_once(root):
    for _ in range(2):
        run("systemd-sysusers", root, str(PACKAGING / "sysusers.d" / "ledgerd.conf"))
    lines = (root / "etc" / "group").read_text().splitlines()
    (ledger,) = (line.split(":") for line in lines if line.startswith("ledger:"))
    assert 0 < int(ledger[2]) < 1000, "a group of the system, not of people"
    assert ledger[3] == ""
    assert len(lines) == 2 and len((root / "etc" / "passwd").read_text().splitlines()) == 1, "no user, no other group"


@pytest.mark.parametrize("before", [None, 0o700], ids=["there is none", "with another mode"])
def test_folder_is_made_and_what_is_in_it_is_left_alone(root, before):
    folder = root / "var" / "lib" / "plinthware"
    if before is not None:
        folder.mkdir(before)
        (folder / "registry").write_text("[s]\nk=v\n")
        (folder / "registry").chmod(0o600)
    run("systemd-tmpfiles", root, "--create", "--clean", "--remove", str(PACKAGING / "tmpfiles.d" / "ledgerd.conf"))
    assert folder.stat().st_mode & 0o7777 == 0o755
    if before is not None:
        assert (folder / "registry").read_text() == "[s]\nk=v\n"
        assert (folder / "registry").stat().st_mode & 0o7777 == 0o600
