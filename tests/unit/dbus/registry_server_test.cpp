#include "dbus/registry_server.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "dbus/registry_errors.h"
#include "fuzz/support/peer_bus.h"
#include "tests/unit/support/stores.h"

namespace {

using test_support::RecordingStore;

constexpr char kBadName[] = "caf\xC3\xA9";

// Calls the operations directly. Over a bus the replies would be the same even if the operations did not translate
// their exceptions.
class RegistryServerOperation : public testing::Test {
protected:
  RegistryServer& Server() { return m_server; }

  // Makes further writes to the store throw what `raise` throws.
  void FailWrites(std::function<void()> raise) {
    m_server.Write("s", "k", "v");
    m_store->OnWrite(std::move(raise));
  }

  void TearDown() override { m_store->OnWrite(nullptr); }

  bool m_is_stopping = false;

  static void ExpectError(const char* name, const std::string& text, const std::function<void()>& operation) {
    try {
      operation();
      ADD_FAILURE() << "nothing thrown, expected " << name;
    } catch (const RegistryError& e) {
      EXPECT_STREQ(e.name(), name);
      EXPECT_EQ(e.message(), text);
    }
  }

private:
  const std::shared_ptr<RecordingStore> m_store = std::make_shared<RecordingStore>("", 100);
  RegistryServer m_server{fuzz::PeerBus::Instance().ServedEnd(), m_store, [this] { return m_is_stopping; }};
};

TEST_F(RegistryServerOperation, ThrowsInvalidNameForAnInvalidName) {
  const std::vector<std::function<void()>> operations = {
      [&] { Server().Read(kBadName, "k"); },      [&] { Server().Write("s", kBadName, "v"); },
      [&] { Server().DeleteKey(kBadName, "k"); }, [&] { Server().DeleteSection(kBadName); },
      [&] { Server().KeyExists("s", kBadName); }, [&] { Server().SectionExists(kBadName); },
      [&] { Server().KeyList(kBadName); },        [&] { Server().WriteJson(R"({"caf\u00e9":{"k":"v"}})"); },
  };
  for (const std::function<void()>& operation : operations) {
    ExpectError(RegistryError::kInvalidName, "Invalid Name", operation);
  }
}

TEST_F(RegistryServerOperation, ThrowsInvalidJsonForJsonOfTheWrongShape) {
  ExpectError(RegistryError::kInvalidJson, "Invalid Json", [&] { Server().WriteJson("[]"); });
}

TEST_F(RegistryServerOperation, ThrowsFullForAFullRegistry) {
  const std::string value(100, 'v');
  ExpectError(RegistryError::kFull, "Full", [&] { Server().Write("s", "k", value); });
  ExpectError(RegistryError::kFull, "Full", [&] { Server().WriteJson(R"({"s":{"k":")" + value + R"("}})"); });
}

TEST_F(RegistryServerOperation, ThrowsTheTextOfAnyOtherException) {
  FailWrites([] { throw std::runtime_error("no medium"); });
  ExpectError(RegistryError::kException, "no medium", [&] { Server().Flush(); });
}

TEST_F(RegistryServerOperation, ThrowsInvalidNameForAValueThatIsNotAStdException) {
  FailWrites([] { throw 1; });
  ExpectError(RegistryError::kInvalidName, "Unknown exception", [&] { Server().Flush(); });
}

TEST_F(RegistryServerOperation, ThrowsWhenAnImportIsStopped) {
  m_is_stopping = true;
  ExpectError(RegistryError::kException, "ledgerd is stopping",
              [&] { Server().WriteJson(std::string(100000, ' ') + "{}"); });
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
