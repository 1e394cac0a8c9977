#include "lib/platform/tracepoint.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>

// The tracepoint loads LTTng's tracepoint library at run time, so the program does not depend on LTTng.
#define LTTNG_UST_TRACEPOINT_DEFINE
#define LTTNG_UST_TRACEPOINT_PROBE_DYNAMIC_LINKAGE
#include "lib/platform/tracepoint_events.h"

namespace bramble {
namespace {

// The socket of the session daemon of root. The number is the version of LTTng's protocol.
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
  // LTTng maps a file in /dev/shm. Without a session daemon any user may create and truncate that file, and SIGBUS
  // would then end this process.
  if (!HasSessionDaemon()) {
    return;
  }
  // Otherwise LTTng waits up to 3 s for a session daemon that does not answer.
  ::setenv("LTTNG_UST_REGISTER_TIMEOUT", "0", 0);
  ::dlopen(LEDGERD_TRACEPOINT_PROBES, RTLD_NOW | RTLD_GLOBAL);
}

}  // namespace bramble
