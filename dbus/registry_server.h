// The object "/com/tavimesh/Registry": the registry served on a bus connection.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dbus/registry_adaptor.h"
#include "registry/registry_back_end.h"

class PersistentStore;

/// Owned by the process entry; called on the dispatcher's thread. Each operation forwards to the back end and throws
/// RegistryError for whatever comes back (see ThrowAsRegistryError). Nothing is logged; the reply is the only report.
class RegistryServer : public com::tavimesh::Registry_adaptor,
                       public DBus::IntrospectableAdaptor,
                       public DBus::ObjectAdaptor {
public:
  /// Registers the object on `connection` and loads the registry from `store`. The bus name is the caller's to request.
  /// Passes on what the load throws; the object is then not registered. A WriteJson that takes long is given up when
  /// `is_stop_requested` says so.
  RegistryServer(DBus::Connection& connection, std::shared_ptr<PersistentStore> store,
                 std::function<bool()> is_stop_requested = nullptr);

  /// Writes out what is not written yet, then unregisters the object.
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
  // Takes the place of the library's dispatch, which lets exceptions into libdbus's C frames, throws one of its own for
  // a call that names no interface, and answers calls that want no reply.
  bool handle_message(const DBus::Message& message) override;
  bool Handle(const DBus::Message& message);
  DBus::InterfaceAdaptor* FindInterface(const DBus::CallMessage& call);
  DBus::Message Answer(DBus::InterfaceAdaptor& interface, const DBus::CallMessage& call);

  RegistryBackEnd m_back_end;
};
