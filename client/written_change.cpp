#include "client/written_change.h"

#include <exception>

#include "client/failure.h"
#include "client/registry_snapshot.h"

namespace ledgerctl {
namespace {

[[noreturn]] void ThrowNotWritten(const Failure& cause) {
  throw Failure(cause.Status(), std::string("changed, but not written: ") + cause.what());
}

// The daemon has one error for a write that failed after the change and for what stopped it before the change.
bool IsInEffect(Registry& registry, const Merge& merge) {
  try {
    const RegistrySections now = ReadRegistry(registry);
    RegistrySections merged = now;
    ApplyMerge(merge, merged);
    return merged == now;
  } catch (const std::exception&) {
    // The first error says more.
    return false;
  }
}

}  // namespace

void WriteMerge(Registry& registry, const Merge& merge) {
  try {
    registry.WriteJson(PrintMerge(merge));
  } catch (const Failure& e) {
    if (e.Status() == ExitStatus::DaemonError && IsInEffect(registry, merge)) {
      ThrowNotWritten(e);
    }
    throw;
  }
}

void FlushChange(Registry& registry) {
  try {
    registry.Flush();
  } catch (const Failure& e) {
    if (e.Status() == ExitStatus::DaemonError) {
      ThrowNotWritten(e);
    }
    throw;
  }
}

}  // namespace ledgerctl
