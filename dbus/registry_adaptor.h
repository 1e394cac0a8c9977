// The D-Bus interface "com.tavimesh.Registry": its description, and the handlers that unpack calls and build replies.
// Derived classes implement the methods.
#pragma once

#include <dbus-c++/dbus.h>

#include <map>
#include <string>
#include <vector>

namespace com {
namespace tavimesh {

/// The dispatcher's thread calls it, one call at a time. A handler throws DBus::Error and the exceptions of the
/// operation. It throws DBus::ErrorInvalidArgs, without calling the operation, if an argument is missing or has another
/// type. It throws RegistryError if a D-Bus message cannot contain the result.
class Registry_adaptor : public DBus::InterfaceAdaptor {
public:
  Registry_adaptor();

  DBus::IntrospectedInterface* introspect() const override;

  virtual std::string Read(const std::string& section, const std::string& key) = 0;
  virtual void Write(const std::string& section, const std::string& key, const std::string& value) = 0;
  virtual void DeleteKey(const std::string& section, const std::string& key) = 0;
  virtual void DeleteSection(const std::string& section) = 0;
  virtual void DeleteAll() = 0;
  virtual void Flush() = 0;
  virtual bool KeyExists(const std::string& section, const std::string& key) = 0;
  virtual bool SectionExists(const std::string& section) = 0;
  virtual std::vector<std::string> SectionList() = 0;
  /// Despite its name, returns the keys with their values.
  virtual std::map<std::string, std::string> KeyList(const std::string& section) = 0;
  virtual std::string ReadAllJson() = 0;
  virtual void WriteJson(const std::string& registry) = 0;

private:
  DBus::Message HandleRead(const DBus::CallMessage& call);
  DBus::Message HandleWrite(const DBus::CallMessage& call);
  DBus::Message HandleDeleteKey(const DBus::CallMessage& call);
  DBus::Message HandleDeleteSection(const DBus::CallMessage& call);
  DBus::Message HandleDeleteAll(const DBus::CallMessage& call);
  DBus::Message HandleFlush(const DBus::CallMessage& call);
  DBus::Message HandleKeyExists(const DBus::CallMessage& call);
  DBus::Message HandleSectionExists(const DBus::CallMessage& call);
  DBus::Message HandleSectionList(const DBus::CallMessage& call);
  DBus::Message HandleKeyList(const DBus::CallMessage& call);
  DBus::Message HandleReadAllJson(const DBus::CallMessage& call);
  DBus::Message HandleWriteJson(const DBus::CallMessage& call);
};

}  // namespace tavimesh
}  // namespace com
