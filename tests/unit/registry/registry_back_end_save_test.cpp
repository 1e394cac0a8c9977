// When the back end saves, which changes do not fit, and how it returns to the last accepted text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/registry/back_end_fixture.h"
#include "tests/unit/support/throws.h"
#include "tests/unit/support/wrapped_calls.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kCapacity = kRegistryCapacity;
const std::string kTooLong(kCapacity, 'x');

struct Operation {
  const char* name;
  std::function<void(Registry&)> run;
};

TEST(RegistryBackEndSave, KeepsChangesPendingUntilTheFlush) {
  BackEnd back_end("[s]\nk=v\n");
  back_end->Write("s", "k", "1");
  back_end->Write("s", "k", "2");
  back_end->DeleteSection("s");
  EXPECT_THAT(back_end.store->Writes(), IsEmpty());
  back_end->Flush();
  EXPECT_THAT(back_end.store->Writes(), ElementsAre(""));
  back_end->Flush();
  EXPECT_THAT(back_end.store->Writes(), ElementsAre("")) << "nothing is pending";
}

// The clock is set by hand, 60 s late. The real time is therefore always after the deadline, so the worker does not
// wait, but looks at the clock again and again.
TEST(RegistryBackEndSave, WritesSixtySecondsAfterTheFirstUnwrittenChange) {
  timespec first = bramble::get_monotonic_time();
  first.tv_sec -= 60;
  const auto later = [&](std::uint64_t microseconds) { return bramble::AddMicroseconds(first, microseconds); };
  wrapped_calls::FakeClock clock(first);
  test_platform::EventLog writes;
  BackEnd back_end;
  back_end.store->OnWrite([&] { writes.Record(); });
  back_end->Write("s", "k", "v");
  clock.Set(later(59000000));
  back_end->Write("s", "k", "w");
  clock.Set(later(60000000));
  EXPECT_TRUE(clock.WaitForReads(20));
  EXPECT_EQ(writes.Count(), 0U);
  clock.Set(later(60000001));
  EXPECT_TRUE(writes.WaitFor(1));
  back_end.registry.reset();
  EXPECT_THAT(back_end.store->Writes(), ElementsAre("[s]\nk=w\n"));
}

TEST(RegistryBackEndSave, WritesAPendingChangeWhenItIsDestroyed) {
  BackEnd changed;
  changed->Write("s", "k", "v");
  changed.registry.reset();
  EXPECT_THAT(changed.store->Writes(), ElementsAre("[s]\nk=v\n"));
  BackEnd unchanged("[s]\r\nk=v");
  unchanged.registry.reset();
  EXPECT_THAT(unchanged.store->Writes(), IsEmpty());
}

TEST(RegistryBackEndSave, EndsTheProcessWhenTheLastWriteFails) {
  const auto fail_the_last_write = [] {
    BackEnd back_end;
    back_end.store->OnWrite([] { throw std::runtime_error("no room"); });
    back_end->Write("s", "k", "v");
    back_end.registry.reset();
    std::exit(0);
  };
  EXPECT_EXIT(fail_the_last_write(), testing::KilledBySignal(SIGABRT), "");
}

TEST(RegistryBackEndSave, FillsTheStoreToTheLastByte) {
  // "[s]\nk=" and the last newline have 7 bytes. A percent sign in a value becomes 3 bytes.
  const std::string fits(kCapacity - 7, 'x');
  const std::string percents = std::string(5458, '%') + "xx";
  const std::string half(8000, 'x');
  std::string many = "{";  // 1023 sections of 16 bytes: "[a1000]\nk=vvvvv\n"
  for (int i = 0; i < 1023; ++i) {
    many += "\"a" + std::to_string(1000 + i) + R"(":{"k":"vvvvv"},)";
  }
  const struct {
    const char* name;
    std::string text;
    std::function<void(Registry&, const std::string&)> operation;
    std::string fits;
  } rows[] = {
      {"Write of a new section", "", [](auto& r, auto& v) { r.Write("s", "k", v); }, fits},
      {"Write over a value", "[s]\nk=a\n", [](auto& r, auto& v) { r.Write("s", "k", v); }, fits},
      {"Write of a new key", "[s]\nj\n", [](auto& r, auto& v) { r.Write("s", "k", v); }, fits.substr(2)},
      {"Write of bytes that are escaped", "", [](auto& r, auto& v) { r.Write("s", "k", v); }, percents},
      {"Write of a long key name", "", [](auto& r, auto& v) { r.Write("s", v, ""); }, fits + "xx"},
      {"Write of a long section name", "", [](auto& r, auto& v) { r.Write(v, "k", ""); }, fits + "xx"},
      {"WriteJson", "", [](auto& r, auto& v) { r.WriteJson(R"({"s":{"k":")" + v + R"("}})"); }, fits},
      {"WriteJson of a long key name", "", [](auto& r, auto& v) { r.WriteJson(R"({"s":{")" + v + R"(":""}})"); },
       fits + "xx"},
      {"WriteJson of many sections", "", [&](auto& r, auto& v) { r.WriteJson(many + R"("z":{"k":")" + v + R"("}})"); },
       "12345678"},
      {"WriteJson of three sections", "",
       [&](auto& r, auto& v) { r.WriteJson(R"({"a":{"k":")" + half + R"("},"b":{"k":")" + v + R"("},"c":{"":"v"}})"); },
       half + std::string(362, 'y')},
      {"WriteJson of four keys", "",
       [&](auto& r, auto& v) { r.WriteJson(R"({"s":{"a":")" + half + R"(","b":")" + v + R"(","c":"","d":""}})"); },
       half + std::string(369, 'y')},
      {"WriteJson that deletes a section", "[z]\nk=v\n",
       [](auto& r, auto& v) { r.WriteJson(R"({"a":{")" + v + R"(":""},"z":null})"); }, fits + "xx"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd refusing(row.text);
    const std::string before = refusing->ReadAllJson();
    EXPECT_THROW(row.operation(*refusing.registry, row.fits + "x"), Registry::Full);
    refusing.ExpectUnchanged(before);
    BackEnd back_end(row.text);
    EXPECT_NO_THROW(row.operation(*back_end.registry, row.fits));
    EXPECT_EQ(back_end.FlushedText().size(), kCapacity);
  }
}

TEST(RegistryBackEndSave, HasTheCapacityOfTheStore) {
  BackEnd back_end("", 8);
  back_end->Write("s", "k", "v");
  EXPECT_THROW(back_end->Write("s", "k", "vv"), Registry::Full);
  EXPECT_THROW(back_end->Write("t", "", ""), Registry::Full);
  EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"v"}})") << "the accepted text, although it was never written";
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=v\n");
}

TEST(RegistryBackEndSave, RefusesChangesAfterWhichALoadedTextIsStillTooLong) {
  const Operation rows[] = {
      {"DeleteKey", [](auto& r) { r.DeleteKey("s", "b"); }},
      {"DeleteSection", [](auto& r) { r.DeleteSection("u"); }},
      {"Write", [](auto& r) { r.Write("s", "b", ""); }},
      {"WriteJson that deletes", [](auto& r) { r.WriteJson(R"({"s":{"b":null},"t":null})"); }},
      {"WriteJson of an empty object", [](auto& r) { r.WriteJson("{}"); }},
      {"WriteJson that deletes and sets",
       [](auto& r) { r.WriteJson(R"({"a":{"k":"v"},"s":null,"z":{"k":"1234567"}})"); }},
  };
  for (const Operation& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[s]\na=" + std::string(30, 'x') + "\nb=1\n[t]\n[u]\nc=2\n", 20);
    const std::string before = back_end->ReadAllJson();
    EXPECT_THROW(row.run(*back_end.registry), Registry::Full);
    back_end.ExpectUnchanged(before);
    EXPECT_EQ(back_end.store->Reads(), 1) << "the accepted text is kept in memory";
  }
}

TEST(RegistryBackEndSave, AcceptsAChangeAfterWhichALoadedTextFits) {
  const std::string text = "[s]\na=" + std::string(30, 'x') + "\nb=1\n[t]\n";
  BackEnd back_end(text, 20);
  back_end->DeleteKey("s", "a");
  EXPECT_EQ(back_end.FlushedText(), "[s]\nb=1\n[t]\n");
  BackEnd emptied(text, 20);
  emptied->DeleteAll();
  EXPECT_EQ(emptied.FlushedText(), "");
}

TEST(RegistryBackEndSave, LosesAnUnsavedEmptySectionWhenASaveFails) {
  BackEnd back_end("[s]\n");
  EXPECT_THROW(back_end->Write("unsaved", "\x80", "v"), Registry::InvalidName);
  EXPECT_THROW(back_end->Write("s", "k", kTooLong), Registry::Full);
  back_end.ExpectUnchanged(R"({"s":{}})");
}

TEST(RegistryBackEndSave, ReturnsToTheAcceptedTextByReadingIt) {
  BackEnd back_end;
  back_end->Write("s", "[k", "v");
  EXPECT_EQ(back_end->Read("s", "[k"), "v");
  EXPECT_THROW(back_end->Write("s", "x", kTooLong), Registry::Full);
  // The line of the key is read as a header.
  EXPECT_EQ(back_end->ReadAllJson(), R"({"k=v":{},"s":{}})");
}

TEST(RegistryBackEndSave, UndoesAChangeThatTheStoreRefusesForAnotherReason) {
  const Operation rows[] = {
      {"Write", [](auto& r) { r.Write("t", "k", "v"); }},
      {"DeleteKey", [](auto& r) { r.DeleteKey("s", "k"); }},
      {"DeleteSection", [](auto& r) { r.DeleteSection("s"); }},
      {"DeleteAll", [](auto& r) { r.DeleteAll(); }},
      {"WriteJson", [](auto& r) { r.WriteJson(R"({"s":null,"t":{"k":"v"}})"); }},
  };
  for (const Operation& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[s]\nk=v\n");
    back_end.store->OnCapacity([] { throw bramble::ErrnoException(5, "store"); });
    test_platform::ExpectErrno(5, "store: Input/output error (5)", [&] { row.run(*back_end.registry); });
    EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"v"}})");
    back_end.store->OnCapacity([] { throw 42; });
    EXPECT_THROW(row.run(*back_end.registry), int);
    back_end.ExpectUnchanged(R"({"s":{"k":"v"}})");
    back_end.store->OnCapacity(nullptr);
    row.run(*back_end.registry);
    EXPECT_NE(back_end->ReadAllJson(), R"({"s":{"k":"v"}})") << "later changes succeed";
  }
}

TEST(RegistryBackEndFlush, PassesOnExceptionsOfTheStoreAndKeepsTheTextPending) {
  BackEnd back_end("[s]\nk=v\n");
  back_end->Write("s", "k", "w");
  back_end.store->OnWrite([] { throw bramble::ErrnoException(28); });
  EXPECT_THROW(back_end->Flush(), bramble::ErrnoException);
  back_end.store->OnWrite([] { throw 42; });
  EXPECT_THROW(back_end->Flush(), int);
  back_end.store->OnWrite([] { throw PersistentStore::Full(); });
  EXPECT_THROW(back_end->Flush(), PersistentStore::Full);
  EXPECT_EQ(back_end->Read("s", "k"), "w");
  EXPECT_THAT(back_end.store->Writes(), IsEmpty());
  back_end->Write("s", "k", "x");
  back_end.store->OnWrite(nullptr);
  back_end->Flush();
  EXPECT_THAT(back_end.store->Writes(), ElementsAre("[s]\nk=x\n"));
}

}  // namespace
