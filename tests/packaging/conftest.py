"""What the tests of this folder are told on the command line."""


def pytest_addoption(parser):
    parser.addoption("--ledgerd", help="the daemon's executable")
    parser.addoption("--unit", help="the unit of the service")
    parser.addoption("--cmake", help="the program that installs")
    parser.addoption("--build", help="the folder of the build")
    parser.addoption("--man", type=int, default=0, help="1 if manual pages are built")
    parser.addoption("--libdir", help="the folder of libraries below the prefix")
