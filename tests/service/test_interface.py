"""The description of the interface that is installed for generators of clients says what the daemon says of itself."""

import subprocess
import xml.etree.ElementTree

import pytest

from world.harness import INTERFACE

GENERATOR = "dbusxx-xml2cpp"


@pytest.fixture
def installed(build):
    return build.packaging / f"{INTERFACE}.xml"


@pytest.fixture
def answered(client):
    return client.call("Introspect", interface="org.freedesktop.DBus.Introspectable")


def methods(text):
    """The methods of the interface with the name, type and direction of each argument, and nothing beside them."""
    (interface,) = (node for node in xml.etree.ElementTree.fromstring(text) if node.get("name") == INTERFACE)
    assert {member.tag for member in interface} == {"method"}
    return {method.get("name"): [(argument.get("name"), argument.get("type"), argument.get("direction"))
                                 for argument in method] for method in interface}


def proxy(text, folder, name):
    """The client's class for the interface, as the library's own generator writes it."""
    source, header = folder / f"{name}.xml", folder / f"{name}.h"
    source.write_text(text)
    subprocess.run([GENERATOR, str(source), f"--proxy={header}"], stderr=subprocess.DEVNULL, check=True)
    written = header.read_text()
    start = written.index("class Registry_proxy")
    return written[start:written.index("\n};\n", start)]


def test_installed_description_is_what_the_daemon_answers(installed, answered):
    assert methods(installed.read_text()) == methods(answered)


def test_a_client_generated_of_it_is_the_same(installed, answered, tmp_path):
    generated = proxy(installed.read_text(), tmp_path, "installed")
    assert generated == proxy(answered, tmp_path, "answered")
    assert "std::map< std::string, std::string > KeyList(const std::string& section)" in generated
