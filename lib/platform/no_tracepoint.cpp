// Takes the place of tracepoint.cpp in a build without tracing.
#include "lib/platform/tracepoint.h"

namespace bramble {

void FireTracepoint(const char*, int) noexcept {}

void LoadTracepointProbes() noexcept {}

}  // namespace bramble
