// Sets the device's host name in the registry and reads it back: hostname NAME
#include <dbus-c++/dbus.h>

#include <initializer_list>
#include <iostream>
#include <string>

class Registry : public DBus::InterfaceProxy, public DBus::ObjectProxy {
public:
  explicit Registry(DBus::Connection& bus)
      : InterfaceProxy("com.tavimesh.Registry"), ObjectProxy(bus, "/com/tavimesh/Registry", "com.tavimesh.Registry") {}

  DBus::Message Call(const char* method, std::initializer_list<std::string> arguments) {
    DBus::CallMessage call;
    call.member(method);
    DBus::MessageIter writer = call.writer();
    for (const std::string& argument : arguments) {
      writer << argument;
    }
    return invoke_method(call);  // throws DBus::Error
  }
};

int main(int argc, char** argv) {
  DBus::BusDispatcher dispatcher;  // the library wants one, though the calls here wait for their replies
  DBus::default_dispatcher = &dispatcher;
  try {
    DBus::Connection bus = DBus::Connection::SystemBus();
    Registry registry(bus);
    registry.Call("Write", {"network", "hostname", argc > 1 ? argv[1] : "player-7"});
    DBus::Message reply = registry.Call("Read", {"network", "hostname"});
    std::cout << reply.reader().get_string() << '\n';
    return 0;
  } catch (const DBus::Error& e) {
    const bool full = std::string(e.name()) == "com.tavimesh.Registry.Errors.Full";
    std::cerr << (full ? "The registry is full; nothing has changed." : e.message()) << '\n';
    return 1;
  }
}
