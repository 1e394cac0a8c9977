// Loading and writing the registry with every allocation failing: the store is whole.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>

#include "registry/file_store.h"
#include "tests/unit/registry/short_of_memory.h"
#include "tests/unit/support/stores.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using test_registry::kText;
using test_registry::kTooMany;
using test_registry::RunShortOfMemory;
using test_registry::Table;
using test_support::RecordingStore;

using RegistryBackEndMemoryStore = test_registry::ShortOfMemory;

INSTANTIATE_TEST_SUITE_P(, RegistryBackEndMemoryStore, test_registry::kEachLack, test_registry::LackName);

TEST_P(RegistryBackEndMemoryStore, DuringConstructionIsAnException) {
  bool has_failed = true;
  for (std::size_t nth = 1; has_failed; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LT(nth, kTooMany);
    const auto store = std::make_shared<RecordingStore>(kText);
    std::string thrown;
    has_failed = RunShortOfMemory(
        nth, GetParam(), [&] { RegistryBackEnd registry(store); }, thrown);
    EXPECT_EQ(thrown, has_failed ? "bad_alloc" : "");
    EXPECT_TRUE(store->Writes().empty());
    EXPECT_EQ(store.use_count(), 1) << "nothing of the back end is left";
  }
}

TEST_P(RegistryBackEndMemoryStore, LeavesTheFileWholeAndNoOtherBesideIt) {
  const struct {
    const char* name;
    std::function<void(RegistryBackEnd&)> operation;
  } rows[] = {
      {"Flush", [](RegistryBackEnd& r) { r.Flush(); }},
      {"WriteJson", [](RegistryBackEnd& r) { r.WriteJson(R"({"s":{"k":"w"}})"); }},
  };
  for (const auto& row : rows) {
    bool has_failed = true;
    for (std::size_t nth = 1; has_failed; ++nth) {
      SCOPED_TRACE(std::string(row.name) + ", allocation " + std::to_string(nth));
      ASSERT_LT(nth, kTooMany);
      const test_support::TempDir directory;
      const std::string path = directory / "a registry file with a rather long name";
      FileStore::Create(path, 16383, 0600)->Write(kText);
      RegistryBackEnd registry(FileStore::Create(path, 16383, 0600));
      registry.Write("s", "pending", "1");
      std::string thrown;
      has_failed = RunShortOfMemory(
          nth, GetParam(), [&] { row.operation(registry); }, thrown);
      EXPECT_TRUE(thrown == "" || thrown == "bad_alloc") << thrown;

      const std::string written = FileStore::Create(path, 16383, 0600)->Read();
      registry.Flush();
      const std::string flushed = FileStore::Create(path, 16383, 0600)->Read();
      EXPECT_TRUE(written == kText || written == flushed) << written;
      EXPECT_EQ(ParseRegistry(flushed), Table(registry));
      EXPECT_NE(::access((path + "~~new").c_str(), F_OK), 0) << "a temporary file is left";
    }
  }
}

}  // namespace
