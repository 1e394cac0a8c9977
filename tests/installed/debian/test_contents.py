"""The contents of the packages for each architecture."""

import re
import subprocess

import pytest

from manual import SOURCES

# Architecture, its name in paths, and the words of readelf for its machine.
TARGETS = {
    "amd64": ("x86_64-linux-gnu", "Advanced Micro Devices X86-64", ""),
    "armhf": ("arm-linux-gnueabihf", "ARM", "hard-float ABI"),
}
PROGRAM, CONFIGURATION = "-rwxr-xr-x", "-rw-r--r--"
DOCUMENTS = {"man/man5/com.tavimesh.Registry.5.gz", "man/man5/ledgerd-registry.5.gz", "man/man8/ledgerd.8.gz",
             *(f"doc/ledgerd/{name}" for name in (
                 "NEWS.md", "README.Debian", "README.md", "changelog.gz", "copyright", "docs/integration.md",
                 "docs/operation.md", "docs/performance.md", "docs/performance/write.svg", "docs/reliability.md"))}


def run(*command):
    return subprocess.check_output(command, text=True)


def contents(package):
    """Rows of mode, owner and path, also for directories."""
    rows = [line.split(None, 5) for line in run("dpkg-deb", "-c", package).splitlines()]
    return [(mode, owner, path.removeprefix("./")) for mode, owner, *_, path in rows]


def field(package, name):
    return run("dpkg-deb", "-f", package, name).strip()


class Built:
    """The packages of an architecture. One is unpacked in `directory`."""

    def __init__(self, results, architecture, directory):
        self.architecture = architecture
        self.path, self.machine, self.abi = TARGETS[architecture]
        self.package, self.symbols, self.client = (
            next((results / architecture).glob(f"{name}_*.deb")) for name in ("ledgerd", "ledgerd-dbgsym", "ledgerctl"))
        self.directory = directory
        run("dpkg-deb", "-x", self.package, directory)
        self.daemon = directory / "usr/sbin/ledgerd"
        self.probes = directory / "usr/lib" / self.path / "ledgerd/ledgerd-tracepoint-probes.so"


@pytest.fixture(params=TARGETS, scope="module")
def built(request, results, tmp_path_factory):
    return Built(results, request.param, tmp_path_factory.mktemp("package"))


def test_version_is_that_of_the_project(built):
    (version,) = re.findall(r"^project\(ledgerd VERSION (\S+)", (SOURCES / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert field(built.package, "Version") == version
    assert field(built.package, "Architecture") == built.architecture


def test_files_have_their_paths_and_modes_and_belong_to_root(built):
    rows = contents(built.package)
    assert {owner for _, owner, _ in rows} == {"root/root"}
    # Debian 12 has its units in /lib, and later releases in /usr/lib. lintian knows where.
    assert {re.sub("^lib/", "usr/lib/", path): mode for mode, _, path in rows if mode.startswith("-")} == {
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
    documents = list((built.directory / "usr/share/doc/ledgerd").rglob("*.md"))
    links = [(document, target) for document in documents
             for target in re.findall(r"\]\(([^)#\s]+)", document.read_text()) if "://" not in target]
    assert links
    assert [target for document, target in links if not (document.parent / target).exists()] == []


def test_client_has_its_completions_and_its_page(built):
    assert {path for mode, _, path in contents(built.client)
            if mode.startswith("-") and not path.startswith("usr/share/doc/")} == {
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
        header = run("readelf", "--file-header", binary)
        assert re.search(rf"Machine: +{built.machine}$", header, re.MULTILINE) and built.abi in header
        assert ".symtab" not in run("readelf", "--wide", "--sections", binary)
    run(SOURCES / "scripts/check-hardening", built.daemon, built.probes)


def test_binaries_do_not_contain_the_path_of_their_build(built):
    for binary in (built.daemon, built.probes):
        assert b"/build/" not in binary.read_bytes()
    assert b"lib/platform/" in built.daemon.read_bytes(), "the file of an assertion"


def test_daemon_contains_the_path_of_its_probes(built):
    assert f"/{built.probes.relative_to(built.directory)}".encode() in built.daemon.read_bytes()


def test_debugging_symbols_are_of_these_binaries(built):
    paths = {path for _, _, path in contents(built.symbols)}
    for binary in (built.daemon, built.probes):
        first, rest = re.search(r"Build ID: (\w\w)(\w+)", run("readelf", "--notes", binary)).groups()
        assert f"usr/lib/debug/.build-id/{first}/{rest}.debug" in paths


def test_source_package_has_the_versioned_files_and_no_built_ones(results):
    (archive,) = (results / "source").glob("*.tar.xz")
    names = {name.partition("/")[2] for name in run("tar", "-tf", archive).splitlines()}
    assert {"CMakeLists.txt", "debian/rules", "daemon/main.cpp", "scripts/test"} <= names
    assert not [name for name in names if name.startswith(("build/", ".cache/", ".git/"))]
