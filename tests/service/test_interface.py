"""The installed description of the interface, from which generators make clients, is that of the daemon."""

import subprocess
import xml.etree.ElementTree

from world.harness import INTERFACE


def methods(text):
    """The methods of the interface, with the name, type and direction of each argument. There is nothing else."""
    (interface,) = (node for node in xml.etree.ElementTree.fromstring(text) if node.get("name") == INTERFACE)
    assert {member.tag for member in interface} == {"method"}
    return {method.get("name"): [(argument.get("name"), argument.get("type"), argument.get("direction"))
                                 for argument in method] for method in interface}


def proxy(text, directory):
    """The client's class for the interface, as the library's own generator writes it."""
    source, header = directory / "interface.xml", directory / "interface.h"
    source.write_text(text)
    subprocess.run(["dbusxx-xml2cpp", source, f"--proxy={header}"], stderr=subprocess.DEVNULL, check=True)
    written = header.read_text()
    start = written.index("class Registry_proxy")
    return written[start:written.index("\n};\n", start)]


def test_installed_description_and_a_client_made_of_it_are_those_of_the_daemon(build, client, tmp_path):
    installed = (build.packaging / f"{INTERFACE}.xml").read_text()
    answered = client.call("Introspect", interface="org.freedesktop.DBus.Introspectable")
    assert methods(installed) == methods(answered)
    generated = proxy(installed, tmp_path)
    assert generated == proxy(answered, tmp_path)
    assert "std::map< std::string, std::string > KeyList(const std::string& section)" in generated
