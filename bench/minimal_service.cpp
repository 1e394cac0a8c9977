// The baseline for start-up and memory: connects to the system bus with dbus-c++, requests a name, prints a newline and
// sleeps until it is killed.
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
