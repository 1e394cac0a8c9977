"""The build under test. For the tests of the Debian packages it is the directory of the packages."""

import pathlib

import pytest

from world.build import Build


def pytest_addoption(parser):
    parser.addoption("--build", required=True, type=lambda path: pathlib.Path(path).resolve(),
                     help="the directory of the build, or of the packages")


@pytest.fixture(scope="session")
def build(request):
    return Build(request.config.getoption("--build"))
