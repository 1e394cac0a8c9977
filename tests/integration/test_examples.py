"""The clients that one copies from: all three do the same."""

import os
import subprocess

import pytest

from documents import SOURCES
from harness import CAPACITY, PATIENCE

EXAMPLES = SOURCES / "examples"
NOT_SERVED = "The name com.tavimesh.Registry was not provided by any .service files\n"
MISSING = {"cpp": NOT_SERVED, "py": NOT_SERVED, "sh": "ledgerctl: the daemon is not running\n"}


@pytest.fixture(params=["cpp", "py", "sh"])
def example(request, world):
    compiled = request.config.getoption("--example")
    program = compiled if request.param == "cpp" else EXAMPLES / f"hostname.{request.param}"
    path = f"{request.config.getoption('--ledgerctl').parent}:{os.environ['PATH']}"

    def run(*arguments):
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": world.bus.address, "PATH": path}
        return subprocess.run([program, *arguments], env=environment, stdin=subprocess.DEVNULL, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
    run.language = request.param
    return run


def outcome(run):
    return run.returncode, run.stdout, run.stderr


def test_examples_are_short():
    lines = {path.name: len(path.read_text().splitlines()) for path in EXAMPLES.glob("hostname.*")}
    assert len(lines) == 3 and max(lines.values()) <= 40


@pytest.mark.parametrize("name", ["player-8", "", "two  blanks", "  leading", "Jürgens Küche", "a=b", "-x"])
def test_name_is_written_and_read_back(client, example, name):
    assert outcome(example(name)) == (0, f"{name}\n", "")
    assert client.read("network", "hostname") == name


def test_name_has_a_default(client, example):
    assert outcome(example()) == (0, "player-7\n", "")


def test_full_registry_is_told_and_keeps_the_old_name(client, example):
    client.write("network", "hostname", "old")
    assert outcome(example("x" * CAPACITY)) == (1, "", "The registry is full; nothing has changed.\n")
    assert client.read("network", "hostname") == "old"


def test_other_error_is_told_as_it_comes(example):
    assert outcome(example("player-8")) == (1, "", MISSING[example.language])
