// main(): what runs, in which order, and how it ends.
#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "daemon/dispatcher.h"
#include "dbus/registry_server.h"
#include "lib/hardware/hardware_config.h"
#include "lib/platform/daemonise.h"
#include "lib/platform/safe_print.h"
#include "lib/platform/standard_streams.h"
#include "lib/platform/tracepoint.h"
#include "registry/file_store.h"
#include "registry/registry.h"

namespace {

// The starting process and the foreground process keep this name. The daemon gets the other one; the check of the PID
// file compares it.
constexpr char kInitialProcessName[] = "ledgdp";
constexpr char kDaemonName[] = "ledgd";

constexpr char kBusName[] = "com.tavimesh.Registry";
constexpr mode_t kRegistryMode = 0600;

const boost::posix_time::seconds kStartTimeout(5);
const boost::posix_time::seconds kStopTimeout(2);

// Set once, before the handler that uses it is installed. Never destroyed: a signal may arrive after main() has
// returned.
Dispatcher* g_dispatcher = nullptr;

extern "C" void OnTerminationSignal(int) {
  const int saved_errno = errno;
  g_dispatcher->leave();
  errno = saved_errno;
}

// Resets the inherited signal mask and dispositions: if SIGTERM stayed blocked, "-k" would need SIGKILL.
void InstallSignalHandler() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
    std::signal(signal, OnTerminationSignal);
    ::sigaddset(&signals, signal);
  }
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Writes to a broken pipe or beyond the file size limit then fail with an error, like any other write.
void IgnoreSignalsOfFailedWrites() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

// Closes the connection at the end of its scope. The destructor of the library would first release the name and wait
// for the reply of the bus, up to 25 s if the bus hangs. The bus releases the name of a closed connection anyway.
class DisconnectOnExit {
public:
  explicit DisconnectOnExit(DBus::Connection& connection) : m_connection(connection) {}
  ~DisconnectOnExit() { m_connection.disconnect(); }
  DisconnectOnExit(const DisconnectOnExit&) = delete;
  DisconnectOnExit& operator=(const DisconnectOnExit&) = delete;

private:
  DBus::Connection& m_connection;
};

std::shared_ptr<PersistentStore> CreateRegistryStore() {
  return FileStore::Create(HardwareConfig::GetInstance().GetRegistryPath(), kRegistryCapacity, kRegistryMode);
}

// Creates the parts of the daemon, runs it and destroys them in the reverse order. Calls `daemonise` when the service
// is ready; it is null in the foreground.
void Serve(bramble::Daemonise* daemonise) {
  const HardwareConfig hardware;
  const std::shared_ptr<PersistentStore> store = CreateRegistryStore();
  g_dispatcher = new Dispatcher;
  InstallSignalHandler();
  DBus::default_dispatcher = g_dispatcher;
  DBus::Connection connection = DBus::Connection::SystemBus();
  const DisconnectOnExit disconnect(connection);
  connection.request_name(kBusName, 0);
  RegistryServer server(connection, store, [] { return g_dispatcher->IsLeaving(); });
  if (daemonise != nullptr) {
    daemonise->Signal();
  }
  g_dispatcher->enter();
  if (g_dispatcher->LostConnection()) {
    bramble::SafePrint(stderr, "ledgerd lost its connection to the bus.\n");
  }
}

void Run(const char* argument) {
  ::prctl(PR_SET_NAME, kInitialProcessName);
  bramble::Daemonise daemonise(kDaemonName);
  const std::string mode = argument != nullptr ? argument : "";
  if (mode == "-k") {
    daemonise.Kill(kStopTimeout);
    return;
  }
  const bool foreground = mode == "-d";
  if (!foreground) {
    // Any other argument is ignored.
    daemonise.Prepare(kStartTimeout);
  }
  bramble::LoadTracepointProbes();
  Serve(foreground ? nullptr : &daemonise);
}

}  // namespace

int main(int, char** argv) {
  IgnoreSignalsOfFailedWrites();
  bramble::OpenClosedStandardStreams();
  try {
    Run(argv[1]);
  } catch (const std::exception& e) {
    bramble::SafePrint(stderr, "ledgerd caught exception: %s\n", e.what());
  } catch (...) {
    bramble::SafePrint(stderr, "ledgerd caught unknown exception.\n");
  }
  // Always 0: failures are reported on standard error.
  return 0;
}
