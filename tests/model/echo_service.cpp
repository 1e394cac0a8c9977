// A service on libdbus alone, with which the daemon is compared. It answers a call with its last argument, a string. If
// that is longer than LENGTH bytes, or if there is none, it answers with a text of LENGTH bytes.
//
//   ledgerd_echo_service ADDRESS NAME LENGTH
#include <cstdio>
#include <cstring>
#include <string>

#include "tests/model/bus.h"

namespace {

DBusHandlerResult Answer(DBusConnection* connection, DBusMessage* call, void* data) {
  if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const std::string& longest = *static_cast<std::string*>(data);
  const char* text = longest.c_str();
  DBusMessageIter iterator;
  dbus_message_iter_init(call, &iterator);
  while (dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_STRING) {
    dbus_message_iter_get_basic(&iterator, &text);
    dbus_message_iter_next(&iterator);
  }
  if (::strnlen(text, longest.size() + 1) > longest.size()) {
    text = longest.c_str();
  }
  const Message reply(dbus_message_new_method_return(call));
  dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  dbus_connection_send(connection, reply.get(), nullptr);
  return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char** argv) {
  DBusError error = DBUS_ERROR_INIT;
  std::string text(argc == 4 ? std::stoul(argv[3]) : 0, 't');
  DBusConnection* const connection = argc == 4 ? dbus_connection_open_private(argv[1], &error) : nullptr;
  if (connection == nullptr || dbus_bus_register(connection, &error) == 0 ||
      dbus_connection_add_filter(connection, Answer, &text, nullptr) == 0 ||
      dbus_bus_request_name(connection, argv[2], 0, &error) < 0) {
    std::fprintf(stderr, "usage: %s ADDRESS NAME LENGTH (%s)\n", argv[0],
                 error.message != nullptr ? error.message : "");
    return 1;
  }
  while (dbus_connection_read_write_dispatch(connection, -1) != 0) {
  }
  return 0;
}
