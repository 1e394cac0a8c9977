#include "client/exit_status.h"

#include <cstring>

namespace ledgerctl {

Failure LocalFailure(const std::string& context, int error_number) {
  return Failure(ExitStatus::Local, context + ": " + std::strerror(error_number));
}

}  // namespace ledgerctl
