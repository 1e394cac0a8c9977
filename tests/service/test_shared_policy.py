"""The policy that the guide for builders of images shows, beside the shipped one."""

import re

import pytest

from documents import SOURCES
from world.harness import BUS_NAME
from world.namespace_world import needs_root
from world.raw_client import ERROR, METHOD_RETURN, RawClient
from world.system_bus import ACCOUNTS, MEMBER, STRANGER, SystemBus, User

pytestmark = needs_root

PLAYER = User("player", 61005, 61005, (61005,))


@pytest.fixture
def make_bus():
    shipped = f"{BUS_NAME}.conf"
    guide = (SOURCES / "docs/integration.md").read_text()
    shown = re.search(r"(?s)( {4}<busconfig>.*</busconfig>)", guide)[1]
    policies = {shipped: (SOURCES / "packaging" / shipped).read_text(), "com.example.player.conf": shown}
    accounts = {"passwd": ACCOUNTS["passwd"] + f"player:x:{PLAYER.user}:{PLAYER.group}::/:/bin/sh\n"}
    return lambda directory: SystemBus(directory, policies, accounts)


@pytest.mark.parametrize("user, kind", [(PLAYER, METHOD_RETURN), (MEMBER, METHOD_RETURN), (STRANGER, ERROR)],
                         ids=lambda value: getattr(value, "name", None))
def test_one_more_user_is_let_in(world, daemon, user, kind):
    with user.acting():
        client = RawClient(world.bus)
    assert client.call("Read", "s", "k").kind == kind
    client.close()
