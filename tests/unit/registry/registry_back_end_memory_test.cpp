// Each allocation of each operation fails once. The operation then throws an exception and has no other effect.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <string>

#include "registry/file_store.h"
#include "tests/unit/registry/back_end_fixture.h"
#include "tests/unit/support/failing_new.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using test_support::FailingNew;

// More allocations than any operation needs.
constexpr std::size_t kTooMany = 5000;

// Longer than the buffer inside a string object, so that every copy allocates.
const std::string kLong = "a value that is longer than the buffer inside a string object";
const std::string kSection = "a section with a long name";
const std::string kKey = "a key with a long name";
const std::string kText = "[" + kSection + "]\n" + kKey + "=" + kLong + "\n[s]\nj=1\nk=" + kLong + "\n";
const std::string kTooLong(20000, 'x');

// Returns the class of the exception that the operation throws, or else its text. Returns "" if it throws none.
std::string ThrownBy(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const std::bad_alloc&) {
    return "bad_alloc";
  } catch (const Registry::InvalidName&) {
    return "InvalidName";
  } catch (const Registry::InvalidJson&) {
    return "InvalidJson";
  } catch (const Registry::Full&) {
    return "Full";
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

RegistrySections Contents(RegistryBackEnd& registry) {
  RegistrySections contents;
  registry.SectionList([&](const std::string& name) { contents[name] = registry.KeyList(name); });
  return contents;
}

// A back end with a change that is not written yet.
struct Prepared : BackEnd {
  Prepared() : BackEnd(kText) { registry->Write("s", "pending", "1"); }
};

// The parameter is which allocations fail after the first one that fails.
class RegistryBackEndMemory : public testing::TestWithParam<FailingNew::Lack> {
protected:
  // Calls `test` with 1, 2 and so on, until it returns that no allocation has failed.
  static void ForEachAllocation(const std::string& name, const std::function<bool(std::size_t nth)>& test) {
    bool has_failed = true;
    for (std::size_t nth = 1; has_failed && !HasFailure(); ++nth) {
      SCOPED_TRACE(name + ", allocation " + std::to_string(nth));
      ASSERT_LT(nth, kTooMany);
      has_failed = test(nth);
    }
  }

  // Runs the operation while its allocation number `nth` fails. Returns whether one has failed.
  bool Run(std::size_t nth, const std::function<void()>& operation) {
    bool has_failed = false;
    m_thrown = ThrownBy([&] {
      const FailingNew failing(nth, GetParam());
      try {
        operation();
      } catch (...) {
        has_failed = failing.HasFailed();
        throw;
      }
      has_failed = failing.HasFailed();
    });
    return has_failed;
  }

  std::string m_thrown;  // by the last operation
};

std::string LackName(const testing::TestParamInfo<FailingNew::Lack>& test) {
  const char* const names[] = {"OneAllocationFails", "TwoAllocationsInARowFail", "AllFurtherAllocationsFail"};
  return names[static_cast<std::size_t>(test.param)];
}

INSTANTIATE_TEST_SUITE_P(, RegistryBackEndMemory,
                         testing::Values(FailingNew::Lack::OfOneAllocation, FailingNew::Lack::OfTwoInARow,
                                         FailingNew::Lack::FromThenOn),
                         LackName);

struct Row {
  const char* name;
  std::function<void(RegistryBackEnd&)> operation;
  std::string throws = "";  // even if no allocation fails
};

const Row kRows[] = {
    {"Read", [](auto& r) { r.Read(kSection, kKey); }},
    {"Read of a missing section", [](auto& r) { r.Read("a missing section", "k"); }},
    {"Write of a new key", [](auto& r) { r.Write("s", "a new key with a long name", kLong); }},
    {"Write over a value", [](auto& r) { r.Write("s", "j", kLong); }},
    {"Write over a long value", [](auto& r) { r.Write("s", "k", kLong + kLong); }},
    {"Write of a new section", [](auto& r) { r.Write("another section with a long name", "k", kLong); }},
    {"Write of bytes that are escaped", [](auto& r) { r.Write("[" + kLong, "%" + kLong, "\n" + kLong); }},
    {"Write of a value that is too long", [](auto& r) { r.Write("s", "k", kTooLong); }, "Full"},
    {"Write to an invalid section", [](auto& r) { r.Write(kLong + "\x80", "k", kLong); }, "InvalidName"},
    {"KeyExists", [](auto& r) { r.KeyExists("s", "a key that does not exist"); }},
    {"SectionExists", [](auto& r) { r.SectionExists(kSection); }},
    {"DeleteKey", [](auto& r) { r.DeleteKey("s", "k"); }},
    {"DeleteKey of a long name", [](auto& r) { r.DeleteKey(kSection, kKey); }},
    {"DeleteSection", [](auto& r) { r.DeleteSection(kSection); }},
    {"DeleteAll", [](auto& r) { r.DeleteAll(); }},
    {"SectionList", [](auto& r) { r.SectionList([](std::string) {}); }},
    {"KeyList", [](auto& r) { r.KeyList("s", [](std::string, std::string) {}); }},
    {"KeyList as a map", [](auto& r) { r.KeyList(kSection); }},
    {"ReadAllJson", [](auto& r) { r.ReadAllJson(); }},
    {"Flush", [](auto& r) { r.Flush(); }},
    {"WriteJson of a new key",
     [](auto& r) { r.WriteJson(R"({"S":{"J":"2","K":null,"a new key of some length":")" + kLong + R"("}})"); }},
    {"WriteJson of a new section",
     [](auto& r) { r.WriteJson(R"({"s":{"k":"1"},"a new section of some length":{")" + kKey + R"(":"\u00e9\n"}})"); }},
    {"WriteJson that deletes", [](auto& r) { r.WriteJson(R"({")" + kSection + R"(":null,"s":{"k":null}})"); }},
    {"WriteJson of an empty object", [](auto& r) { r.WriteJson("{}"); }},
    {"WriteJson of names that differ in case",
     [](auto& r) { r.WriteJson(R"({"s":{"k":"1","K":"2"},"S":{"k":"3"},"T":{"k":"4"},"t":null})"); }},
    {"WriteJson of a value that is too long",
     [](auto& r) { r.WriteJson(R"({"s":null,"t":{"k":"v"},"z":{"k":")" + kTooLong + R"("}})"); }, "Full"},
    {"WriteJson of a refused value",
     [](auto& r) { r.WriteJson(R"({"s":{"k":"v","l":[1,{"b":[true,"x"],"a":{}},1.5,[]]}})"); }, "InvalidJson"},
    {"WriteJson of a large number", [](auto& r) { r.WriteJson(R"({"s":{"k":"v","l":[-1e400]}})"); }, "InvalidJson"},
    {"WriteJson of an array", [](auto& r) { r.WriteJson(R"([{"s":[]}])"); }, "InvalidJson"},
    {"WriteJson of an invalid name", [](auto& r) { r.WriteJson(R"({"s":{"k":"v"},"t\u0080":{}})"); }, "InvalidName"},
    {"WriteJson of a text that is not JSON", [](auto& r) { r.WriteJson(R"({"s":{"k":tru}})"); },
     "parse error - unexpected invalid literal; last read: '\"k\":tru}'"},
};

TEST_P(RegistryBackEndMemory, OfAnOperationChangesNothingOrEverything) {
  for (const Row& row : kRows) {
    Prepared done;
    const RegistrySections before = Contents(*done.registry);
    ASSERT_EQ(ThrownBy([&] { row.operation(*done.registry); }), row.throws) << row.name;
    const RegistrySections after = Contents(*done.registry);
    ForEachAllocation(row.name, [&](std::size_t nth) {
      Prepared back_end;
      const bool has_failed = Run(nth, [&] { row.operation(*back_end.registry); });
      RegistrySections contents = Contents(*back_end.registry);
      if (m_thrown == "bad_alloc") {
        EXPECT_TRUE(contents == before || contents == after) << SerialiseRegistry(contents);
      } else {
        // None has failed, or one that is not needed.
        EXPECT_EQ(m_thrown, row.throws);
        EXPECT_EQ(contents, after);
      }
      EXPECT_EQ(ParseRegistry(back_end.FlushedText()), contents) << "the accepted text is that of the table";
      contents["new"]["k"] = "v";
      back_end->Write("new", "k", "v");
      EXPECT_EQ(Contents(*back_end.registry), contents);
      EXPECT_EQ(back_end.FlushedText(), SerialiseRegistry(contents));
      return has_failed;
    });
  }
}

TEST_P(RegistryBackEndMemory, OfTheConstructorReleasesTheStore) {
  const test_support::TempDir directory;
  const auto store = FileStore::Create(directory / "a registry file with a long name", kRegistryCapacity, 0600);
  store->Write(kText);
  ForEachAllocation("construction", [&](std::size_t nth) {
    const bool has_failed = Run(nth, [&] { RegistryBackEnd registry(store); });
    EXPECT_EQ(m_thrown, has_failed ? "bad_alloc" : "");
    EXPECT_EQ(store.use_count(), 1);
    EXPECT_EQ(store->Read(), kText);
    return has_failed;
  });
}

TEST_P(RegistryBackEndMemory, OfAWriteToTheFileLeavesACompleteFile) {
  const test_support::TempDir directory;
  const std::string path = directory / "a registry file with a long name";
  const auto store = FileStore::Create(path, kRegistryCapacity, 0600);
  for (const bool imports : {false, true}) {
    ForEachAllocation(imports ? "WriteJson" : "Flush", [&](std::size_t nth) {
      store->Write(kText);
      RegistryBackEnd registry(store);
      registry.Write("s", "pending", "1");
      const bool has_failed = Run(nth, [&] { imports ? registry.WriteJson(R"({"s":{"k":"w"}})") : registry.Flush(); });
      EXPECT_TRUE(m_thrown.empty() || m_thrown == "bad_alloc") << m_thrown;
      const std::string written = store->Read();
      registry.Flush();
      EXPECT_TRUE(written == kText || written == store->Read()) << written;
      EXPECT_EQ(ParseRegistry(store->Read()), Contents(registry));
      EXPECT_FALSE(std::filesystem::exists(path + "~~new"));
      return has_failed;
    });
  }
}

// A mistake of the caller keeps the new section, a lack of memory does not. A reload also drops an earlier section that
// was never saved. A write that fails before it changes anything does not need to reload.
TEST_P(RegistryBackEndMemory, OfAWriteKeepsAnUnsavedSectionOrReturnsToTheAcceptedText) {
  for (const std::string& key : {kLong + "\x80", kLong}) {
    ForEachAllocation("Write", [&](std::size_t nth) {
      Prepared back_end;
      const RegistrySections accepted = Contents(*back_end.registry);
      EXPECT_THROW(back_end->Write("unsaved", "\x80", "v"), Registry::InvalidName);
      const RegistrySections before = Contents(*back_end.registry);
      const bool has_failed = Run(nth, [&] { back_end->Write("another section with a long name", key, kLong); });
      RegistrySections contents = Contents(*back_end.registry);
      if (m_thrown == "bad_alloc") {
        EXPECT_TRUE(contents == before || contents == accepted) << SerialiseRegistry(contents);
      } else {
        EXPECT_EQ(m_thrown, key == kLong ? "" : "InvalidName");
        EXPECT_EQ(contents.erase("another section with a long name"), 1U);
        EXPECT_EQ(contents, before);
      }
      return has_failed;
    });
  }
}

// If the failed change cannot be undone at once, the next operation undoes it.
TEST_P(RegistryBackEndMemory, OfAWriteDoesNotAffectTheNextOperation) {
  for (const Row& row : kRows) {
    Prepared done;
    ThrownBy([&] { row.operation(*done.registry); });
    const RegistrySections after = Contents(*done.registry);
    ForEachAllocation(std::string("Write before ") + row.name, [&](std::size_t nth) {
      Prepared back_end;
      const bool has_failed = Run(nth, [&] { back_end->Write("a new section of some length", "k", kLong); });
      if (has_failed) {
        EXPECT_EQ(ThrownBy([&] { row.operation(*back_end.registry); }), row.throws);
        EXPECT_EQ(Contents(*back_end.registry), after);
        EXPECT_EQ(back_end.FlushedText(), SerialiseRegistry(after));
      }
      return has_failed;
    });
  }
}

// Each allocation of the reload fails too.
TEST_P(RegistryBackEndMemory, OfAWriteAndOfTheNextOperationDoesNotAffectTheThird) {
  Prepared untouched;
  const RegistrySections before = Contents(*untouched.registry);
  ForEachAllocation("Write", [&](std::size_t nth) {
    bool has_failed = false;
    ForEachAllocation("KeyExists", [&](std::size_t second) {
      Prepared back_end;
      has_failed = Run(nth, [&] { back_end->Write("a new section of some length", "k", kLong); });
      const bool has_failed_again = has_failed && Run(second, [&] { back_end->KeyExists("s", "j"); });
      EXPECT_TRUE(!has_failed || Contents(*back_end.registry) == before);
      return has_failed_again;
    });
    return has_failed;
  });
}

TEST_P(RegistryBackEndMemory, OfAChangeOfTheTableLeavesTheTextOfItsSections) {
  const struct {
    const char* name;
    std::function<void(RegistryTable&)> change;
  } rows[] = {
      {"a value", [](auto& t) { t.SetKey("s", "j", kLong); }},
      {"a new key", [](auto& t) { t.SetKey("s", kLong, kLong); }},
      {"a new section", [](auto& t) { t.SetKey(kLong, kLong, kLong); }},
      {"a section that is erased and added again",
       [](auto& t) {
         t.EraseSection("s");
         t.SetKey("s", "k", kLong);
       }},
  };
  for (const auto& row : rows) {
    ForEachAllocation(row.name, [&](std::size_t nth) {
      RegistryTable table(ParseRegistry(kText));
      table.Text();
      const bool has_failed = Run(nth, [&] {
        row.change(table);
        table.Text();
      });
      EXPECT_EQ(m_thrown, has_failed ? "bad_alloc" : "");
      EXPECT_EQ(table.Text(), SerialiseRegistry(table.Sections()));
      return has_failed;
    });
  }
}

}  // namespace
