"""systemd's own programs create the group and the directory from the installed entries."""

import subprocess

import pytest

from manual import SOURCES


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
