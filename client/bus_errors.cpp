#include "client/bus_errors.h"

#include <string_view>

#include "client/failure.h"
#include "client/time_limit.h"
#include "registry/registry.h"

namespace ledgerctl {
namespace {

constexpr std::string_view kStandardErrors = "org.freedesktop.DBus.Error.";
constexpr std::string_view kRegistryErrors = "com.tavimesh.Registry.Errors.";

bool StartsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// The last part of the name if it is one of the standard errors, else nothing.
std::string_view StandardError(std::string_view name) {
  return StartsWith(name, kStandardErrors) ? name.substr(kStandardErrors.size()) : std::string_view();
}

Failure NotRunning(const std::string& detail) {
  return Failure(ExitStatus::NotRunning, "the daemon is not running" + detail);
}

Failure Disconnected() { return NotRunning(": the bus closed the connection"); }

// An error need not have a message.
Failure DaemonError(const BusError& error) {
  return Failure(ExitStatus::DaemonError, error.message.empty() ? error.name : error.message);
}

Failure Denied() { return Failure(ExitStatus::Denied, "permission denied by the bus"); }

}  // namespace

void ThrowConnectFailure(const BusError& error, bool timed_out, const std::string& shown_timeout) {
  const std::string_view name = StandardError(error.name);
  if (name == "AccessDenied" || name == "AuthFailed") {
    throw Denied();
  }
  if (name == "NoReply" || name == "Timeout") {
    // libdbus reports the same if the bus closes the connection without an answer.
    throw timed_out ? Failure(ExitStatus::NoAnswer, NoAnswerText(shown_timeout)) : Disconnected();
  }
  throw NotRunning(": there is no system bus\n" + error.message);
}

void ThrowCallFailure(const BusError& error, bool timed_out, const std::string& shown_timeout) {
  const std::string_view full_name = error.name;
  if (StartsWith(full_name, kRegistryErrors)) {
    const std::string_view name = full_name.substr(kRegistryErrors.size());
    if (name == "InvalidName") {
      throw Failure(ExitStatus::InvalidName, "invalid name");
    }
    if (name == "InvalidJson") {
      throw Failure(ExitStatus::NotADocument, "not a registry document");
    }
    if (name == "Full") {
      throw Registry::Full();
    }
    throw DaemonError(error);
  }
  const std::string_view name = StandardError(full_name);
  if (name == "ServiceUnknown" || name == "NameHasNoOwner") {
    throw NotRunning("");
  }
  // The answers of the bus and of systemd if they cannot start it. The time-out of the bus is no time-out of this call.
  if (StartsWith(name, "Spawn.") || name == "TimedOut" || StartsWith(full_name, "org.freedesktop.systemd1.")) {
    throw NotRunning(" and cannot be started\n" + error.message);
  }
  if (name == "AccessDenied") {
    throw Denied();
  }
  if (name == "NoReply" || name == "Timeout") {
    // The bus reports the same if the daemon ends before it answers.
    throw timed_out ? Failure(ExitStatus::NoAnswer, NoAnswerText(shown_timeout))
                    : NotRunning(" any more: it ended before it answered");
  }
  if (name == "Disconnected") {
    throw Disconnected();
  }
  throw DaemonError(error);
}

}  // namespace ledgerctl
