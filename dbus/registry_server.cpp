#include "dbus/registry_server.h"

#include <dbus/dbus.h>

#include <utility>

#include "dbus/message_access.h"
#include "dbus/registry_errors.h"

namespace {

constexpr char kObjectPath[] = "/com/tavimesh/Registry";

template <typename Operation>
auto WithRegistryErrors(Operation operation) -> decltype(operation()) {
  try {
    return operation();
  } catch (...) {
    ThrowAsRegistryError();
  }
}

}  // namespace

RegistryServer::RegistryServer(DBus::Connection& connection, std::shared_ptr<PersistentStore> store,
                               std::function<bool()> is_stop_requested)
    : DBus::ObjectAdaptor(connection, kObjectPath), m_back_end(std::move(store), std::move(is_stop_requested)) {}

RegistryServer::~RegistryServer() = default;

std::string RegistryServer::Read(const std::string& section, const std::string& key) {
  return WithRegistryErrors([&] { return m_back_end.Read(section, key); });
}

void RegistryServer::Write(const std::string& section, const std::string& key, const std::string& value) {
  WithRegistryErrors([&] { m_back_end.Write(section, key, value); });
}

void RegistryServer::DeleteKey(const std::string& section, const std::string& key) {
  WithRegistryErrors([&] { m_back_end.DeleteKey(section, key); });
}

void RegistryServer::DeleteSection(const std::string& section) {
  WithRegistryErrors([&] { m_back_end.DeleteSection(section); });
}

void RegistryServer::DeleteAll() {
  WithRegistryErrors([&] { m_back_end.DeleteAll(); });
}

void RegistryServer::Flush() {
  WithRegistryErrors([&] { m_back_end.Flush(); });
}

bool RegistryServer::KeyExists(const std::string& section, const std::string& key) {
  return WithRegistryErrors([&] { return m_back_end.KeyExists(section, key); });
}

bool RegistryServer::SectionExists(const std::string& section) {
  return WithRegistryErrors([&] { return m_back_end.SectionExists(section); });
}

std::vector<std::string> RegistryServer::SectionList() {
  return WithRegistryErrors([&] {
    std::vector<std::string> sections;
    m_back_end.SectionList([&](const std::string& section) { sections.push_back(section); });
    return sections;
  });
}

std::map<std::string, std::string> RegistryServer::KeyList(const std::string& section) {
  return WithRegistryErrors([&] { return m_back_end.KeyList(section); });
}

std::string RegistryServer::ReadAllJson() {
  return WithRegistryErrors([&] { return m_back_end.ReadAllJson(); });
}

void RegistryServer::WriteJson(const std::string& registry) {
  WithRegistryErrors([&] { m_back_end.WriteJson(registry); });
}

bool RegistryServer::handle_message(const DBus::Message& message) {
  try {
    return Handle(message);
  } catch (...) {
    // Not even the error reply could be created. It is better to leave one caller without a reply than to end the
    // process.
    return true;
  }
}

// If this returns false, libdbus itself answers with an unknown-method error, even if the caller expects no reply.
bool RegistryServer::Handle(const DBus::Message& message) {
  if (message.type() != DBUS_MESSAGE_TYPE_METHOD_CALL) {
    return false;
  }
  // In the library, messages of all types have the same members and differ only in accessors. Its own dispatch uses the
  // same cast.
  const auto& call = reinterpret_cast<const DBus::CallMessage&>(message);
  DBus::InterfaceAdaptor* const interface = FindInterface(call);
  if (interface == nullptr) {
    return !WantsReply(call);
  }
  const DBus::Message reply = Answer(*interface, call);
  if (WantsReply(call)) {
    conn().send(reply);
  }
  return true;
}

DBus::InterfaceAdaptor* RegistryServer::FindInterface(const DBus::CallMessage& call) {
  com::tavimesh::Registry_adaptor* const registry = this;
  if (const char* name = call.interface()) {
    // Nearly every call names this interface, and the search of the library would copy the name to a string.
    return registry->name() == name ? registry : find_interface(name);
  }
  // A call need not name its interface. The method name then selects it.
  if (com::tavimesh::Registry_adaptor::_methods.count(call.member()) != 0) {
    return registry;
  }
  if (DBus::IntrospectableAdaptor::_methods.count(call.member()) != 0) {
    return static_cast<DBus::IntrospectableAdaptor*>(this);
  }
  return nullptr;
}

DBus::Message RegistryServer::Answer(DBus::InterfaceAdaptor& interface, const DBus::CallMessage& call) {
  try {
    try {
      return interface.dispatch_method(call);
    } catch (const DBus::Error&) {
      throw;
    } catch (...) {
      ThrowAsRegistryError();
    }
  } catch (const DBus::Error& e) {
    return DBus::ErrorMessage(call, e.name(), e.message());
  }
}
