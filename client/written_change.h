// Changes after which the daemon writes its file at once. The change remains in the daemon's memory if the write fails:
// only the file lacks it.
#pragma once

#include "client/registry_merge.h"
#include "registry/registry.h"

namespace ledgerctl {

/// Makes the change by one WriteJson. Throws what WriteJson throws, and Failure (DaemonError) "changed, but not
/// written: reason" if the daemon has made the change and its write of the file failed. To know that, reads the
/// registry again after an error of the daemon.
void WriteMerge(Registry& registry, const Merge& merge);

/// Flushes a change that an earlier call has made. Throws what Flush throws, and Failure (DaemonError) "changed, but
/// not written: reason" if the write of the file failed.
void FlushChange(Registry& registry);

}  // namespace ledgerctl
