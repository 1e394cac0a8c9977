"""The measured calls, on registries of several sizes.

Each round starts all services anew, so that the memory layout of the processes differs from round to round.
"""

import json
import subprocess
import xml.sax.saxutils

REGISTRY = "com.tavimesh.Registry"
ECHO = "com.example.Echo"
XFCONF = "org.xfce.Xfconf"
CAPACITY = 16383
FILLS = (0, 25, 50, 75, 99)
FULL = FILLS[-1]
KEYS_AT_FULL = 400
KEYS_PER_SECTION = 16

# Debian's service file of xfconfd contains the path of the program.
XFCONF_SERVICE = "/usr/share/dbus-1/services/org.xfce.Xfconf.service"


def sections(percent):
    """Returns {section: {key: value}} whose text in the registry file fills that percentage of the capacity."""
    count = KEYS_AT_FULL * percent // FULL
    names = [(f"s{key // KEYS_PER_SECTION:03}", f"k{key:03}") for key in range(count)]
    fixed = len({section for section, _ in names}) * len("[s000]\n") + count * len("k000=\n")
    values = CAPACITY * percent // 100 - fixed
    found = {}
    for number, (section, key) in enumerate(names):
        length = values // count + (number < values % count)
        found.setdefault(section, {})[key] = "abcdefgh"[number % 8] * length
    return found


def registry_text(percent):
    return "".join(f"[{section}]\n" + "".join(f"{key}={value}\n" for key, value in keys.items())
                   for section, keys in sections(percent).items())


def registry_json(percent):
    return json.dumps(sections(percent), separators=(",", ":"))


def changed_entries(percent):
    """Returns the middle key with two values in turn. Each Write is a change that does not change the size of the text,
    except the first Write to an empty registry."""
    entries = [(section, key, len(value)) for section, keys in sections(percent).items() for key, value in keys.items()]
    section, key, length = entries[len(entries) // 2] if entries else ("s000", "k000", 34)
    return [(section, key, letter * length) for letter in "xy"]


def xfconf_channel():
    """Returns the same registry, fully filled, in the file format of xfconfd."""
    lines = ['<channel name="registry" version="1.0">']
    for section, keys in sections(FULL).items():
        lines += [f'<property name="{section}" type="empty">',
                  *(f'<property name="{key}" type="string" value={xml.sax.saxutils.quoteattr(value)}/>'
                    for key, value in keys.items()), "</property>"]
    return "\n".join([*lines, "</channel>"])


class Services:
    """All services of a round, and the lines that describe the calls to them for the client."""

    def __init__(self, place, build, before):
        self.place = place
        self.processes = []
        self.lines = []
        for percent in FILLS:
            for version, program in (("", build / "daemon/ledgerd"), ("before ", before)):
                self.start_daemon(version, percent, program)
        self.start_echo(build)
        self.start_xfconfd()

    def add(self, kind, service, path, interface, member, types="", *arguments):
        process, name = service
        fields = (kind.replace(" ", "_"), str(process.pid), name, path, interface, types, member, *arguments)
        self.lines.append("\t".join(fields))

    def start(self, start, *arguments):
        service = start(*arguments)
        self.processes.append(service[0])
        return service

    def start_daemon(self, version, percent, program):
        service = self.start(self.place.start_with_store, REGISTRY, registry_text(percent), program, "-d")
        object_and_interface = ("/com/tavimesh/Registry", REGISTRY)
        text = self.place.connection.call_blocking(service[1], *object_and_interface, "ReadAllJson", "", ())
        assert text == registry_json(percent), "the daemon does not have the registry of the benchmark"
        for entry in changed_entries(percent):
            self.add(f"{version}Write {percent}", service, *object_and_interface, "Write", "sss", *entry)
        if percent == FULL:
            for section, keys in sections(percent).items():
                self.add(f"{version}Read", service, *object_and_interface, "Read", "ss", section, min(keys))
            self.add(f"{version}ReadAllJson", service, *object_and_interface, "ReadAllJson")

    def start_echo(self, build):
        program = build / "tests/model/ledgerd_echo_service"
        length = str(len(registry_json(FULL)))
        service = self.start(self.place.start, ECHO, program, self.place.address, ECHO, length)
        arguments = changed_entries(FULL)[0]
        for what, values in (("Read", arguments[:2]), ("Write", arguments), ("a long text", ())):
            self.add(f"echo of {what}", service, "/com/example/Echo", ECHO, "Echo", "s" * len(values), *values)

    def start_xfconfd(self):
        directory = self.place.state / "xfce4/xfconf/xfce-perchannel-xml"
        directory.mkdir(parents=True, exist_ok=True)
        (directory / "registry.xml").write_text(xfconf_channel(), encoding="ascii")
        with open(XFCONF_SERVICE, encoding="ascii") as file:
            command = next(line[len("Exec="):].split() for line in file if line.startswith("Exec="))
        service = self.start(self.place.start, XFCONF, *command)
        for section, key, value in changed_entries(FULL):
            path = f"/{section}/{key}"
            held = self.place.connection.call_blocking(service[1], "/org/xfce/Xfconf", XFCONF, "GetProperty", "ss",
                                                       ("registry", path))
            assert len(held) == len(value), "xfconfd does not have the registry of the benchmark"
            self.add("xfconfd SetProperty", service, "/org/xfce/Xfconf", XFCONF, "SetProperty", "ssv", "registry", path,
                     value)

    def stop(self):
        for process in self.processes:
            process.terminate()
            process.wait()


def run_round(place, build, before, passes, block):
    """Returns {"KIND p50", "KIND cpu" or "KIND bus": microseconds per call}."""
    services = Services(place, build, before)
    output = subprocess.run(
        [build / "bench/ledgerd_bus_client", place.address, str(place.bus.pid), str(passes), str(block)],
        input="\n".join(services.lines) + "\n", stdout=subprocess.PIPE, text=True, check=True).stdout
    services.stop()
    figures = {}
    for line in output.splitlines():
        kind, *values = line.split()
        for field, value in zip(("p50", "cpu", "bus"), values):
            figures[f"{kind.replace('_', ' ')} {field}"] = int(value) / 1000
    return figures
