"""Which tests are nearest to a source, the nearest first."""
import dataclasses
import json
import os
import pathlib
import subprocess

# The service tests of a source: those of the longest beginning of its path.
SERVICE_TESTS = {
    "client/": "ledgerctl ledgerctl_status ledgerctl_processes",
    "daemon/": "foreground signals daemon_mode kill start_failures bus_loss methods",
    "daemon/dispatcher": "bus_loss foreground hostile",
    "dbus/": "methods hostile",
    "lib/hardware/": "hardware_lines",
    "lib/platform/": "",
    "lib/platform/daemonise": "daemon_mode handshake start_failures",
    "lib/platform/escape": "model",
    "lib/platform/lazy": "flush faults",
    "lib/platform/pid_file": "kill daemon_mode",
    "lib/platform/posix_helpers": "faults first_read",
    "lib/platform/standard_streams": "foreground daemon_mode",
    "lib/platform/tracepoint": "tracing",
    "registry/": "methods model",
    "registry/file_store": "faults first_read",
    "registry/json": "imports",
    "registry/refused_json": "imports",
    "registry/registry_json": "imports model",
}

# The options that give the service tests another program than that of the build.
PROGRAMS = {"--ledgerd": "daemon/ledgerd", "--ledgerctl": "client/ledgerctl"}


@dataclasses.dataclass(frozen=True)
class Step:
    name: str
    command: tuple
    programs: tuple  # those of the build that are words of the command


def _service_tests(path):
    return SERVICE_TESTS[max((key for key in SERVICE_TESTS if path.startswith(key)), key=len)].split()


class NearestTests:
    """What ctest knows of a build: the unit programs of each directory, and the commands of the service tests."""

    def __init__(self, directory):
        self.directory = directory
        self.service = {}
        self.units = {}  # directory -> program -> the file of each test
        listing = subprocess.run(["ctest", "--test-dir", directory, "--show-only=json-v1"], check=True,
                                 stdout=subprocess.PIPE).stdout
        for test in json.loads(listing)["tests"]:
            command = test.get("command", [])
            if test["name"].startswith("service."):
                self.service[test["name"].removeprefix("service.")] = command
            elif any(word.startswith("--gtest_filter") for word in command):
                self.units.setdefault(pathlib.Path(command[0]).parent.name, {})[command[0]] = None

    def _files(self, program):
        """Each test of a unit program, and the name of its file."""
        output = pathlib.Path(f"{program}.{os.getpid()}.json")
        subprocess.run([program, "--gtest_list_tests", f"--gtest_output=json:{output}"], check=True,
                       stdout=subprocess.DEVNULL)
        suites = json.loads(output.read_text())["testsuites"]
        output.unlink()
        return {f"{suite['name']}.{test['name']}": pathlib.Path(test["file"]).name
                for suite in suites for test in suite["testsuite"]}

    def _unit_steps(self, path):
        """The tests in the files that begin with the source's name, then the others of the directory."""
        programs = self.units[pathlib.Path(path).parent.name]
        others = []
        for program in programs:
            programs[program] = programs[program] or self._files(program)
            own = ":".join(test for test, file in programs[program].items()
                           if file.startswith(pathlib.Path(path).stem))
            if own:
                yield Step("unit", (program, "--gtest_fail_fast", f"--gtest_filter={own}"), (program,))
            others.append(Step("unit", (program, "--gtest_fail_fast", f"--gtest_filter=-{own}"), (program,)))
        yield from others

    def steps(self, path, services=None):
        yield from self._unit_steps(path)
        for name in services or _service_tests(path):
            programs = {option: f"{self.directory}/{path}" for option, path in PROGRAMS.items()}
            words = (f"{option}={program}" for option, program in programs.items())
            yield Step(f"service.{name}", (*self.service[name], *words), tuple(programs.values()))
