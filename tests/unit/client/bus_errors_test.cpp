#include "client/bus_errors.h"

#include <gtest/gtest.h>

#include "client/failure.h"

namespace ledgerctl {
namespace {

template <typename Throw>
Failure ReportOf(Throw what) {
  try {
    what();
  } catch (...) {
    return CurrentFailure();
  }
  return Failure(ExitStatus::Success, "");
}

struct Row {
  const char* error;
  const char* message;
  bool timed_out;
  ExitStatus status;
  const char* text;
};

TEST(CallFailure, HasAStatusForEachError) {
  const Row rows[] = {
      {"com.tavimesh.Registry.Errors.InvalidName", "Invalid Name", false, ExitStatus::InvalidName, "invalid name"},
      {"com.tavimesh.Registry.Errors.InvalidJson", "Invalid Json", false, ExitStatus::NotADocument,
       "not a registry document"},
      {"com.tavimesh.Registry.Errors.Full", "Full", false, ExitStatus::Full,
       "registry full (16383 bytes); nothing changed"},
      {"com.tavimesh.Registry.Errors.Exception", "No space left on device (28)", false, ExitStatus::DaemonError,
       "No space left on device (28)"},
      {"org.freedesktop.DBus.Error.ServiceUnknown", "x", false, ExitStatus::NotRunning, "the daemon is not running"},
      {"org.freedesktop.DBus.Error.NameHasNoOwner", "x", false, ExitStatus::NotRunning, "the daemon is not running"},
      {"org.freedesktop.DBus.Error.Spawn.ExecFailed", "why", false, ExitStatus::NotRunning,
       "the daemon is not running and cannot be started\nwhy"},
      {"org.freedesktop.DBus.Error.TimedOut", "slow", true, ExitStatus::NotRunning,
       "the daemon is not running and cannot be started\nslow"},
      {"org.freedesktop.systemd1.UnitMasked", "masked", false, ExitStatus::NotRunning,
       "the daemon is not running and cannot be started\nmasked"},
      {"org.freedesktop.DBus.Error.AccessDenied", "x", false, ExitStatus::Denied, "permission denied by the bus"},
      {"org.freedesktop.DBus.Error.NoReply", "x", true, ExitStatus::NoAnswer, "no answer in 7 s"},
      {"org.freedesktop.DBus.Error.Timeout", "x", true, ExitStatus::NoAnswer, "no answer in 7 s"},
      {"org.freedesktop.DBus.Error.NoReply", "x", false, ExitStatus::NotRunning,
       "the daemon is not running any more: it ended before it answered"},
      {"org.freedesktop.DBus.Error.Disconnected", "x", false, ExitStatus::NotRunning,
       "the daemon is not running: the bus closed the connection"},
      {"org.freedesktop.DBus.Error.UnknownMethod", "no Read", false, ExitStatus::DaemonError, "no Read"},
      {"com.example.Other", "other", true, ExitStatus::DaemonError, "other"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.error);
    const Failure failure = ReportOf([&] { ThrowCallFailure({row.error, row.message}, row.timed_out, "7"); });
    EXPECT_EQ(failure.Status(), row.status);
    EXPECT_STREQ(failure.what(), row.text);
  }
}

TEST(ConnectFailure, HasAStatusForEachError) {
  const Row rows[] = {
      {"org.freedesktop.DBus.Error.FileNotFound", "no socket", false, ExitStatus::NotRunning,
       "the daemon is not running: there is no system bus\nno socket"},
      {"org.freedesktop.DBus.Error.NoServer", "refused", false, ExitStatus::NotRunning,
       "the daemon is not running: there is no system bus\nrefused"},
      {"org.freedesktop.DBus.Error.AccessDenied", "x", false, ExitStatus::Denied, "permission denied by the bus"},
      {"org.freedesktop.DBus.Error.AuthFailed", "x", false, ExitStatus::Denied, "permission denied by the bus"},
      {"org.freedesktop.DBus.Error.NoReply", "x", true, ExitStatus::NoAnswer, "no answer in 7 s"},
      {"org.freedesktop.DBus.Error.NoReply", "x", false, ExitStatus::NotRunning,
       "the daemon is not running: the bus closed the connection"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.error);
    const Failure failure = ReportOf([&] { ThrowConnectFailure({row.error, row.message}, row.timed_out, "7"); });
    EXPECT_EQ(failure.Status(), row.status);
    EXPECT_STREQ(failure.what(), row.text);
  }
}

}  // namespace
}  // namespace ledgerctl
