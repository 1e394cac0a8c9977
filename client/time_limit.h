// Ends the program if an operation that has no time limit of its own takes too long.
#pragma once

#include <chrono>
#include <string>

namespace ledgerctl {

/// While it lives the program has that much time, on the wall clock's rate. Then it prints "ledgerctl: no answer in
/// N s", removes its temporary file unless that holds work, and exits with NoAnswer. libdbus waits without a bound
/// where a bus takes the connection and then does not read. One object at a time.
class TimeLimit {
public:
  /// `time` is the limit, `shown` the N of the message.
  TimeLimit(std::chrono::milliseconds time, const std::string& shown);
  ~TimeLimit();
  TimeLimit(const TimeLimit&) = delete;
  TimeLimit& operator=(const TimeLimit&) = delete;
};

/// "no answer in N s".
std::string NoAnswerText(const std::string& shown);

}  // namespace ledgerctl
