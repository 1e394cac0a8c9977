"""The rules of the policy file. The system bus reads one set of rules made of all such files: a rule that names no
destination, or another one, affects other services."""

import xml.etree.ElementTree

from manual import SOURCES

NAME = "com.tavimesh.Registry"


def test_rules_are_for_everybody_the_group_and_root_and_apply_to_the_whole_service():
    root = xml.etree.ElementTree.parse(SOURCES / f"packaging/{NAME}.conf").getroot()
    own, send = {"own": NAME}, {"send_destination": NAME}
    assert [(policy.tag, policy.attrib, [(rule.tag, rule.attrib) for rule in policy]) for policy in root] == [
        ("policy", {"context": "default"}, [("deny", own), ("deny", send)]),
        ("policy", {"group": "ledger"}, [("allow", send)]),
        ("policy", {"user": "root"}, [("allow", own), ("allow", send)]),
        # The one rule for some messages only: those with file descriptors.
        ("policy", {"context": "mandatory"}, [("deny", {**send, "min_fds": "1"})]),
    ]
