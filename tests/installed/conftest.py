"""The build under test. For the tests of the Debian packages it is the directory of the packages."""

import pathlib
import re

import pytest


class Build:
    def __init__(self, directory):
        self.directory = directory
        self.variables = dict(re.findall(r"(?m)^(\w+):\w+=(.*)$", (directory / "CMakeCache.txt").read_text()))
        self.ledgerd = directory / "daemon/ledgerd"
        self.ledgerctl = directory / "client/ledgerctl"
        self.unit = directory / "packaging/ledgerd.service"
        self.pages = directory / "docs/man"

    def has(self, part):
        """Whether a part of the project is built."""
        return (self.variables[f"LEDGERD_{part}"] == "ON" and
                not (part == "MAN" and self.variables["LEDGERD_SCDOC"].endswith("NOTFOUND")))


def pytest_addoption(parser):
    parser.addoption("--build", required=True, type=lambda path: pathlib.Path(path).resolve(),
                     help="the directory of the build, or of the packages")


@pytest.fixture(scope="session")
def build(request):
    return Build(request.config.getoption("--build"))
