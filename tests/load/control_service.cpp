// A service that does almost nothing: it answers each call with a short string. Under load, the time of a call to it is
// the share of the bus and the machine in the time of every call.
//
//   ledgerd_control_service ADDRESS
#include <dbus/dbus.h>

#include <cstdio>

#include "tests/load/connection.h"

namespace {

DBusHandlerResult Answer(DBusConnection* connection, DBusMessage* call, void*) {
  if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const Message reply(dbus_message_new_method_return(call));
  const char* const text = "v";
  dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  dbus_connection_send(connection, reply.get(), nullptr);
  return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char** argv) {
  DBusError error = DBUS_ERROR_INIT;
  DBusConnection* const connection = argc == 2 ? dbus_connection_open_private(argv[1], &error) : nullptr;
  if (connection == nullptr || dbus_bus_register(connection, &error) == 0 ||
      dbus_bus_request_name(connection, "com.tavimesh.Control", 0, &error) < 0 ||
      dbus_connection_add_filter(connection, Answer, nullptr, nullptr) == 0) {
    std::fprintf(stderr, "usage: %s ADDRESS (%s)\n", argv[0], error.message != nullptr ? error.message : "");
    return 1;
  }
  while (dbus_connection_read_write_dispatch(connection, -1) != 0) {
  }
  return 0;
}
