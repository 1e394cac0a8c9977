"""The options of these tests."""

import pathlib


def pytest_addoption(parser):
    parser.addoption("--build", required=True, type=pathlib.Path, help="the directory of a release build")
