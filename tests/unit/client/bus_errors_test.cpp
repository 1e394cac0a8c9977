#include "client/bus_errors.h"

#include "tests/unit/client/client_fixture.h"

namespace ledgerctl {
namespace {

using test_client::Fails;

TEST(BusErrors, HaveAStatusAndATextEach) {
  struct Row {
    decltype(&ThrowCallFailure) report;
    std::string error;
    const char* message;
    bool timed_out;
    test_client::Outcome outcome;
  };
  const std::string own = "com.tavimesh.Registry.Errors.";
  const std::string bus = "org.freedesktop.DBus.Error.";
  const std::string unstarted = "the daemon is not running and cannot be started\n";
  const std::string no_bus = "the daemon is not running: there is no system bus\n";
  const Row rows[] = {
      {ThrowCallFailure, own + "InvalidName", "Invalid Name", false, Fails(3, "invalid name")},
      {ThrowCallFailure, own + "InvalidJson", "Invalid Json", false, Fails(4, "not a registry document")},
      {ThrowCallFailure, own + "Full", "Full", false, Fails(5, "registry full (16383 bytes); nothing changed")},
      {ThrowCallFailure, own + "Exception", "No space left (28)", false, Fails(9, "No space left (28)")},
      {ThrowCallFailure, bus + "ServiceUnknown", "x", false, Fails(6, "the daemon is not running")},
      {ThrowCallFailure, bus + "NameHasNoOwner", "x", false, Fails(6, "the daemon is not running")},
      {ThrowCallFailure, bus + "Spawn.ExecFailed", "why", false, Fails(6, unstarted + "why")},
      {ThrowCallFailure, bus + "TimedOut", "slow", true, Fails(6, unstarted + "slow")},
      {ThrowCallFailure, "org.freedesktop.systemd1.UnitMasked", "masked", false, Fails(6, unstarted + "masked")},
      {ThrowCallFailure, bus + "AccessDenied", "x", false, Fails(7, "permission denied by the bus")},
      {ThrowCallFailure, bus + "NoReply", "x", true, Fails(8, "no answer in 7 s")},
      {ThrowCallFailure, bus + "Timeout", "x", true, Fails(8, "no answer in 7 s")},
      {ThrowCallFailure, bus + "NoReply", "x", false,
       Fails(6, "the daemon is not running any more: it ended before it answered")},
      {ThrowCallFailure, bus + "Disconnected", "x", false,
       Fails(6, "the daemon is not running: the bus closed the connection")},
      {ThrowCallFailure, bus + "UnknownMethod", "no Read", false, Fails(9, "no Read")},
      {ThrowCallFailure, "com.example.Other", "other", true, Fails(9, "other")},
      {ThrowCallFailure, own + "Exception", "", false, Fails(9, own + "Exception")},
      {ThrowConnectFailure, bus + "FileNotFound", "no socket", false, Fails(6, no_bus + "no socket")},
      {ThrowConnectFailure, bus + "NoServer", "refused", false, Fails(6, no_bus + "refused")},
      {ThrowConnectFailure, bus + "AccessDenied", "x", false, Fails(7, "permission denied by the bus")},
      {ThrowConnectFailure, bus + "AuthFailed", "x", false, Fails(7, "permission denied by the bus")},
      {ThrowConnectFailure, bus + "NoReply", "x", true, Fails(8, "no answer in 7 s")},
      {ThrowConnectFailure, bus + "NoReply", "x", false,
       Fails(6, "the daemon is not running: the bus closed the connection")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.error);
    EXPECT_EQ(test_client::FailureOf([&] { row.report({row.error, row.message}, row.timed_out, "7"); }), row.outcome);
  }
}

}  // namespace
}  // namespace ledgerctl
