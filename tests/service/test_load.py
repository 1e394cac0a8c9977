"""A short run of the load; `scripts/load` makes the long ones."""

from world.harness import is_sanitized
from load import CLIENTS, SEED, Load

CALLS = 50000

# The heap varies by this much. A block that each call left would be far more.
MEMORY_GROWTH = 128 * 1024


def test_load_of_all_methods_is_answered_as_predicted_and_leaves_nothing(world, daemon, build):
    load = Load(world, daemon, build.load_client, CALLS, CLIENTS, SEED, warm_up=0.5)
    print(load.report())
    # The limit is small enough to notice 16 bytes for each call since the warm-up.
    assert (load.calls / 2) * 16 > MEMORY_GROWTH
    assert load.errors > CALLS // 20
    assert len(load.descriptor_counts) == 1
    assert load.thread_counts == [2] or is_sanitized(world)
    assert load.memory_growth < MEMORY_GROWTH or is_sanitized(world)
