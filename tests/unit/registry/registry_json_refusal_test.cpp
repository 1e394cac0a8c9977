// The imports that are refused, which must change nothing; and the one failure that leaves the merge standing.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "lib/platform/errno_exception.h"
#include "tests/unit/registry/back_end_fixture.h"

namespace {

// The kind and the text of what the import throws.
std::string FailureOf(BackEnd& back_end, const std::string& json) {
  try {
    back_end->WriteJson(json);
  } catch (const Registry::InvalidJson& e) {
    EXPECT_EQ(e.what(), "Invalid JSON format:" + e.Detail());
    return std::string("InvalidJson ") + e.what();
  } catch (const Registry::InvalidName& e) {
    EXPECT_EQ(e.what(), "Invalid name: " + e.Name());
    return std::string("InvalidName ") + e.what();
  } catch (const Registry::Full& e) {
    return std::string("Full ") + e.what();
  } catch (const std::runtime_error& e) {
    return std::string("runtime_error ") + e.what();
  }
  return "no exception";
}

void ExpectNothingChanged(BackEnd& back_end, const std::string& json_before) {
  EXPECT_EQ(back_end->ReadAllJson(), json_before);
  back_end->Flush();
  EXPECT_TRUE(back_end.store->Writes().empty());
}

TEST(WriteJsonRefusal, NamesTheFirstBadEntryAndChangesNothing) {
  const struct {
    const char* name;
    std::string json;
    std::string failure;
  } rows[] = {
      {"an empty array", "[]", "InvalidJson Invalid JSON format:[]"},
      {"an array", "[1,2]", "InvalidJson Invalid JSON format:[1,2]"},
      {"a bare string", R"("s")", R"(InvalidJson Invalid JSON format:"s")"},
      {"a number", "5", "InvalidJson Invalid JSON format:5"},
      {"true", "true", "InvalidJson Invalid JSON format:true"},
      {"null", "null", "InvalidJson Invalid JSON format:null"},
      {"a text that is no object, as it was given", " [ 1, {\"b\":2,\"a\":1} ]\n",
       "InvalidJson Invalid JSON format: [ 1, {\"b\":2,\"a\":1} ]\n"},
      {"a number that no double holds", "1e400", "InvalidJson Invalid JSON format:1e400"},
      {"a section that is a number", R"({"s":5})", "InvalidJson Invalid JSON format:5"},
      {"a section that is a boolean", R"({"s":false})", "InvalidJson Invalid JSON format:false"},
      {"a section that is a string", R"({"s":"a\"b"})", R"(InvalidJson Invalid JSON format:"a\"b")"},
      {"a section that is an array", R"({"s":[ 1, 2 ]})", "InvalidJson Invalid JSON format:[1,2]"},
      {"a key that is a number", R"({"s":{"k":1}})", "InvalidJson Invalid JSON format:1"},
      {"a key that is a boolean", R"({"s":{"k":true}})", "InvalidJson Invalid JSON format:true"},
      {"a key that is an array", R"({"s":{"k":["v"]}})", R"(InvalidJson Invalid JSON format:["v"])"},
      {"a key that is an object", R"({"s":{"k":{"z": 1, "a": {}}}})",
       R"(InvalidJson Invalid JSON format:{"a":{},"z":1})"},
      {"a key that is an empty object", R"({"s":{"k":{}}})", "InvalidJson Invalid JSON format:{}"},
      {"a bad section behind a good one", R"({"a":{"k":"v"},"b":5})", "InvalidJson Invalid JSON format:5"},
      {"a bad section before a good one", R"({"a":5,"b":{"k":"v"}})", "InvalidJson Invalid JSON format:5"},
      {"a bad key behind deletions", R"({"a":null,"s":{"j":null,"k":"v","z":7}})", "InvalidJson Invalid JSON format:7"},
      {"a bad section name", "{\"S\xC3\xA9\":{\"k\":\"v\"}}", "InvalidName Invalid name: S\xC3\xA9"},
      {"a bad section name by its escape", R"({"S\u0080":{"k":"v"}})", "InvalidName Invalid name: S\xC2\x80"},
      {"a bad section name of a deletion", "{\"\xC3\xA9\":null}", "InvalidName Invalid name: \xC3\xA9"},
      {"a bad section name of an empty object", "{\"\xC3\xA9\":{}}", "InvalidName Invalid name: \xC3\xA9"},
      {"a bad key name", "{\"s\":{\"K\xC3\xA9\":\"v\"}}", "InvalidName Invalid name: K\xC3\xA9"},
      {"a bad key name of a deletion", "{\"s\":{\"\xC3\xA9\":null}}", "InvalidName Invalid name: \xC3\xA9"},
      {"a bad key name in a new section", "{\"new\":{\"\xC3\xA9\":\"v\"}}", "InvalidName Invalid name: \xC3\xA9"},
      {"a bad section name before its bad value", "{\"\xC3\xA9\":5}", "InvalidName Invalid name: \xC3\xA9"},
      {"a bad key name before its bad value", "{\"s\":{\"\xC3\xA9\":5}}", "InvalidName Invalid name: \xC3\xA9"},
      {"the first section by name, not by place", R"({"b":1,"a":2})", "InvalidJson Invalid JSON format:2"},
      {"the first key by name, not by place", R"({"s":{"b":1,"a":2}})", "InvalidJson Invalid JSON format:2"},
      {"capitals before small letters", R"({"a":1,"B":2})", "InvalidJson Invalid JSON format:2"},
      {"a bad value before a bad name that sorts later", "{\"\xC3\xA9\":{},\"a\":2}",
       "InvalidJson Invalid JSON format:2"},
      {"a key of the first section before the second section", R"({"b":1,"a":{"k":2}})",
       "InvalidJson Invalid JSON format:2"},
      {"a key name of the first section before the second section", "{\"b\":1,\"a\":{\"\xC3\xA9\":2}}",
       "InvalidName Invalid name: \xC3\xA9"},
      {"a bad name of a deletion before a bad value", "{\"\xC3\xAA\":5,\"\xC3\xA9\":null}",
       "InvalidName Invalid name: \xC3\xA9"},
      {"the last of equal names", R"({"s":{"k":"v"},"s":3})", "InvalidJson Invalid JSON format:3"},
      {"a number that no double holds behind a bad name", "{\"s\":{\"\xC3\xA9\":\"v\"},\"t\":1e400}",
       "InvalidName Invalid name: \xC3\xA9"},
      {"a bad name behind a number that no double holds, which sorts first", "{\"b\":1e400,\"a\":{\"\xC3\xA9\":\"v\"}}",
       "InvalidName Invalid name: \xC3\xA9"},
      {"another number before one that no double holds", R"({"a":123456,"b":1e400})",
       "InvalidJson Invalid JSON format:123456"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[a]\nk=old\n[s]\nj=1\nk=2\n");
    EXPECT_EQ(FailureOf(back_end, row.json), row.failure);
    ExpectNothingChanged(back_end, R"({"a":{"k":"old"},"s":{"j":"1","k":"2"}})");
  }
}

TEST(WriteJsonRefusal, RefusesNumbersThatNoDoubleHolds) {
  const std::string digits(400, '9');
  for (const std::string& number : {std::string("1e400"), std::string("-1e400"), digits, "-" + digits}) {
    for (const std::string& json : {R"({"s":)" + number + "}", R"({"s":{"k":)" + number + "}}",
                                    R"({"a":{"k":"v"},"s":{"k":[)" + number + R"(],"z":"v"}})"}) {
      SCOPED_TRACE(json);
      BackEnd back_end("[s]\nk=v\n");
      EXPECT_EQ(FailureOf(back_end, json).find("InvalidJson Invalid JSON format:"), 0U);
      ExpectNothingChanged(back_end, R"({"s":{"k":"v"}})");
    }
  }
}

TEST(WriteJsonRefusal, PassesOnASyntaxErrorAndChangesNothing) {
  for (const char* json : {"", "{", "{\"s\":null", "{\"s\":null}}", "{\"s\":{\"k\":\"\xFF\"}}", "{\"s\":1e400,}"}) {
    SCOPED_TRACE(json);
    BackEnd back_end("[s]\nk=v\n");
    EXPECT_EQ(FailureOf(back_end, json).find("runtime_error parse error - unexpected "), 0U);
    ExpectNothingChanged(back_end, R"({"s":{"k":"v"}})");
  }
}

TEST(WriteJsonRefusal, KeepsAStraySectionOfARefusedWrite) {
  BackEnd back_end;
  EXPECT_THROW(back_end->Write("stray", "\x80", "v"), Registry::InvalidName);
  for (const char* json : {"[]", "{", R"({"s":5})", R"({"a":{"k":"v"},"s":{"k":5}})", "{\"\xC3\xA9\":null}"}) {
    SCOPED_TRACE(json);
    EXPECT_NE(FailureOf(back_end, json), "no exception");
    ExpectNothingChanged(back_end, R"({"stray":{}})");
  }
}

TEST(WriteJsonRefusal, KeepsAPendingChangePending) {
  BackEnd back_end;
  back_end->Write("s", "k", "v");
  EXPECT_EQ(FailureOf(back_end, R"({"s":null,"t":0})"), "InvalidJson Invalid JSON format:0");
  EXPECT_TRUE(back_end.store->Writes().empty());
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=v\n");
}

TEST(WriteJsonFailure, LeavesTheMergeStandingWhenTheFlushFails) {
  BackEnd back_end("[s]\nk=v\n");
  back_end.store->OnWrite([] { throw bramble::ErrnoException(28, "store"); });
  try {
    back_end->WriteJson(R"({"s":{"k":"w"},"t":{"k":"x"}})");
    ADD_FAILURE() << "no exception";
  } catch (const bramble::ErrnoException& e) {
    EXPECT_EQ(e.ErrorNumber(), 28);
  }
  EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"w"},"t":{"k":"x"}})");
  EXPECT_TRUE(back_end.store->Writes().empty());
  back_end.store->OnWrite([] { throw 42; });
  EXPECT_THROW(back_end->WriteJson("{}"), int);
  back_end.store->OnWrite(nullptr);
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=w\n[t]\nk=x\n");
}

}  // namespace
