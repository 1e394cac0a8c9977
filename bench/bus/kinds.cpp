#include "bench/bus/kinds.h"

#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "bench/bus/dconf_change.h"
#include "bench/workload.h"

namespace {

using workload::Entries;
using workload::Entry;
using workload::kManyKeys;
using workload::Share;

constexpr char kRegistry[] = "com.tavimesh.Registry";
constexpr char kEcho[] = "com.example.Echo";
constexpr char kXfconf[] = "org.xfce.Xfconf";
constexpr char kDconf[] = "ca.desrt.dconf";
constexpr char kDconfPath[] = "/ca/desrt/dconf/Writer/user";

constexpr std::size_t kAlmostFull = 99;
constexpr std::size_t kQuarterFull = 25;
constexpr std::size_t kDifferentCalls = 100;

void AppendString(DBusMessage* call, const std::string& text) {
  const char* const bytes = text.c_str();
  dbus_message_append_args(call, DBUS_TYPE_STRING, &bytes, DBUS_TYPE_INVALID);
}

Message WithStrings(Message call, std::initializer_list<std::string> arguments) {
  for (const std::string& argument : arguments) {
    AppendString(call.get(), argument);
  }
  return call;
}

Message RegistryCall(const char* member, std::initializer_list<std::string> arguments) {
  return WithStrings(NewCall(kRegistry, "/com/tavimesh/Registry", kRegistry, member), arguments);
}

Message EchoCall(std::initializer_list<std::string> arguments) {
  return WithStrings(NewCall(kEcho, "/com/example/Echo", kEcho, "Echo"), arguments);
}

Message TextCall(std::size_t length) {
  Message call = NewCall(kEcho, "/com/example/Echo", kEcho, "Text");
  const auto argument = static_cast<dbus_uint32_t>(length);
  dbus_message_append_args(call.get(), DBUS_TYPE_UINT32, &argument, DBUS_TYPE_INVALID);
  return call;
}

Message Ping(const char* service, const char* path) { return NewCall(service, path, DBUS_INTERFACE_PEER, "Ping"); }

Message XfconfCall(const char* member, const Entry& entry) {
  return WithStrings(NewCall(kXfconf, "/org/xfce/Xfconf", kXfconf, member),
                     {"registry", "/" + entry.section + "/" + entry.key});
}

Message XfconfSet(const Entry& entry) {
  Message call = XfconfCall("SetProperty", entry);
  DBusMessageIter arguments;
  DBusMessageIter variant;
  dbus_message_iter_init_append(call.get(), &arguments);
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, "s", &variant);
  const char* const value = entry.value.c_str();
  dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &value);
  dbus_message_iter_close_container(&arguments, &variant);
  return call;
}

Message DconfCall(const std::vector<Entry>& entries) {
  Message call = NewCall(kDconf, kDconfPath, "ca.desrt.dconf.Writer", "Change");
  const std::vector<std::uint8_t> change = DconfChange(entries);
  const std::uint8_t* const bytes = change.data();
  dbus_message_append_args(call.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, static_cast<int>(change.size()),
                           DBUS_TYPE_INVALID);
  return call;
}

template <typename MakeCall>
std::vector<Message> ForManyKeys(const std::vector<Entry>& entries, MakeCall make_call) {
  std::vector<Message> calls;
  for (std::size_t i = 0; i < kDifferentCalls; ++i) {
    calls.push_back(make_call(entries[i * 37 % entries.size()]));
  }
  return calls;
}

// The same key again and again, with two values in turn: each call is a change that leaves the size as it is.
template <typename MakeCall>
std::vector<Message> ForTwoValues(const std::vector<Entry>& entries, MakeCall make_call) {
  std::vector<Message> calls;
  for (const char letter : {'x', 'y'}) {
    Entry changed = entries[entries.size() / 2];
    changed.value.assign(changed.value.size(), letter);
    calls.push_back(make_call(changed));
  }
  return calls;
}

std::vector<Message> Single(Message call) {
  std::vector<Message> calls;
  calls.push_back(std::move(call));
  return calls;
}

std::size_t KeysAt(std::size_t percent) { return kManyKeys * percent / kAlmostFull; }

Message WriteCall(const Entry& entry) { return RegistryCall("Write", {entry.section, entry.key, entry.value}); }

}  // namespace

std::vector<Kind> AllKinds() {
  const std::vector<Entry> few = Entries(Share(kQuarterFull), KeysAt(kQuarterFull));
  const std::vector<Entry> many = Entries(Share(kAlmostFull), kManyKeys);
  const std::string json = workload::RegistryJson(Share(kAlmostFull), kManyKeys);
  const auto two_names = [](const char* member) {
    return [member](const Entry& entry) { return RegistryCall(member, {entry.section, entry.key}); };
  };

  std::vector<Kind> kinds;
  const auto add = [&](const char* name, const char* service, std::size_t fill, const char* reply, std::size_t divisor,
                       std::vector<Message> calls) {
    kinds.push_back({name, service, fill, reply, divisor, std::move(calls)});
  };
  add("ledgerd.Ping", kRegistry, kAlmostFull, "", 1, Single(Ping(kRegistry, "/com/tavimesh/Registry")));
  add("ledgerd.Read", kRegistry, kAlmostFull, "s", 1, ForManyKeys(many, two_names("Read")));
  add("ledgerd.KeyExists", kRegistry, kAlmostFull, "b", 1, ForManyKeys(many, two_names("KeyExists")));
  add("ledgerd.Write-99", kRegistry, kAlmostFull, "", 1, ForTwoValues(many, WriteCall));
  add("ledgerd.Write-25", kRegistry, kQuarterFull, "", 1, ForTwoValues(few, WriteCall));
  add("ledgerd.Ping-25", kRegistry, kQuarterFull, "", 1, Single(Ping(kRegistry, "/com/tavimesh/Registry")));
  add("ledgerd.ReadAllJson", kRegistry, kAlmostFull, "s", 1, Single(RegistryCall("ReadAllJson", {})));
  add("echo.Ping", kEcho, 0, "", 1, Single(Ping(kEcho, "/com/example/Echo")));
  add("echo.Echo-2", kEcho, 0, "s", 1, Single(EchoCall({many[0].section, many[0].value})));
  add("echo.Echo-3", kEcho, 0, "s", 1, Single(EchoCall({many[0].section, many[0].key, many[0].value})));
  add("echo.Echo-long", kEcho, 0, "s", 1, Single(EchoCall({json})));
  add("echo.Text-long", kEcho, 0, "s", 1, Single(TextCall(json.size())));
  add("xfconfd.GetProperty", kXfconf, 0, "v", 1,
      ForManyKeys(many, [](const Entry& entry) { return XfconfCall("GetProperty", entry); }));
  add("xfconfd.SetProperty", kXfconf, 0, "", 1, ForTwoValues(many, XfconfSet));
  add("dconf-service.Ping", kDconf, 0, "", 1, Single(Ping(kDconf, kDconfPath)));
  add("dconf-service.Change", kDconf, 0, "s", 10,
      ForTwoValues(many, [](const Entry& entry) { return DconfCall({entry}); }));
  return kinds;
}

void PreparePeers(Connection& connection) {
  const std::vector<Entry> many = Entries(Share(kAlmostFull), kManyKeys);
  for (const Entry& entry : many) {
    connection.Call(XfconfSet(entry).get());
  }
  connection.Call(DconfCall(many).get());
}

void Fill(Connection& connection, std::size_t percent) {
  connection.Call(RegistryCall("DeleteAll", {}).get());
  connection.Call(RegistryCall("WriteJson", {workload::RegistryJson(Share(percent), KeysAt(percent))}).get());
  const Entry known = Entries(Share(percent), KeysAt(percent)).back();
  const Message reply = connection.Call(RegistryCall("Read", {known.section, known.key}).get());
  const char* value = nullptr;
  dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
  if (value != known.value) {
    throw std::runtime_error("the registry is not filled as expected");
  }
}
