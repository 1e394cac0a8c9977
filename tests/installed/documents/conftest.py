"""What the tests of this folder are told on the command line."""

import pathlib


def pytest_addoption(parser):
    parser.addoption("--pages", type=pathlib.Path, help="the folder of the manual pages")
    parser.addoption("--ledgerctl", help="the client's executable")
    parser.addoption("--cmake", help="the program that installs")
    parser.addoption("--generator", help="the kind of build files that it writes")
    parser.addoption("--build", help="the folder of the build")
    parser.addoption("--libdir", help="the folder of libraries below the prefix")
