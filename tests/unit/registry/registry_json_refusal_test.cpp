// Imports that are refused or fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/unit/registry/back_end_fixture.h"
#include "tests/unit/support/throws.h"

namespace {

// Returns the class of the exception and the name or JSON text that was refused.
std::string FailureOf(BackEnd& back_end, const std::string& json) {
  try {
    back_end->WriteJson(json);
  } catch (const Registry::InvalidJson& e) {
    return "InvalidJson " + e.Detail();
  } catch (const Registry::InvalidName& e) {
    return "InvalidName " + e.Name();
  } catch (const Registry::Full&) {
    return "Full";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no exception";
}

TEST(WriteJsonRefusal, NamesTheFirstInvalidEntryAndChangesNothing) {
  const struct {
    const char* name;
    std::string json;
    std::string failure;
  } rows[] = {
      {"a text that is not an object, unchanged", " [ 1, {\"b\":2,\"a\":1} ]\n",
       "InvalidJson  [ 1, {\"b\":2,\"a\":1} ]\n"},
      {"null", "null", "InvalidJson null"},
      {"a number that does not fit a double", "1e400", "InvalidJson 1e400"},
      {"a section that is not an object", R"({"s":[ 1, "a\"b" ]})", R"(InvalidJson [1,"a\"b"])"},
      {"a section that is a string", R"({"s":"a\"b"})", R"(InvalidJson "a\"b")"},
      {"a key that is not a string", R"({"s":{"k":{"z": 1, "a": {}}}})", R"(InvalidJson {"a":{},"z":1})"},
      {"an invalid section after a valid one", R"({"a":{"k":"v"},"b":5})", "InvalidJson 5"},
      {"an invalid section before a valid one", R"({"a":5,"b":{"k":"v"}})", "InvalidJson 5"},
      {"an invalid key after deletions", R"({"a":null,"s":{"j":null,"k":"v","z":7}})", "InvalidJson 7"},
      {"an invalid section name", "{\"S\xC3\xA9\":{\"k\":\"v\"}}", "InvalidName S\xC3\xA9"},
      {"an invalid section name by its escape", R"({"S\u0080":{"k":"v"}})", "InvalidName S\xC2\x80"},
      {"an invalid section name of a deletion", "{\"\xC3\xA9\":null}", "InvalidName \xC3\xA9"},
      {"an invalid section name of an empty object", "{\"\xC3\xA9\":{}}", "InvalidName \xC3\xA9"},
      {"an invalid key name", "{\"s\":{\"K\xC3\xA9\":\"v\"}}", "InvalidName K\xC3\xA9"},
      {"an invalid key name of a deletion", "{\"s\":{\"\xC3\xA9\":null}}", "InvalidName \xC3\xA9"},
      {"an invalid key name in a new section", "{\"new\":{\"\xC3\xA9\":\"v\"}}", "InvalidName \xC3\xA9"},
      {"an invalid section name with an invalid value", "{\"\xC3\xA9\":5}", "InvalidName \xC3\xA9"},
      {"an invalid key name with an invalid value", "{\"s\":{\"\xC3\xA9\":5}}", "InvalidName \xC3\xA9"},
      {"the first section by name, not by position", R"({"b":1,"a":2})", "InvalidJson 2"},
      {"the first key by name, not by position", R"({"s":{"b":1,"a":2}})", "InvalidJson 2"},
      {"capitals before small letters", R"({"a":1,"B":2})", "InvalidJson 2"},
      {"keys with capitals before small letters", R"({"s":{"a":1,"B":2}})", "InvalidJson 2"},
      {"a value before a name that is sorted later", "{\"\xC3\xA9\":{},\"a\":2}", "InvalidJson 2"},
      {"a key of the first section before the second section", R"({"b":1,"a":{"k":2}})", "InvalidJson 2"},
      {"a key name of the first section", "{\"b\":1,\"a\":{\"\xC3\xA9\":2}}", "InvalidName \xC3\xA9"},
      {"a name of a deletion before a value", "{\"\xC3\xAA\":5,\"\xC3\xA9\":null}", "InvalidName \xC3\xA9"},
      {"the last of equal names", R"({"s":{"k":"v"},"s":3})", "InvalidJson 3"},
      {"a name before a large number", "{\"s\":{\"\xC3\xA9\":\"v\"},\"t\":1e400}", "InvalidName \xC3\xA9"},
      {"a name that is sorted before a large number", "{\"b\":1e400,\"a\":{\"\xC3\xA9\":\"v\"}}",
       "InvalidName \xC3\xA9"},
      {"another number before a large number", R"({"a":123456,"b":1e400})", "InvalidJson 123456"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[a]\nk=old\n[s]\nj=1\nk=2\n");
    EXPECT_EQ(FailureOf(back_end, row.json), row.failure);
    back_end.ExpectUnchanged(R"({"a":{"k":"old"},"s":{"j":"1","k":"2"}})");
  }
}

TEST(WriteJsonRefusal, PassesOnASyntaxErrorAndChangesNothing) {
  for (const char* json : {"", "{", "{\"s\":null", "{\"s\":null}}", "{\"s\":{\"k\":\"\xFF\"}}", "{\"s\":1e400,}"}) {
    SCOPED_TRACE(json);
    BackEnd back_end("[s]\nk=v\n");
    EXPECT_EQ(FailureOf(back_end, json).find("parse error - unexpected "), 0U);
    back_end.ExpectUnchanged(R"({"s":{"k":"v"}})");
  }
}

TEST(WriteJsonRefusal, KeepsTheUnsavedSectionOfARefusedWrite) {
  BackEnd back_end;
  EXPECT_THROW(back_end->Write("unsaved", "\x80", "v"), Registry::InvalidName);
  for (const char* json : {"[]", "{", R"({"s":5})", R"({"a":{"k":"v"},"s":{"k":5}})", "{\"\xC3\xA9\":null}"}) {
    SCOPED_TRACE(json);
    EXPECT_NE(FailureOf(back_end, json), "no exception");
    back_end.ExpectUnchanged(R"({"unsaved":{}})");
  }
}

TEST(WriteJsonRefusal, KeepsAPendingChangePending) {
  BackEnd back_end;
  back_end->Write("s", "k", "v");
  EXPECT_EQ(FailureOf(back_end, R"({"s":null,"t":0})"), "InvalidJson 0");
  EXPECT_THAT(back_end.store->Writes(), testing::IsEmpty());
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=v\n");
}

TEST(WriteJsonFailure, KeepsTheMergedDataPendingIfTheFlushFails) {
  BackEnd back_end("[s]\nk=v\n");
  back_end.store->OnWrite([] { throw bramble::ErrnoException(28, "store"); });
  test_platform::ExpectErrno(28, "store: No space left on device (28)",
                             [&] { back_end->WriteJson(R"({"s":{"k":"w"},"t":{"k":"x"}})"); });
  EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"w"},"t":{"k":"x"}})");
  EXPECT_THAT(back_end.store->Writes(), testing::IsEmpty());
  back_end.store->OnWrite([] { throw 42; });
  EXPECT_THROW(back_end->WriteJson("{}"), int);
  back_end.store->OnWrite(nullptr);
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=w\n[t]\nk=x\n");
}

}  // namespace
