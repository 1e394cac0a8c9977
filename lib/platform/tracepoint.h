// The LTTng tracepoint "plinthware_platform:td_event". Without LTTng, firing it only tests a flag. In a build without
// LEDGERD_TRACING both functions do nothing.
#pragma once

namespace bramble {

/// Fires the event with the fields `desc` and `value` if a tracing session has enabled it. Thread-safe; takes no lock
/// of this program and does not throw.
void FireTracepoint(const char* desc, int value) noexcept;

/// Loads the probes of the event. They are a shared object of this program that loads LTTng, which starts threads.
/// Therefore it must not be called before a fork. Does nothing if LTTng's session daemon of root is not running, or if
/// the probes or LTTng are missing. Must be called only once.
void LoadTracepointProbes() noexcept;

}  // namespace bramble
