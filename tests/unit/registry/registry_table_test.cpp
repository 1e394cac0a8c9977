#include "registry/registry_table.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

// The cached texts of the sections never differ from their contents.
TEST(RegistryTable, HasTheTextOfItsSectionsAfterEachChange) {
  const struct {
    const char* name;
    std::function<void(RegistryTable&)> change;
    std::string text;
  } rows[] = {
      {"no change", [](auto&) {}, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"a value", [](auto& t) { t.SetKey("d", "k", "new"); }, "[b]\nk=1\n[d]\nk=new\nl=3\n[f]\n"},
      {"a new key", [](auto& t) { t.SetKey("f", "%", "\n"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n%25=%0a\n"},
      {"an erased key", [](auto& t) { t.EraseKey("d", "l"); }, "[b]\nk=1\n[d]\nk=2\n[f]\n"},
      {"an erased last key", [](auto& t) { t.EraseKey("b", "k"); }, "[b]\n[d]\nk=2\nl=3\n[f]\n"},
      {"a missing key", [](auto& t) { t.EraseKey("d", "x"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"a key of a missing section", [](auto& t) { t.EraseKey("x", "k"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"a new first section", [](auto& t) { t.SetKey("a", "k", ""); }, "[a]\nk\n[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"a new empty section", [](auto& t) { t.AddSection("e"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[e]\n[f]\n"},
      {"a new last section", [](auto& t) { t.SetKey("g", "k", "v"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n[g]\nk=v\n"},
      {"an added section that exists", [](auto& t) { t.AddSection("d"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"an erased first section", [](auto& t) { t.EraseSection("b"); }, "[d]\nk=2\nl=3\n[f]\n"},
      {"an erased last section", [](auto& t) { t.EraseSection("f"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n"},
      {"a missing section", [](auto& t) { t.EraseSection("x"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"another table",
       [](auto& t) {
         t = RegistryTable({{"d", {{"k", "4"}}}});
       },
       "[d]\nk=4\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RegistryTable table({{"b", {{"k", "1"}}}, {"d", {{"k", "2"}, {"l", "3"}}}, {"f", {}}});
    EXPECT_EQ(table.Text(), rows[0].text);
    row.change(table);
    EXPECT_EQ(table.Text(), row.text);
    // A second change without a text between them.
    table.EraseSection("d");
    table.AddSection("d");
    table.SetKey("b", "k", "5");
    EXPECT_EQ(table.Text(), SerialiseRegistry(table.Sections()));
  }
}

}  // namespace
