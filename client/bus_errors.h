// Converts errors of the bus and of the daemon to failures of the program.
#pragma once

#include <string>

namespace ledgerctl {

/// The name and the message of a D-Bus error.
struct BusError {
  std::string name;
  std::string message;
};

/// Throws the Failure for an attempt to connect to the bus. `timed_out` says that the attempt took the whole time
/// limit.
[[noreturn]] void ThrowConnectFailure(const BusError& error, bool timed_out, const std::string& shown_timeout);

/// Throws the Failure, or the exception of Registry, for the error that ended a call. `timed_out` says that the call
/// took the whole time limit.
[[noreturn]] void ThrowCallFailure(const BusError& error, bool timed_out, const std::string& shown_timeout);

}  // namespace ledgerctl
