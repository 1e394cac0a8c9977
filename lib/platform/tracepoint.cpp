#include "lib/platform/tracepoint.h"

#include <dlfcn.h>

#include <cstdlib>

// The tracepoint finds LTTng's tracepoint library at run time, so the program has no dependency on LTTng.
#define LTTNG_UST_TRACEPOINT_DEFINE
#define LTTNG_UST_TRACEPOINT_PROBE_DYNAMIC_LINKAGE
#include "lib/platform/tracepoint_events.h"

namespace bramble {

void FireTracepoint(const char* desc, int value) noexcept {
  lttng_ust_tracepoint(plinthware_platform, td_event, desc, value);
}

void LoadTracepointProbes() noexcept {
  // LTTng would wait up to 3 s for a session daemon that does not answer.
  ::setenv("LTTNG_UST_REGISTER_TIMEOUT", "0", 0);
  ::dlopen(LEDGERD_TRACEPOINT_PROBES, RTLD_NOW | RTLD_GLOBAL);
}

}  // namespace bramble
