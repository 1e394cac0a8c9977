"""Rules of good manners for the policy file. The system bus reads one set of rules made of all such files: a rule that
names too little is a hole in somebody else's service."""

import pathlib
import xml.etree.ElementTree

import pytest

BUS_NAME = "com.tavimesh.Registry"
POLICY = pathlib.Path(__file__).parents[3] / "packaging" / f"{BUS_NAME}.conf"

# The one rule about a part of the messages: those with file descriptors.
NO_DESCRIPTORS = ("deny", {"send_destination": BUS_NAME, "min_fds": "1"})


def defects(text):
    """What is wrong with the rules of a policy file."""
    found = []
    for policy in xml.etree.ElementTree.fromstring(text):
        for rule in policy:
            subject = rule.get("own", rule.get("send_destination"))
            written = xml.etree.ElementTree.tostring(rule, encoding="unicode").strip()
            if policy.tag != "policy" or rule.tag not in ("allow", "deny"):
                found.append(f"no rule: {written}")
            elif subject != BUS_NAME:
                found.append(f"names another destination, or none: {written}")
            elif len(rule.attrib) != 1 and (rule.tag, rule.attrib) != NO_DESCRIPTORS:
                found.append(f"holds for a part of the service only: {written}")
    return found


def test_each_rule_is_about_the_whole_service_and_nothing_else():
    assert defects(POLICY.read_text()) == []


def test_rules_are_for_everybody_the_group_and_root():
    root = xml.etree.ElementTree.fromstring(POLICY.read_text())
    rules = [(policy.attrib, [(rule.tag, *rule.attrib) for rule in policy]) for policy in root]
    assert rules == [
        ({"context": "default"}, [("deny", "own"), ("deny", "send_destination")]),
        ({"group": "ledger"}, [("allow", "send_destination")]),
        ({"user": "root"}, [("allow", "own"), ("allow", "send_destination")]),
        ({"context": "mandatory"}, [("deny", "send_destination", "min_fds")]),
    ]


@pytest.mark.parametrize("rule", [
    '<allow send_interface="com.tavimesh.Registry"/>',
    '<allow send_type="method_call"/>',
    '<allow receive_sender="com.tavimesh.Registry"/>',
    '<allow eavesdrop="true"/>',
    '<allow own="*"/>',
    '<allow own_prefix="com.tavimesh"/>',
    '<allow user="*"/>',
    '<deny send_interface="com.tavimesh.Registry"/>',
    '<allow send_destination="*"/>',
    '<allow send_destination="com.tavimesh.Registry.Other"/>',
    '<allow send_destination="com.tavimesh.Registry" send_interface="com.tavimesh.Registry"/>',
    '<allow send_destination="com.tavimesh.Registry" send_requested_reply="false"/>',
    '<deny send_destination="com.tavimesh.Registry" min_fds="2"/>',
    '<allow send_destination="com.tavimesh.Registry" min_fds="1"/>',
    '<limit name="max_connections_per_user">1</limit>',
])
def test_defect_is_seen(rule):
    assert len(defects(f'<busconfig><policy context="default">{rule}</policy></busconfig>')) == 1
