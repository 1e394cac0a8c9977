// The errors of the bus and of the daemon, and what they are to a user.
#pragma once

#include <string>

namespace ledgerctl {

/// As D-Bus has it.
struct BusError {
  std::string name;
  std::string message;
};

/// Throws what stands for the failure of an attempt to connect to the bus. `timed_out`: it took as long as it was
/// allowed to.
[[noreturn]] void ThrowConnectFailure(const BusError& error, bool timed_out, const std::string& shown_timeout);

/// Throws what stands for the error that ended a call. `timed_out` as above.
[[noreturn]] void ThrowCallFailure(const BusError& error, bool timed_out, const std::string& shown_timeout);

}  // namespace ledgerctl
