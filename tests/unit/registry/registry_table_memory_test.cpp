// The text of a table after a change, or the making of its text, that fails for lack of memory.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "registry/registry_table.h"
#include "tests/unit/registry/short_of_memory.h"

namespace {

using test_registry::kLong;
using test_registry::kText;
using test_registry::kTooMany;
using test_registry::RunShortOfMemory;

using RegistryTableMemory = test_registry::ShortOfMemory;

INSTANTIATE_TEST_SUITE_P(, RegistryTableMemory, test_registry::kEachLack, test_registry::LackName);

TEST_P(RegistryTableMemory, LeavesATextThatIsThatOfTheTable) {
  const struct {
    const char* name;
    std::function<void(RegistryTable&)> change;
  } rows[] = {
      {"a value", [](RegistryTable& t) { t.SetKey("s", "j", kLong); }},
      {"a new key", [](RegistryTable& t) { t.SetKey("s", kLong, kLong); }},
      {"a new section", [](RegistryTable& t) { t.SetKey(kLong, kLong, kLong); }},
      {"a section that is erased and added again",
       [](RegistryTable& t) {
         t.EraseSection("s");
         t.SetKey("s", "k", kLong);
       }},
  };
  for (const auto& row : rows) {
    bool has_failed = true;
    for (std::size_t nth = 1; has_failed; ++nth) {
      SCOPED_TRACE(std::string(row.name) + ", allocation " + std::to_string(nth));
      ASSERT_LT(nth, kTooMany);
      RegistryTable table(ParseRegistry(kText));
      table.Text();
      std::string thrown;
      const auto change_and_print = [&] {
        row.change(table);
        table.Text();
      };
      has_failed = RunShortOfMemory(nth, GetParam(), change_and_print, thrown);
      EXPECT_EQ(thrown, has_failed ? "bad_alloc" : "");
      EXPECT_EQ(table.Text(), SerialiseRegistry(table.Sections()));
    }
  }
}

}  // namespace
