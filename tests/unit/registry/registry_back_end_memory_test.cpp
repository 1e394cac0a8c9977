// Every operation of the back end with every one of its allocations failing: there is an exception and no other trace.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/unit/registry/back_end_fixture.h"
#include "tests/unit/registry/short_of_memory.h"

namespace {

using test_registry::kLong;
using test_registry::kText;
using test_registry::kTooMany;
using test_registry::RunShortOfMemory;
using test_registry::Table;

struct Row {
  const char* name;
  std::function<void(RegistryBackEnd&)> operation;
  std::string throws = "";  // what the operation throws in any case
};

const std::string kTooLong(20000, 'x');

const Row kRows[] = {
    {"Read", [](RegistryBackEnd& r) { r.Read("A section with a rather long name", "A key with a rather long name"); }},
    {"Read of nothing", [](RegistryBackEnd& r) { r.Read("a section that does not exist", "k"); }},
    {"Write of a new key", [](RegistryBackEnd& r) { r.Write("s", "a new key with a rather long name", kLong); }},
    {"Write over a value", [](RegistryBackEnd& r) { r.Write("s", "j", kLong); }},
    {"Write over a long value", [](RegistryBackEnd& r) { r.Write("s", "k", kLong + kLong); }},
    {"Write of a new section", [](RegistryBackEnd& r) { r.Write("another section with a long name", "k", kLong); }},
    {"Write of what must be escaped", [](RegistryBackEnd& r) { r.Write("[" + kLong, "%" + kLong, "\n" + kLong); }},
    {"Write of too much", [](RegistryBackEnd& r) { r.Write("s", "k", kTooLong); }, "Full"},
    {"Write to an invalid section", [](RegistryBackEnd& r) { r.Write(kLong + "\x80", "k", kLong); }, "InvalidName"},
    {"KeyExists", [](RegistryBackEnd& r) { r.KeyExists("s", "a key that does not exist at all"); }},
    {"SectionExists", [](RegistryBackEnd& r) { r.SectionExists("a section with a rather long name"); }},
    {"DeleteKey", [](RegistryBackEnd& r) { r.DeleteKey("s", "k"); }},
    {"DeleteKey of a long name",
     [](RegistryBackEnd& r) { r.DeleteKey("a section with a rather long name", "a key with a rather long name"); }},
    {"DeleteSection", [](RegistryBackEnd& r) { r.DeleteSection("a section with a rather long name"); }},
    {"DeleteAll", [](RegistryBackEnd& r) { r.DeleteAll(); }},
    {"SectionList", [](RegistryBackEnd& r) { r.SectionList([](std::string) {}); }},
    {"KeyList", [](RegistryBackEnd& r) { r.KeyList("s", [](std::string, std::string) {}); }},
    {"KeyList as a map", [](RegistryBackEnd& r) { r.KeyList("a section with a rather long name"); }},
    {"ReadAllJson", [](RegistryBackEnd& r) { r.ReadAllJson(); }},
    {"Flush", [](RegistryBackEnd& r) { r.Flush(); }},
    {"WriteJson that merges",
     [](RegistryBackEnd& r) {
       r.WriteJson(R"({"S":{"J":"2","K":null,"a new key of some length":")" + kLong +
                   R"("},"a new section of some )"
                   R"(length":{"a key with a rather long name":"1","b":"\u00e9\n"}})");
     }},
    {"WriteJson that deletes",
     [](RegistryBackEnd& r) { r.WriteJson(R"({"a section with a rather long name":null,"s":{"k":null}})"); }},
    {"WriteJson of nothing", [](RegistryBackEnd& r) { r.WriteJson("{}"); }},
    {"WriteJson of names that become the same",
     [](RegistryBackEnd& r) { r.WriteJson(R"({"s":{"k":"1","K":"2"},"S":{"k":"3"},"T":{"k":"4"},"t":null})"); }},
    {"WriteJson of too much",
     [](RegistryBackEnd& r) { r.WriteJson(R"({"s":null,"t":{"k":"v"},"z":{"k":")" + kTooLong + R"("}})"); }, "Full"},
    {"WriteJson with a refused value",
     [](RegistryBackEnd& r) { r.WriteJson(R"({"s":{"k":"v","l":[1,{"b":[true,"x"],"a":{}},1.5,[]]}})"); },
     "InvalidJson"},
    {"WriteJson with a huge number", [](RegistryBackEnd& r) { r.WriteJson(R"({"s":{"k":"v","l":[-1e400]}})"); },
     "InvalidJson"},
    {"WriteJson of an array", [](RegistryBackEnd& r) { r.WriteJson(R"([{"s":[]}])"); }, "InvalidJson"},
    {"WriteJson with an invalid name",
     [](RegistryBackEnd& r) { r.WriteJson(R"({"s":{"k":"v"},"t\u0080":{"k":"v"}})"); }, "InvalidName"},
    {"WriteJson of no JSON", [](RegistryBackEnd& r) { r.WriteJson(R"({"s":{"k":tru}})"); },
     "parse error - unexpected invalid literal; last read: '\"k\":tru}'"},
};

using RegistryBackEndMemory = test_registry::ShortOfMemory;

INSTANTIATE_TEST_SUITE_P(, RegistryBackEndMemory, test_registry::kEachLack, test_registry::LackName);

// The back end as it is before each operation: with a change that is not written yet.
struct Prepared : BackEnd {
  Prepared() : BackEnd(kText) { registry->Write("s", "pending", "1"); }
};

TEST_P(RegistryBackEndMemory, IsAnExceptionAndLeavesTheRegistryAsItWasOrAsItShallBe) {
  for (const Row& row : kRows) {
    Prepared done;
    const RegistrySections before = Table(*done.registry);
    std::string thrown;
    RunShortOfMemory(
        kTooMany, GetParam(), [&] { row.operation(*done.registry); }, thrown);
    ASSERT_EQ(thrown, row.throws) << row.name;
    const RegistrySections after = Table(*done.registry);

    bool has_failed = true;
    std::size_t nth = 0;
    while (has_failed && nth < kTooMany) {
      ++nth;
      SCOPED_TRACE(std::string(row.name) + ", allocation " + std::to_string(nth));
      Prepared back_end;
      has_failed = RunShortOfMemory(
          nth, GetParam(), [&] { row.operation(*back_end.registry); }, thrown);

      const RegistrySections table = Table(*back_end.registry);
      if (thrown != "bad_alloc") {
        // None failed, or one that could be done without.
        EXPECT_EQ(thrown, row.throws);
        EXPECT_EQ(table, after);
      } else {
        EXPECT_TRUE(table == before || table == after) << SerialiseRegistry(table);
      }
      EXPECT_EQ(ParseRegistry(back_end.FlushedText()), table) << "the table is the accepted text's";

      RegistrySections expected = table;
      expected["new"]["k"] = "v";
      back_end->Write("new", "k", "v");
      EXPECT_EQ(Table(*back_end.registry), expected);
      EXPECT_EQ(back_end.FlushedText(), SerialiseRegistry(expected));
      if (testing::Test::HasFailure()) {
        return;
      }
    }
    EXPECT_LT(nth, kTooMany) << row.name;
  }
}

// The section is left behind for a caller's mistake, not for a lack of memory.
TEST_P(RegistryBackEndMemory, OfAWriteWithAnInvalidKeyLeavesTheStraySectionOrNothing) {
  bool has_failed = true;
  for (std::size_t nth = 1; has_failed; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LT(nth, kTooMany);
    Prepared back_end;
    RegistrySections expected = Table(*back_end.registry);
    std::string thrown;
    has_failed = RunShortOfMemory(
        nth, GetParam(), [&] { back_end->Write("a stray section of some length", kLong + "\x80", "v"); }, thrown);
    if (has_failed) {
      EXPECT_EQ(thrown, "bad_alloc");
    } else {
      EXPECT_EQ(thrown, "InvalidName");
      expected["a stray section of some length"];
    }
    EXPECT_EQ(Table(*back_end.registry), expected);
  }
}

// A reload drops what was never accepted; an operation that fails before it changes anything need not reload.
TEST_P(RegistryBackEndMemory, KeepsAnEarlierStraySectionOrGoesBackToTheAcceptedText) {
  bool has_failed = true;
  for (std::size_t nth = 1; has_failed; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LT(nth, kTooMany);
    Prepared back_end;
    EXPECT_THROW(back_end->Write("stray", "\x80", "v"), Registry::InvalidName);
    const RegistrySections before = Table(*back_end.registry);
    RegistrySections accepted = before;
    accepted.erase("stray");
    std::string thrown;
    has_failed = RunShortOfMemory(
        nth, GetParam(), [&] { back_end->Write("another section with a long name", "k", kLong); }, thrown);
    if (thrown == "bad_alloc") {
      const RegistrySections table = Table(*back_end.registry);
      EXPECT_TRUE(table == before || table == accepted) << SerialiseRegistry(table);
    }
  }
}

// Even where the failed change could not be undone at once.
TEST_P(RegistryBackEndMemory, IsNotSeenByTheOperationBehindIt) {
  for (const Row& row : kRows) {
    Prepared done;
    std::string thrown;
    RunShortOfMemory(
        kTooMany, GetParam(), [&] { row.operation(*done.registry); }, thrown);
    const RegistrySections after = Table(*done.registry);

    bool has_failed = true;
    for (std::size_t nth = 1; has_failed; ++nth) {
      SCOPED_TRACE(std::string(row.name) + " behind allocation " + std::to_string(nth));
      ASSERT_LT(nth, kTooMany);
      Prepared back_end;
      has_failed = RunShortOfMemory(
          nth, GetParam(), [&] { back_end->Write("a new section of some length", "k", kLong); }, thrown);
      if (has_failed) {
        RunShortOfMemory(
            kTooMany, GetParam(), [&] { row.operation(*back_end.registry); }, thrown);
        EXPECT_EQ(thrown, row.throws);
        EXPECT_EQ(Table(*back_end.registry), after);
        EXPECT_EQ(back_end.FlushedText(), SerialiseRegistry(after));
      }
    }
  }
}

// A reload that fails again, at whichever of its allocations, must be made up for still.
TEST_P(RegistryBackEndMemory, IsNotSeenBehindASecondFailureEither) {
  Prepared untouched;
  const RegistrySections before = Table(*untouched.registry);
  bool has_failed = true;
  for (std::size_t nth = 1; has_failed; ++nth) {
    bool has_failed_again = true;
    for (std::size_t second = 1; has_failed && has_failed_again; ++second) {
      SCOPED_TRACE(std::to_string(nth) + " and " + std::to_string(second));
      ASSERT_LT(nth + second, kTooMany);
      Prepared back_end;
      std::string thrown;
      has_failed = RunShortOfMemory(
          nth, GetParam(), [&] { back_end->Write("a new section of some length", "k", kLong); }, thrown);
      if (has_failed) {
        has_failed_again = RunShortOfMemory(
            second, GetParam(), [&] { back_end->KeyExists("s", "j"); }, thrown);
        EXPECT_EQ(Table(*back_end.registry), before);
      }
    }
  }
}

}  // namespace
