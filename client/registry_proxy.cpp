#include "client/registry_proxy.h"

#include <dbus-c++/dbus.h>
#include <dbus/dbus.h>

#include <optional>
#include <utility>

#include "client/bus_errors.h"
#include "client/exit_status.h"
#include "client/time_limit.h"

namespace ledgerctl {
namespace {

constexpr char kBusName[] = "com.tavimesh.Registry";
constexpr char kObjectPath[] = "/com/tavimesh/Registry";
constexpr char kInterface[] = "com.tavimesh.Registry";

// The longest message that a bus takes, less room for the header: it would close the connection.
constexpr std::size_t kLongestArgument = 32 * 1024 * 1024 - 64 * 1024;

// libdbus gives up first, where it can.
constexpr std::chrono::milliseconds kGrace(500);

// libdbus keeps time in a coarser way than the clock.
constexpr std::chrono::milliseconds kClockTolerance(20);

// Calls that wait for their reply need no event loop, but the library does not connect without one.
class BlockingOnly final : public DBus::Dispatcher {
public:
  void enter() override {}
  void leave() override {}
  DBus::Timeout* add_timeout(DBus::Timeout::Internal* internal) override { return new Timeout(internal); }
  void rem_timeout(DBus::Timeout* timeout) override { delete timeout; }
  DBus::Watch* add_watch(DBus::Watch::Internal* internal) override { return new Watch(internal); }
  void rem_watch(DBus::Watch* watch) override { delete watch; }

private:
  struct Watch final : DBus::Watch {
    using DBus::Watch::Watch;
    void toggle() override {}
  };
  struct Timeout final : DBus::Timeout {
    using DBus::Timeout::Timeout;
    void toggle() override {}
  };
};

void Append(DBus::MessageIter& writer, const std::string& text) {
  const bool has_nul = text.find('\0') != std::string::npos;
  if (has_nul || !dbus_validate_utf8(text.c_str(), nullptr)) {
    throw Failure(ExitStatus::Usage,
                  std::string("D-Bus cannot carry the value: it ") + (has_nul ? "holds a NUL byte" : "is not UTF-8"));
  }
  if (text.size() > kLongestArgument) {
    // Whatever it is, it does not fit.
    throw Registry::Full();
  }
  writer.append_string(text.c_str());
}

}  // namespace

// The connection, made for the first call. The library's own proxy object would add a match rule, and wait for the bus
// to take it and to take it back: two calls more than there is anything to receive for.
class RegistryProxy::Bus {
public:
  Bus(std::chrono::milliseconds timeout, std::string shown_timeout)
      : m_timeout(timeout), m_shown_timeout(std::move(shown_timeout)) {}

  template <typename... Arguments>
  DBus::Message Call(const char* method, const Arguments&... arguments) {
    DBus::CallMessage call(kBusName, kObjectPath, kInterface, method);
    [[maybe_unused]] DBus::MessageIter writer = call.writer();
    (Append(writer, arguments), ...);
    Connect();
    return Send(call);
  }

private:
  void Connect() {
    if (m_connection) {
      return;
    }
    const TimeLimit limit(m_timeout, m_shown_timeout);
    // libdbus would ignore SIGPIPE, which ends a filter; its own sockets raise none.
    dbus_connection_set_change_sigpipe(FALSE);
    DBus::default_dispatcher = &m_dispatcher;
    try {
      m_connection.emplace(DBus::Connection::SystemBus());
    } catch (const DBus::Error& e) {
      ThrowConnectFailure(e, m_shown_timeout);
    }
  }

  DBus::Message Send(DBus::Message& call) {
    const auto start = std::chrono::steady_clock::now();
    const TimeLimit limit(m_timeout + kGrace, m_shown_timeout);
    try {
      return m_connection->send_blocking(call, static_cast<int>(m_timeout.count()));
    } catch (const DBus::Error& e) {
      const bool timed_out = std::chrono::steady_clock::now() - start + kClockTolerance >= m_timeout;
      ThrowCallFailure(e, timed_out, m_shown_timeout);
    }
  }

  const std::chrono::milliseconds m_timeout;
  const std::string m_shown_timeout;
  BlockingOnly m_dispatcher;
  std::optional<DBus::Connection> m_connection;
};

namespace {

// A reply of another type than the interface has comes from something else that has the daemon's name.
template <typename Take>
auto Unpack(const DBus::Message& reply, Take take) {
  try {
    DBus::MessageIter reader = reply.reader();
    return take(reader);
  } catch (const DBus::Error& e) {
    throw Failure(ExitStatus::DaemonError, std::string("unexpected reply: ") + e.message());
  }
}

std::string TakeString(const DBus::Message& reply) {
  return Unpack(reply, [](DBus::MessageIter& reader) { return std::string(reader.get_string()); });
}

bool TakeBool(const DBus::Message& reply) {
  return Unpack(reply, [](DBus::MessageIter& reader) { return reader.get_bool(); });
}

}  // namespace

RegistryProxy::RegistryProxy(std::chrono::milliseconds timeout, std::string shown_timeout)
    : m_bus(std::make_unique<Bus>(timeout, std::move(shown_timeout))) {}

RegistryProxy::~RegistryProxy() = default;

std::string RegistryProxy::ReadAllJson() { return TakeString(m_bus->Call("ReadAllJson")); }

void RegistryProxy::WriteJson(const std::string& registry) { m_bus->Call("WriteJson", registry); }

std::string RegistryProxy::Read(const std::string& section, const std::string& key) {
  return TakeString(m_bus->Call("Read", section, key));
}

void RegistryProxy::Write(const std::string& section, const std::string& key, const std::string& value) {
  m_bus->Call("Write", section, key, value);
}

bool RegistryProxy::KeyExists(const std::string& section, const std::string& key) {
  return TakeBool(m_bus->Call("KeyExists", section, key));
}

bool RegistryProxy::SectionExists(const std::string& section) {
  return TakeBool(m_bus->Call("SectionExists", section));
}

void RegistryProxy::DeleteKey(const std::string& section, const std::string& key) {
  m_bus->Call("DeleteKey", section, key);
}

void RegistryProxy::DeleteSection(const std::string& section) { m_bus->Call("DeleteSection", section); }

void RegistryProxy::DeleteAll() { m_bus->Call("DeleteAll"); }

void RegistryProxy::SectionList(const SectionCallback& callback) {
  Unpack(m_bus->Call("SectionList"), [&](DBus::MessageIter& reader) {
    for (DBus::MessageIter array = reader.recurse(); !array.at_end(); ++array) {
      callback(array.get_string());
    }
  });
}

void RegistryProxy::KeyList(const std::string& section, const KeyCallback& callback) {
  Unpack(m_bus->Call("KeyList", section), [&](DBus::MessageIter& reader) {
    for (DBus::MessageIter array = reader.recurse(); !array.at_end(); ++array) {
      DBus::MessageIter entry = array.recurse();
      const std::string key = entry.get_string();
      ++entry;
      callback(key, entry.get_string());
    }
  });
}

void RegistryProxy::Flush() { m_bus->Call("Flush"); }

}  // namespace ledgerctl
