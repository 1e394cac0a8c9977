// How the program ends: one exit status for each case that scripts distinguish.
#pragma once

#include <stdexcept>
#include <string>

namespace ledgerctl {

enum class ExitStatus {
  Success = 0,
  Missing = 1,  // also: "no" of exists, "different" of diff
  Usage = 2,
  InvalidName = 3,
  NotADocument = 4,
  Full = 5,
  NotRunning = 6,
  Denied = 7,
  NoAnswer = 8,
  DaemonError = 9,
  Local = 10,  // a file, standard output, the editor
};

/// Ends a command early. The program prints "ledgerctl: " and the text, which is never empty, on standard error.
class Failure : public std::runtime_error {
public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), m_status(status) {}

  ExitStatus Status() const noexcept { return m_status; }

private:
  ExitStatus m_status;
};

/// Returns a Failure (Local) with the text "`context`: " and the description of `error_number`.
Failure LocalFailure(const std::string& context, int error_number);

/// Call it in a catch block. Returns the Failure for the current exception. Only this function converts exceptions to
/// an exit status and a text.
Failure CurrentFailure();

}  // namespace ledgerctl
