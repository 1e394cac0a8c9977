// Prints a line whenever the name on the system bus gets an owner, beginning with one when it watches.
//
//   ledgerd_name_watch NAME
#include <dbus/dbus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr char kSignal[] = "NameOwnerChanged";

bool HasNewOwner(DBusMessage* message) {
  const char* name = nullptr;
  const char* old_owner = nullptr;
  const char* new_owner = nullptr;
  return dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, kSignal) &&
         dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &old_owner,
                               DBUS_TYPE_STRING, &new_owner, DBUS_TYPE_INVALID) &&
         *new_owner != '\0';
}

DBusHandlerResult PrintLine(DBusConnection*, DBusMessage* message, void*) {
  if (HasNewOwner(message) && ::write(STDOUT_FILENO, "\n", 1) != 1) {
    std::exit(EXIT_FAILURE);
  }
  return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char** argv) {
  DBusError error = DBUS_ERROR_INIT;
  DBusConnection* const connection = argc == 2 ? dbus_bus_get_private(DBUS_BUS_SYSTEM, &error) : nullptr;
  if (connection == nullptr) {
    std::fprintf(stderr, "usage: %s NAME (%s)\n", argv[0], error.message != nullptr ? error.message : "");
    return EXIT_FAILURE;
  }
  const std::string rule =
      "type='signal',interface='" DBUS_INTERFACE_DBUS "',member='" + std::string(kSignal) + "',arg0='" + argv[1] + "'";
  dbus_bus_add_match(connection, rule.c_str(), &error);
  if (dbus_error_is_set(&error) || !dbus_connection_add_filter(connection, PrintLine, nullptr, nullptr) ||
      ::write(STDOUT_FILENO, "\n", 1) != 1) {
    return EXIT_FAILURE;
  }
  while (dbus_connection_read_write_dispatch(connection, -1)) {
  }
}
