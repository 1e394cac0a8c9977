// The one place where exceptions become an exit status and a text.
#pragma once

#include "client/exit_status.h"

namespace ledgerctl {

/// Called from a catch block: the failure that the exception being handled stands for.
Failure CurrentFailure();

}  // namespace ledgerctl
