// The main function of the program. Instead of connecting to the bus, it calls a function of the test.
#include <dbus-c++/dbus.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

// The name of main in this program.
int LedgerdMain(int argc, char** argv);

namespace {

void (*g_instead_of_connecting)() = nullptr;

// Runs the daemon in the foreground up to the connection, and expects that it reports an exception of an unknown type.
void ExpectUnknownException(void (*instead_of_connecting)()) {
  g_instead_of_connecting = instead_of_connecting;
  char program[] = "ledgerd";
  char foreground[] = "-d";
  char* arguments[] = {program, foreground, nullptr};
  EXPECT_EXIT(std::exit(LedgerdMain(2, arguments)), testing::ExitedWithCode(0),
              "ledgerd caught unknown exception\\.\n$");
}

TEST(Main, ReportsAnExceptionOfAnUnknownType) {
  ExpectUnknownException([] { throw 0; });
}

TEST(Main, KeepsErrnoOnATerminationSignal) {
  ExpectUnknownException([] {
    // More than the pipe of the dispatcher holds, so the last write fails.
    for (int i = 0; i < 100000; ++i) {
      DBus::default_dispatcher->leave();
    }
    errno = ENOTTY;
    std::raise(SIGTERM);
    if (errno != ENOTTY) {
      std::abort();
    }
    throw 0;
  });
}

}  // namespace

DBus::Connection DBus::Connection::SystemBus() {
  g_instead_of_connecting();
  std::abort();
}
