"""What is in the packages, for each architecture, without installing them."""

import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).parents[3]
# Architecture, its name in paths, and the words of readelf for its machine.
TARGETS = {
    "amd64": ("x86_64-linux-gnu", "Advanced Micro Devices X86-64", ""),
    "armhf": ("arm-linux-gnueabihf", "ARM", "hard-float ABI"),
}
PROGRAM, CONFIGURATION = "-rwxr-xr-x", "-rw-r--r--"
DOCUMENTS = {*(f"man/{name}.gz" for name in ("man5/com.tavimesh.Registry.5", "man5/ledgerd-registry.5", "man8/ledgerd.8")),
             *(f"doc/ledgerd/{name}" for name in (
                 "NEWS.md", "README.Debian", "README.md", "changelog.gz", "copyright", "docs/integration.md",
                 "docs/operation.md", "docs/performance.md", "docs/performance/write.svg", "docs/reliability.md"))}


def run(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True).stdout


def field(package, name):
    return run("dpkg-deb", "-f", str(package), name).strip()


class Built:
    """The packages of an architecture; `folder` has the unpacked one."""

    def __init__(self, results, architecture, folder):
        self.architecture = architecture
        self.path, self.machine, self.abi = TARGETS[architecture]
        (self.package,) = (results / architecture).glob("ledgerd_*.deb")
        (self.symbols,) = (results / architecture).glob("ledgerd-dbgsym_*.deb")
        self.folder = folder
        run("dpkg-deb", "-x", str(self.package), str(folder))
        self.daemon = folder / "usr/sbin/ledgerd"
        self.probes = folder / "usr/lib" / self.path / "ledgerd/ledgerd-tracepoint-probes.so"


@pytest.fixture(params=TARGETS)
def built(request, results, tmp_path):
    return Built(results, request.param, tmp_path)


def test_version_is_that_of_the_project(built):
    (version,) = re.findall(r"^project\(ledgerd VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert field(built.package, "Version") == version
    assert field(built.package, "Architecture") == built.architecture


def test_files_are_in_their_places_and_belong_to_root(built):
    lines = [line.split(None, 5) for line in run("dpkg-deb", "-c", str(built.package)).splitlines()]
    assert {owner for _, owner, *_ in lines} == {"root/root"}
    files = {name.removeprefix("./"): mode for mode, *_, name in lines if mode.startswith("-")}
    # Debian 12 has its units there, and later releases have no files in /lib; lintian knows which is meant.
    files = {re.sub("^lib/", "usr/lib/", name): mode for name, mode in files.items()}
    assert files == {
        "etc/init.d/ledgerd": PROGRAM,
        f"usr/lib/{built.path}/ledgerd/ledgerd-tracepoint-probes.so": CONFIGURATION,
        "usr/lib/systemd/system/ledgerd.service": CONFIGURATION,
        "usr/lib/sysusers.d/ledgerd.conf": CONFIGURATION,
        "usr/lib/tmpfiles.d/ledgerd.conf": CONFIGURATION,
        "usr/sbin/ledgerd": PROGRAM,
        **{f"usr/share/{name}": CONFIGURATION for name in DOCUMENTS},
        "usr/share/dbus-1/system-services/com.tavimesh.Registry.service": CONFIGURATION,
        "usr/share/dbus-1/system.d/com.tavimesh.Registry.conf": CONFIGURATION,
    }


def test_links_of_the_documents_lead_to_files_of_the_package(built):
    documents = list((built.folder / "usr/share/doc/ledgerd").rglob("*.md"))
    links = [(document, target) for document in documents
             for target in re.findall(r"\]\(([^)#\s]+)", document.read_text()) if "://" not in target]
    assert links
    assert [target for document, target in links if not (document.parent / target).exists()] == []


def test_client_comes_with_its_completions_and_its_page(built, results):
    (package,) = (results / built.architecture).glob("ledgerctl_*.deb")
    names = {line.split()[5].removeprefix("./") for line in run("dpkg-deb", "-c", str(package)).splitlines()
             if line.startswith("-")}
    assert {name for name in names if not name.startswith("usr/share/doc/")} == {
        "usr/bin/ledgerctl",
        "usr/share/bash-completion/completions/ledgerctl",
        "usr/share/fish/vendor_completions.d/ledgerctl.fish",
        "usr/share/man/man1/ledgerctl.1.gz",
        "usr/share/zsh/vendor-completions/_ledgerctl",
    }


def test_tracer_is_suggested_and_all_other_libraries_are_needed(built):
    depends, suggests = (field(built.package, name) for name in ("Depends", "Suggests"))
    assert "default-dbus-system-bus | dbus-system-bus" in depends
    for library in ("libdbus-1-3", r"libdbus-c\+\+-1-0v5", r"libfmt\d+", r"libstdc\+\+6", "libc6"):
        assert re.search(rf"(^|, ){library} \(", depends), library
    assert "lttng" not in depends and "liblttng-ust1" in suggests


def test_binaries_are_of_the_architecture_hardened_and_stripped(built):
    for binary in (built.daemon, built.probes):
        header = run("readelf", "--file-header", str(binary))
        assert re.search(rf"Machine: +{built.machine}$", header, re.MULTILINE) and built.abi in header
        assert ".symtab" not in run("readelf", "--wide", "--sections", str(binary))
    run(str(ROOT / "scripts/check-hardening"), str(built.daemon), str(built.probes))


def test_binaries_do_not_tell_where_they_were_built(built):
    for binary in (built.daemon, built.probes):
        assert b"/build/" not in binary.read_bytes()
    assert b"lib/platform/" in built.daemon.read_bytes(), "where an assertion has failed"


def test_daemon_looks_for_its_probes_where_the_package_has_them(built):
    place = "/" + str(built.probes.relative_to(built.folder))
    assert place.encode() in built.daemon.read_bytes()


def test_debugging_symbols_are_of_these_binaries(built):
    def build_id(binary):
        return re.search(r"Build ID: (\w\w)(\w+)", run("readelf", "--notes", str(binary)))

    listed = run("dpkg-deb", "-c", str(built.symbols))
    for binary in (built.daemon, built.probes):
        first, rest = build_id(binary).groups()
        assert f"/usr/lib/debug/.build-id/{first}/{rest}.debug" in listed


def test_source_has_what_is_versioned_and_nothing_that_was_built(results):
    (archive,) = (results / "source").glob("*.tar.xz")
    names = {name.partition("/")[2] for name in run("tar", "-tf", str(archive)).splitlines()}
    assert {"CMakeLists.txt", "debian/rules", "daemon/main.cpp", "scripts/test"} <= names
    assert not [name for name in names if name.startswith(("build/", ".cache/", ".git/"))]
