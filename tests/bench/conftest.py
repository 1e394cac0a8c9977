"""The instruments of bench are imported from where they are."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))


def pytest_addoption(parser):
    parser.addoption("--build", required=True, type=pathlib.Path, help="the directory of a release build")
