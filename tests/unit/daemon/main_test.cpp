// The program's own main, with a function of the test's in place of the connection to the bus.
#include <dbus-c++/dbus.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

// The name that main has in this program.
int LedgerdMain(int argc, char** argv);

namespace {

void (*g_instead_of_connecting)() = nullptr;

// Runs the daemon in the foreground up to the connection, and exits.
[[noreturn]] void RunUntilConnected(void (*instead_of_connecting)()) {
  g_instead_of_connecting = instead_of_connecting;
  char program[] = "ledgerd";
  char foreground[] = "-d";
  char* arguments[] = {program, foreground, nullptr};
  std::exit(LedgerdMain(2, arguments));
}

constexpr char kUnknownException[] = "ledgerd caught unknown exception\\.\n$";

TEST(Main, ExceptionOfAnotherTypeIsReported) {
  EXPECT_EXIT(RunUntilConnected([] { throw 0; }), testing::ExitedWithCode(0), kUnknownException);
}

TEST(Main, TerminationSignalKeepsErrno) {
  const auto check = [] {
    // More than the dispatcher's pipe holds: the last write fails.
    for (int i = 0; i < 100000; ++i) {
      DBus::default_dispatcher->leave();
    }
    errno = ENOTTY;
    std::raise(SIGTERM);
    if (errno != ENOTTY) {
      std::abort();
    }
    throw 0;
  };
  EXPECT_EXIT(RunUntilConnected(check), testing::ExitedWithCode(0), kUnknownException);
}

}  // namespace

DBus::Connection DBus::Connection::SystemBus() {
  g_instead_of_connecting();
  std::abort();
}
