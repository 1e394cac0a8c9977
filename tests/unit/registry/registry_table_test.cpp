#include "registry/registry_table.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

TEST(RegistryTable, HasTheTextOfItsSectionsAfterEveryChange) {
  const struct {
    const char* name;
    std::function<void(RegistryTable&)> change;
    std::string text;
  } rows[] = {
      {"no change", [](RegistryTable&) {}, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"a value", [](RegistryTable& t) { t.SetKey("d", "k", "new"); }, "[b]\nk=1\n[d]\nk=new\nl=3\n[f]\n"},
      {"a new key", [](RegistryTable& t) { t.SetKey("f", "%", "\n"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n%25=%0a\n"},
      {"an erased key", [](RegistryTable& t) { t.EraseKey("d", "l"); }, "[b]\nk=1\n[d]\nk=2\n[f]\n"},
      {"an erased last key", [](RegistryTable& t) { t.EraseKey("b", "k"); }, "[b]\n[d]\nk=2\nl=3\n[f]\n"},
      {"a new first section", [](RegistryTable& t) { t.SetKey("a", "k", ""); },
       "[a]\nk\n[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"a new empty section", [](RegistryTable& t) { t.AddSection("e"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[e]\n[f]\n"},
      {"a new last section", [](RegistryTable& t) { t.SetKey("g", "k", "v"); },
       "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n[g]\nk=v\n"},
      {"an added section that exists", [](RegistryTable& t) { t.AddSection("d"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"an erased first section", [](RegistryTable& t) { t.EraseSection("b"); }, "[d]\nk=2\nl=3\n[f]\n"},
      {"an erased last section", [](RegistryTable& t) { t.EraseSection("f"); }, "[b]\nk=1\n[d]\nk=2\nl=3\n"},
      {"a section that is erased and added again",
       [](RegistryTable& t) {
         t.EraseSection("d");
         t.AddSection("d");
       },
       "[b]\nk=1\n[d]\n[f]\n"},
      {"two sections",
       [](RegistryTable& t) {
         t.SetKey("b", "k", "new");
         t.SetKey("f", "k", "new");
       },
       "[b]\nk=new\n[d]\nk=2\nl=3\n[f]\nk=new\n"},
      {"nothing that exists",
       [](RegistryTable& t) {
         t.EraseKey("d", "none");
         t.EraseKey("none", "k");
         t.EraseSection("none");
       },
       "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n"},
      {"another table",
       [](RegistryTable& t) {
         t = RegistryTable({{"b", {}}, {"d", {{"k", "4"}}}});
       },
       "[b]\n[d]\nk=4\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RegistryTable table({{"b", {{"k", "1"}}}, {"d", {{"k", "2"}, {"l", "3"}}}, {"f", {}}});
    EXPECT_EQ(table.Text(), "[b]\nk=1\n[d]\nk=2\nl=3\n[f]\n");
    row.change(table);
    EXPECT_EQ(table.Text(), row.text);
    EXPECT_EQ(table.Text(), SerialiseRegistry(table.Sections()));
  }
}

}  // namespace
