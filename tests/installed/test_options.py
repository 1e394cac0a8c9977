"""Configuring asks for what the guide for builders of images lists. Its options leave parts out."""

import json
import os
import pathlib
import re
import subprocess

import pytest

from manual import SOURCES

GUIDE = (SOURCES / "docs/integration.md").read_text()
# The guide's table of libraries: name and version, Debian's packages, and the option that does without.
LIBRARIES = re.findall(r"(?m)^\| `([^`|]+)` \| `([^|]*-dev)` \| (?:`-D(\w+)=OFF`)?", GUIDE)


@pytest.fixture
def configure(build, tmp_path):
    """Configures in `tmp_path` without the named libraries and options. Returns the process."""
    pkg_config = ("pkg-config", "--variable", "pc_path", "pkg-config")
    directories = subprocess.check_output(pkg_config, text=True).strip().split(":")

    def run(*options, without):
        modules = tmp_path / "modules"
        modules.mkdir()
        for path in (path for directory in directories for path in pathlib.Path(directory).glob("*.pc")):
            link = modules / path.name
            if path.stem not in without and not link.exists():
                link.symlink_to(path)
        hidden = [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON" for name in without]
        return subprocess.run([build.variables["CMAKE_COMMAND"], "-S", SOURCES, "-B", tmp_path / "build",
                               "-G", build.variables["CMAKE_GENERATOR"],
                               "-DCMAKE_BUILD_TYPE=RelWithDebInfo", *hidden, *options], text=True, check=False,
                              env={**os.environ, "PKG_CONFIG_LIBDIR": str(modules)}, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE)
    return run


def test_missing_libraries_are_reported_as_the_guide_lists_them(configure):
    assert len(LIBRARIES) == 9
    process = configure(without=[re.match("[^ >]+", library)[0] for library, *_ in LIBRARIES])
    expected = [f"{library}: install {packages.replace('` and `', ' and ')}" +
                (f", or configure with -D{option}=OFF" if option else "") for library, packages, option in LIBRARIES]
    assert process.returncode == 1
    assert re.findall("(?m)^ +(.*: install .*)$", process.stderr) == expected


def test_command_of_the_guide_installs_the_build_packages():
    command = re.search(r"(?m)^    apt-get install ((?:.*\\\n)*.*)$", GUIDE)[1]
    needed = re.search(r'(?s)build_packages="(.*?)"', (SOURCES / "scripts/lib/dependencies.sh").read_text())[1]
    # The bus is for running the daemon, and without scdoc there are no pages.
    assert set(command.replace("\\", "").split()) == set(needed.split()) - {"dbus"} | {"scdoc"}


@pytest.mark.parametrize("option, library, part, other_part", [
    ("LEDGERD_CLIENT", "CLI11", "ledgerctl", "probes"),
    ("LEDGERD_TRACING", "lttng-ust", "probes", "ledgerctl"),
    ("BUILD_TESTING", "GTest", "add_test", "ledgerctl"),
])
def test_option_leaves_out_what_needs_the_library(configure, tmp_path, option, library, part, other_part):
    process = configure(f"-D{option}=OFF", without=[library])
    assert process.returncode == 0, process.stderr
    generated = "".join(path.read_text() for name in ("cmake_install.cmake", "CTestTestfile.cmake")
                        for path in (tmp_path / "build").rglob(name))
    assert part not in generated and other_part in generated


def test_build_without_tracing_has_its_functions_and_the_flags_of_a_package_build(configure, tmp_path, build):
    process = configure("-DLEDGERD_TRACING=OFF", "-DBUILD_TESTING=OFF", "-DCMAKE_CXX_FLAGS=-D_FORTIFY_SOURCE=2",
                        without=["lttng-ust"])
    assert process.returncode == 0, process.stderr
    compiled = tmp_path / "build/lib/platform/CMakeFiles/ledgerd_platform.dir/no_tracepoint.cpp.o"
    subprocess.run([build.variables["CMAKE_COMMAND"], "--build", tmp_path / "build",
                    "--target", compiled.relative_to(tmp_path / "build")], stdout=subprocess.DEVNULL, check=True)
    symbols = subprocess.check_output(["nm", "--demangle", compiled], text=True)
    assert re.findall(r" T (bramble::\w+)", symbols) == ["bramble::FireTracepoint", "bramble::LoadTracepointProbes"]
    commands = [row["command"] for row in json.loads((tmp_path / "build/compile_commands.json").read_text())]
    assert commands and {command.count("_FORTIFY_SOURCE") for command in commands} == {1}
