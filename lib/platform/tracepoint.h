// The LTTng tracepoint "plinthware_platform:td_event". Where LTTng is not installed, firing it costs a test of a flag.
#pragma once

namespace bramble {

/// Fires the event with the fields `desc` and `value` if a tracing session has enabled it. Any thread may call it; it
/// takes no lock of this program's and does not throw.
void FireTracepoint(const char* desc, int value) noexcept;

/// Loads the event's probes, a shared object of this program's, which in turn loads LTTng and starts its threads: so it
/// must not run before a fork. Does nothing if root's session daemon of LTTng is not running. Missing probes or a
/// missing LTTng are passed over in silence. Call it once.
void LoadTracepointProbes() noexcept;

}  // namespace bramble
