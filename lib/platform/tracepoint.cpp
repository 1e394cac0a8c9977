#include "lib/platform/tracepoint.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>

// The tracepoint finds LTTng's tracepoint library at run time, so the program has no dependency on LTTng.
#define LTTNG_UST_TRACEPOINT_DEFINE
#define LTTNG_UST_TRACEPOINT_PROBE_DYNAMIC_LINKAGE
#include "lib/platform/tracepoint_events.h"

namespace bramble {
namespace {

// Where root's session daemon listens. The number is that of LTTng's protocol.
constexpr char kSessionDaemonSocket[] = "/var/run/lttng/lttng-ust-sock-8";

bool HasSessionDaemon() noexcept {
  struct stat status {};
  return ::stat(kSessionDaemonSocket, &status) == 0 && S_ISSOCK(status.st_mode) && status.st_uid == 0;
}

}  // namespace

void FireTracepoint(const char* desc, int value) noexcept {
  lttng_ust_tracepoint(plinthware_platform, td_event, desc, value);
}

void LoadTracepointProbes() noexcept {
  // Until a session daemon owns the file of /dev/shm that LTTng maps, any user may truncate it, and this process would
  // die of SIGBUS.
  if (!HasSessionDaemon()) {
    return;
  }
  // LTTng would wait up to 3 s for a session daemon that does not answer.
  ::setenv("LTTNG_UST_REGISTER_TIMEOUT", "0", 0);
  ::dlopen(LEDGERD_TRACEPOINT_PROBES, RTLD_NOW | RTLD_GLOBAL);
}

}  // namespace bramble
