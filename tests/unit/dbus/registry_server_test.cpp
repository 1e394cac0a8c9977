#include "dbus/registry_server.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "dbus/registry_errors.h"
#include "fuzz/support/peer_bus.h"
#include "tests/unit/support/stores.h"

namespace {

using test_support::RecordingStore;

void FailingFlush(RegistryServer& server, RecordingStore& store, std::function<void()> fault) {
  store.OnWrite(std::move(fault));
  server.Write("s", "k", "v");
  server.Flush();
}

// Over a bus the replies would be the same even if the operations did not convert their exceptions.
TEST(RegistryServer, ConvertsTheExceptionsOfEachOperation) {
  const std::string bad = "caf\xC3\xA9";
  const std::string too_long(100, 'v');
  const auto invalid_name = RegistryError::kInvalidName;
  const auto store = std::make_shared<RecordingStore>("", 100);
  const struct {
    std::function<void(RegistryServer&)> operation;
    const char* name;
    const char* text;
  } rows[] = {
      {[&](auto& s) { s.Read(bad, "k"); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.Write("s", bad, "v"); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.DeleteKey(bad, "k"); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.DeleteSection(bad); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.KeyExists("s", bad); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.SectionExists(bad); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.KeyList(bad); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.WriteJson(R"({"caf\u00e9":{"k":"v"}})"); }, invalid_name, "Invalid Name"},
      {[&](auto& s) { s.WriteJson("[]"); }, RegistryError::kInvalidJson, "Invalid Json"},
      {[&](auto& s) { s.WriteJson(R"({"s":{"k":")" + too_long + R"("}})"); }, RegistryError::kFull, "Full"},
      {[&](auto& s) { s.Write("s", "k", too_long); }, RegistryError::kFull, "Full"},
      {[&](auto& s) { s.WriteJson(std::string(100000, ' ') + "{}"); }, RegistryError::kException,
       "ledgerd is stopping"},
      {[&](auto& s) { FailingFlush(s, *store, [] { throw std::runtime_error("no medium"); }); },
       RegistryError::kException, "no medium"},
      {[&](auto& s) { FailingFlush(s, *store, [] { throw 1; }); }, invalid_name, "Unknown exception"},
  };
  RegistryServer server(fuzz::PeerBus::Instance().ServedEnd(), store, [] { return true; });
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - rows);
    try {
      row.operation(server);
      ADD_FAILURE() << "no exception";
    } catch (const RegistryError& e) {
      EXPECT_STREQ(e.name(), row.name);
      EXPECT_STREQ(e.message(), row.text);
    }
  }
  store->OnWrite(nullptr);
}

TEST(RegistryServer, LeavesTheObjectPathFreeWhenTheLoadFails) {
  struct UnreadableStore : RecordingStore {
    std::string Read() override { throw std::runtime_error("unreadable"); }
  };
  DBus::Connection& connection = fuzz::PeerBus::Instance().ServedEnd();
  EXPECT_THROW(RegistryServer(connection, std::make_shared<UnreadableStore>()), std::runtime_error);
  // This throws if the path is still in use.
  EXPECT_NO_THROW(RegistryServer(connection, std::make_shared<RecordingStore>()));
}

}  // namespace
