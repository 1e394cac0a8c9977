// The object "/com/tavimesh/Registry", which serves the registry on a bus connection.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dbus/registry_adaptor.h"
#include "registry/registry_back_end.h"

class PersistentStore;

/// main() owns it, and the dispatcher's thread calls it. Each operation calls the back end and converts its exceptions
/// to RegistryError (see ThrowAsRegistryError). Nothing is logged: only the reply reports an error.
class RegistryServer : public com::tavimesh::Registry_adaptor,
                       public DBus::IntrospectableAdaptor,
                       public DBus::ObjectAdaptor {
public:
  /// Registers the object on `connection` and loads the registry from `store`. Does not request the bus name. Throws
  /// the exceptions of the load; the object is then not registered. A long WriteJson is abandoned when
  /// `is_stop_requested` returns true.
  RegistryServer(DBus::Connection& connection, std::shared_ptr<PersistentStore> store,
                 std::function<bool()> is_stop_requested = nullptr);

  /// Writes pending changes, then unregisters the object.
  ~RegistryServer() override;

  std::string Read(const std::string& section, const std::string& key) override;
  void Write(const std::string& section, const std::string& key, const std::string& value) override;
  void DeleteKey(const std::string& section, const std::string& key) override;
  void DeleteSection(const std::string& section) override;
  void DeleteAll() override;
  void Flush() override;
  bool KeyExists(const std::string& section, const std::string& key) override;
  bool SectionExists(const std::string& section) override;
  std::vector<std::string> SectionList() override;
  std::map<std::string, std::string> KeyList(const std::string& section) override;
  std::string ReadAllJson() override;
  void WriteJson(const std::string& registry) override;

private:
  // Replaces the dispatch of the library. The library's dispatch lets exceptions propagate into C code of libdbus,
  // throws if a call names no interface, and answers calls that expect no reply.
  bool handle_message(const DBus::Message& message) override;
  bool Handle(const DBus::Message& message);
  DBus::InterfaceAdaptor* FindInterface(const DBus::CallMessage& call);
  DBus::Message Answer(DBus::InterfaceAdaptor& interface, const DBus::CallMessage& call);

  RegistryBackEnd m_back_end;
};
