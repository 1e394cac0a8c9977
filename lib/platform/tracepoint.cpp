#include "lib/platform/tracepoint.h"

#include <dlfcn.h>

// The tracepoint finds LTTng's tracepoint library at run time, so the program has no dependency on LTTng.
#define LTTNG_UST_TRACEPOINT_DEFINE
#define LTTNG_UST_TRACEPOINT_PROBE_DYNAMIC_LINKAGE
#include "lib/platform/tracepoint_events.h"

namespace bramble {

void FireTracepoint(const char* desc, int value) noexcept {
  lttng_ust_tracepoint(plinthware_platform, td_event, desc, value);
}

void LoadTracepointProbes() noexcept { ::dlopen(LEDGERD_TRACEPOINT_PROBES, RTLD_NOW | RTLD_GLOBAL); }

}  // namespace bramble
