// The process entry: what runs, in which order, and how it ends.
#include <sys/prctl.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include "daemon/dispatcher.h"
#include "daemon/standard_streams.h"
#include "dbus/registry_server.h"
#include "lib/platform/safe_print.h"
#include "lib/platform/tracepoint.h"
#include "registry/file_store.h"

namespace {

constexpr char kInitialProcessName[] = "ledgdp";
constexpr char kBusName[] = "com.tavimesh.Registry";
constexpr char kRegistryPath[] = "/var/lib/plinthware/registry";
constexpr std::uint32_t kRegistryCapacity = 16383;
constexpr mode_t kRegistryMode = 0600;

// Never destroyed: a signal may come after main has returned.
Dispatcher& g_dispatcher = *new Dispatcher;

extern "C" void OnTerminationSignal(int) {
  const int saved_errno = errno;
  g_dispatcher.leave();
  errno = saved_errno;
}

void InstallSignalHandler() {
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    std::signal(signal, OnTerminationSignal);
  }
}

// Closes the connection when it goes out of scope. The library's own destructor would first wait for the bus to answer
// a release of the name, up to 25 s if the bus hangs; the bus frees the name of a closed connection itself.
class DisconnectOnExit {
public:
  explicit DisconnectOnExit(DBus::Connection& connection) : m_connection(connection) {}
  ~DisconnectOnExit() { m_connection.disconnect(); }
  DisconnectOnExit(const DisconnectOnExit&) = delete;
  DisconnectOnExit& operator=(const DisconnectOnExit&) = delete;

private:
  DBus::Connection& m_connection;
};

void Serve() {
  const std::shared_ptr<PersistentStore> store = FileStore::Create(kRegistryPath, kRegistryCapacity, kRegistryMode);
  InstallSignalHandler();
  DBus::default_dispatcher = &g_dispatcher;
  DBus::Connection connection = DBus::Connection::SystemBus();
  const DisconnectOnExit disconnect(connection);
  connection.request_name(kBusName, 0);
  RegistryServer server(connection, store);
  g_dispatcher.enter();
  if (g_dispatcher.LostConnection()) {
    bramble::SafePrint(stderr, "ledgerd lost its connection to the bus.\n");
  }
}

void Run(const char* argument) {
  ::prctl(PR_SET_NAME, kInitialProcessName);
  if (argument != nullptr && std::strcmp(argument, "-d") == 0) {
    bramble::LoadTracepointProbes();
    Serve();
  }
}

}  // namespace

int main(int, char** argv) {
  OpenClosedStandardStreams();
  try {
    Run(argv[1]);
  } catch (const std::exception& e) {
    bramble::SafePrint(stderr, "ledgerd caught exception: %s\n", e.what());
  } catch (...) {
    bramble::SafePrint(stderr, "ledgerd caught unknown exception.\n");
  }
  // Always 0: callers learn of failures from standard error.
  return 0;
}
