// What all verbs have in common: how they end if a call, the write of the file or standard output fails.
#include "client/program.h"

#include <fcntl.h>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

using ledgerctl::ExitStatus;
using ledgerctl::Failure;

using Program = ClientTest;

TEST_F(Program, EndsWithTheFirstFailureOfACall) {
  for (const auto status : {ExitStatus::InvalidName, ExitStatus::NotADocument, ExitStatus::NotRunning,
                            ExitStatus::Denied, ExitStatus::NoAnswer, ExitStatus::DaemonError}) {
    registry.OnCall([&](const std::string&) { throw Failure(status, "reason"); });
    for (const char* line :
         {"get s k", "set s k v",      "set s k v l w", "exists s k", "exists s",    "list",  "list s",
          "show",    "show s",         "unset s k",     "unset -r s", "clear --yes", "flush", "dump",
          "load -",  "load --replace", "edit",          "diff -",     "watch",       "usage"}) {
      SCOPED_TRACE(line);
      EXPECT_EQ(Run(Split(line), "{}"), Fails(static_cast<int>(status), "reason"));
    }
  }
}

TEST_F(Program, ReportsThatTheRegistryIsFull) {
  registry.OnCall([](const std::string&) { throw Registry::Full(); });
  EXPECT_EQ(Run({"get", "s", "k"}), Fails(5, "registry full (16383 bytes); nothing changed"));
}

// The daemon has the same error for a failure before the change.
TEST_F(Program, ReportsAChangeThatTheDaemonCouldNotWrite) {
  const test_support::TempDir directory;
  ::setenv("TMPDIR", directory.Path().c_str(), 1);
  ::setenv("EDITOR", "sed -i s/=v/=w/", 1);
  for (const std::string line : {"load", "set --flush s k w", "set s k w l w", "edit"}) {
    for (const bool is_changed : {true, false}) {
      SCOPED_TRACE(line);
      back_end->WriteJson(R"({"s":{"k":"v","l":"w"}})");
      registry.OnCall([&, is_changed](const std::string& call) {
        if (call == "Flush" || call == "WriteJson") {
          back_end->Write("s", "k", is_changed ? "w" : "v");
          throw Failure(ExitStatus::DaemonError, "reason");
        }
      });
      const auto [status, output, error] = Run(Split(line), R"({"s":{"k":"w"}})");
      EXPECT_EQ(status, 9);
      const bool is_reported = is_changed || line.find("--flush") != std::string::npos;
      EXPECT_EQ(error.find(is_reported ? "ledgerctl: changed, but not written: reason\n" : "ledgerctl: reason\n"), 0u)
          << error;
    }
  }
  ::unsetenv("TMPDIR");
}

TEST_F(Program, ReportsAFullDisk) {
  back_end->Write("s", "k", "v");
  const bramble::FileDescriptor full = bramble::Open("/dev/full", O_WRONLY);
  for (const char* line : {"get s k", "list", "show", "dump", "usage", "help", "--version"}) {
    const MemoryFile error;
    EXPECT_EQ(RunOn(registry, Split(line), full.Get(), error.Fd()), 10);
    EXPECT_EQ(error.Text(), "ledgerctl: standard output: No space left on device\n");
  }
}

}  // namespace
}  // namespace test_client
