// Writes and flushes the registry without a pause. Prints a line with the number of each text that the daemon has
// written. The number determines the text, so that a later reader of the file can check whether it is complete.
//
//   flush_storm FIRST_NUMBER                writes texts of all lengths, without end
//   flush_storm FIRST_NUMBER COUNT BYTES    writes COUNT texts of that length
#include <dbus/dbus.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Makes one call of the registry. Exits if the call fails, as it does when the daemon's flash loses its power.
void Call(DBusConnection* bus, const char* method, const std::string& value) {
  DBusMessage* const call =
      dbus_message_new_method_call("com.tavimesh.Registry", "/com/tavimesh/Registry", "com.tavimesh.Registry", method);
  // Flush ignores the arguments.
  for (const char* argument : {"storm", "value", value.c_str()}) {
    dbus_message_append_args(call, DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
  }
  DBusError error = DBUS_ERROR_INIT;
  DBusMessage* const reply = dbus_connection_send_with_reply_and_block(bus, call, -1, &error);
  dbus_message_unref(call);
  if (reply == nullptr) {
    std::printf("stopped: %s: %s\n", error.name, error.message);
    std::exit(0);
  }
  dbus_message_unref(reply);
}

// Returns the value of a number. It makes the text of the registry `bytes` long. If `bytes` is 0, the values have all
// lengths up to nearly a full registry.
std::string Value(std::uint32_t number, std::size_t bytes) {
  std::string value = std::to_string(number) + ' ';
  const std::size_t length =
      bytes == 0 ? value.size() + number * 7919 % 16000 : bytes - std::strlen("[storm]\nvalue=\n");
  value.resize(length, static_cast<char>('a' + number % 26));
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: flush_storm FIRST_NUMBER [COUNT BYTES]\n");
    return 2;
  }
  const auto argument = [&](int i) {
    return argc > i ? static_cast<std::uint32_t>(std::strtoul(argv[i], nullptr, 10)) : 0;
  };
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  DBusConnection* const bus = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
  if (bus == nullptr) {
    std::fprintf(stderr, "cannot connect to the system bus\n");
    return 1;
  }
  for (std::uint32_t number = argument(1); argc == 2 || number - argument(1) < argument(2); ++number) {
    Call(bus, "Write", Value(number, argument(3)));
    Call(bus, "Flush", "");
    std::printf("flushed %u\n", number);
  }
}
