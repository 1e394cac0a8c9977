"""The build under test."""

import functools
import pathlib
import re

SOURCES = pathlib.Path(__file__).parents[2]


class Build:
    """The programs and files under test."""

    packaging = SOURCES / "packaging"
    completion = SOURCES / "completion"

    def __init__(self, directory):
        self.directory = directory.resolve()
        self.ledgerd = self.directory / "daemon" / "ledgerd"
        self.ledgerctl = self.directory / "client" / "ledgerctl"
        self.unit = self.directory / "packaging" / "ledgerd.service"
        self.init_script = self.directory / "packaging" / "ledgerd.init"
        self.activation = self.directory / "packaging" / "com.tavimesh.Registry.service"
        self.pages = self.directory / "docs" / "man"
        self.probes = self.directory / "lib" / "platform" / "ledgerd-tracepoint-probes.so"
        self.load_client = self.directory / "tests" / "load" / "ledgerd_load"
        self.control_service = self.directory / "tests" / "model" / "ledgerd_echo_service"
        self.failing_malloc = self.directory / "tests" / "service" / "libledgerd_failing_malloc.so"
        self.example = self.directory / "examples" / "hostname"

    @functools.cached_property
    def variables(self):
        """The variables of CMake."""
        return dict(re.findall(r"(?m)^(\w+):\w+=(.*)$", (self.directory / "CMakeCache.txt").read_text()))

    @property
    def installed_probes(self):
        """The path at which the daemon looks for its probes."""
        prefix, libraries = (self.variables[f"CMAKE_INSTALL_{name}"] for name in ("PREFIX", "LIBDIR"))
        return pathlib.Path(prefix, libraries, "ledgerd", self.probes.name)

    def has(self, part):
        """Whether a part of the project is built."""
        return (self.variables[f"LEDGERD_{part}"] == "ON" and
                not (part == "MAN" and self.variables["LEDGERD_SCDOC"].endswith("NOTFOUND")))
