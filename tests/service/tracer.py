"""The name of the event, and a mark for tests that need LTTng."""

import shutil

import pytest

EVENT = "plinthware_platform:td_event"

needs_tracer = pytest.mark.skipif(
    not all(shutil.which(tool) for tool in ("lttng-sessiond", "lttng", "babeltrace2")), reason="LTTng is missing")
