"""What the tests of this folder are told on the command line."""


def pytest_addoption(parser):
    parser.addoption("--ledgerd", help="the daemon's executable")
    parser.addoption("--unit", help="the unit of the service")
    parser.addoption("--cmake", help="the program that installs")
    parser.addoption("--build", help="the folder of the build")
    for part in ("man", "client", "tracing"):
        parser.addoption(f"--{part}", type=int, default=0, help="1 if this part is built")
    parser.addoption("--libdir", help="the folder of libraries below the prefix")
