// The floor for start-up time and memory: connects to the system bus, requests a name, says so on standard output and
// then sleeps until it is killed.
#include <dbus-c++/dbus.h>
#include <unistd.h>

int main() {
  DBus::BusDispatcher dispatcher;
  DBus::default_dispatcher = &dispatcher;
  DBus::Connection connection = DBus::Connection::SystemBus();
  connection.request_name("com.example.Minimal");
  if (::write(STDOUT_FILENO, "\n", 1) != 1) {
    return 1;
  }
  ::pause();
}
