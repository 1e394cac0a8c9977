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

DBusConnection* g_bus;

// Makes one call of the registry. Exits if the call fails, as it does when the daemon's flash loses its power.
void Call(const char* method, const char* section = nullptr, const char* key = nullptr, const char* value = nullptr) {
  DBusMessage* const call =
      dbus_message_new_method_call("com.tavimesh.Registry", "/com/tavimesh/Registry", "com.tavimesh.Registry", method);
  if (section != nullptr) {
    dbus_message_append_args(call, DBUS_TYPE_STRING, &section, DBUS_TYPE_STRING, &key, DBUS_TYPE_STRING, &value,
                             DBUS_TYPE_INVALID);
  }
  DBusError error = DBUS_ERROR_INIT;
  DBusMessage* const reply = dbus_connection_send_with_reply_and_block(g_bus, call, -1, &error);
  dbus_message_unref(call);
  if (reply == nullptr) {
    std::printf("stopped: %s: %s\n", error.name, error.message);
    std::exit(0);
  }
  dbus_message_unref(reply);
}

// Returns a value for each number. The values have all lengths up to nearly a full registry.
std::string Value(std::uint32_t number) {
  return std::to_string(number) + ' ' + std::string(number * 7919 % 16000, static_cast<char>('a' + number % 26));
}

// Returns a value that makes the text of the registry `bytes` long.
std::string ValueOfLength(std::uint32_t number, std::size_t bytes) {
  std::string value = std::to_string(number) + ' ';
  value.resize(bytes - std::strlen("[storm]\nvalue=\n"), 'x');
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: flush_storm FIRST_NUMBER [COUNT BYTES]\n");
    return 2;
  }
  const bool is_bounded = argc == 4;
  const unsigned long count = is_bounded ? std::strtoul(argv[2], nullptr, 10) : 0;
  const std::size_t bytes = is_bounded ? std::strtoul(argv[3], nullptr, 10) : 0;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  g_bus = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
  if (g_bus == nullptr) {
    std::fprintf(stderr, "cannot connect to the system bus\n");
    return 1;
  }
  const auto first = static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10));
  for (std::uint32_t number = first; !is_bounded || number - first < count; ++number) {
    Call("Write", "storm", "value", (is_bounded ? ValueOfLength(number, bytes) : Value(number)).c_str());
    Call("Flush");
    std::printf("flushed %u\n", number);
  }
}
