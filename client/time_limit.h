// Ends the program if an operation that has no time limit of its own takes too long.
#pragma once

#include <chrono>
#include <string>

namespace ledgerctl {

/// Limits the real time that the program may run while this object exists. When the time is over, the program prints
/// "ledgerctl: no answer in N s" and exits with NoAnswer. It removes its temporary file, or prints the path of the file
/// if it contains the user's work. The limit is needed because libdbus waits forever for a bus that accepts the
/// connection and then does not read. Only one object may exist at a time.
class TimeLimit {
public:
  /// `time` is the limit. The message prints `shown` as N.
  TimeLimit(std::chrono::milliseconds time, const std::string& shown);
  ~TimeLimit();
  TimeLimit(const TimeLimit&) = delete;
  TimeLimit& operator=(const TimeLimit&) = delete;
};

/// "no answer in N s".
std::string NoAnswerText(const std::string& shown);

}  // namespace ledgerctl
