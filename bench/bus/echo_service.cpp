// The floor for a service on the bus: nothing but libdbus.
//
//   Echo(s...) answers with its last argument, Text(u) with a string of that length.
#include <dbus/dbus.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/bus/connection.h"

namespace {

constexpr char kName[] = "com.example.Echo";
constexpr char kPath[] = "/com/example/Echo";

const char* LastString(DBusMessage* call) {
  const char* text = "";
  DBusMessageIter iterator;
  dbus_message_iter_init(call, &iterator);
  while (dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_STRING) {
    dbus_message_iter_get_basic(&iterator, &text);
    dbus_message_iter_next(&iterator);
  }
  return text;
}

const char* TextOfLength(DBusMessage* call) {
  static std::string text;
  dbus_uint32_t length = 0;
  dbus_message_get_args(call, nullptr, DBUS_TYPE_UINT32, &length, DBUS_TYPE_INVALID);
  if (text.size() != length) {
    text.assign(length, 't');
  }
  return text.c_str();
}

DBusHandlerResult Answer(DBusConnection* connection, DBusMessage* call, void*) {
  const char* text = nullptr;
  if (dbus_message_is_method_call(call, kName, "Echo")) {
    text = LastString(call);
  } else if (dbus_message_is_method_call(call, kName, "Text")) {
    text = TextOfLength(call);
  } else {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const Message reply(dbus_message_new_method_return(call));
  dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  dbus_connection_send(connection, reply.get(), nullptr);
  return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main() {
  DBusError error = DBUS_ERROR_INIT;
  DBusConnection* const connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
  DBusObjectPathVTable handlers{};
  handlers.message_function = Answer;
  if (connection == nullptr || dbus_connection_register_object_path(connection, kPath, &handlers, nullptr) == 0 ||
      dbus_bus_request_name(connection, kName, 0, &error) < 0) {
    std::fprintf(stderr, "no service: %s\n", error.message != nullptr ? error.message : "");
    return EXIT_FAILURE;
  }
  while (dbus_connection_read_write_dispatch(connection, -1) != 0) {
  }
  return EXIT_SUCCESS;
}
