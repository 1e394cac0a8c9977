#include "tests/load/generator.h"

#include <iterator>

#include "tests/model/json.h"

namespace {

using model::Call;

constexpr std::size_t kSections = 6;
constexpr std::size_t kKeys = 8;

const std::string kPieces[] = {"a",  "B",  "7",    " ",  "=",  "%",      "%41",        "[", "]",
                               "\"", "\\", "\r\n", "\t", "{}", "\u00e9", "\U0001f3b5", ",", ":"};

// The kinds of calls and their shares in percent.
const struct {
  const char* member;
  std::size_t share;
} kKinds[] = {{"Read", 20},       {"Write", 25},        {"DeleteKey", 7},   {"DeleteSection", 2},
              {"KeyExists", 8},   {"SectionExists", 6}, {"SectionList", 4}, {"KeyList", 8},
              {"ReadAllJson", 3}, {"WriteJson", 6},     {"Flush", 4},       {"failure", 7}};

struct Generator {
  std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(source() % limit); }

  std::string Name(std::string lower) {
    if (Below(4) == 0) {
      lower[0] = static_cast<char>(lower[0] - 'a' + 'A');
    }
    return lower;
  }

  std::string SectionName() { return Name(prefix + static_cast<char>('a' + Below(kSections))); }

  std::string KeyName() {
    return Name(std::string("k") + (Below(6) == 0 ? "=%] " : "") + static_cast<char>('0' + Below(kKeys)));
  }

  std::string Value() {
    std::string value;
    for (std::size_t count = Below(12); count > 0; --count) {
      value += kPieces[Below(std::size(kPieces))];
    }
    return value + std::string(Below(10) == 0 ? Below(200) : 0, 'x');
  }

  Call Write(std::size_t room) {
    const Call call{"Write", {SectionName(), KeyName(), Value()}};
    const std::size_t size = model::Serialise({{call.arguments[0], {{call.arguments[1], call.arguments[2]}}}}).size();
    return size <= room ? call : Call{"DeleteSection", {SectionName()}};
  }

  Call WriteJson(std::size_t room) {
    std::string json;
    std::size_t size = 0;
    for (std::size_t sections = Below(3); sections > 0; --sections) {
      const std::string section = SectionName();
      std::string members;
      for (std::size_t keys = Below(4); keys > 0; --keys) {
        const std::string key = KeyName(), value = Value();
        members += (members.empty() ? "" : ",") + model::Quote(key) + ":";
        members += Below(4) == 0 ? "null" : model::Quote(value);
        size += model::Serialise({{section, {{key, value}}}}).size();
      }
      json += (json.empty() ? "" : ",") + model::Quote(section) + ":";
      json += Below(6) == 0 ? "null" : "{" + members + "}";
    }
    return size <= room ? Call{"WriteJson", {"{" + json + "}"}} : Call{"DeleteSection", {SectionName()}};
  }

  Call Failure() {
    const std::string invalid = prefix + "\u00e9";
    const std::string too_long(model::kCapacity + Below(3000), 'x');
    const std::string json = "{\"" + prefix + "a\":{\"k\":";
    const Call failures[] = {
        {"Read", {invalid, "k"}},
        // Not Write with an invalid key: it would create the section, which exists until a call of any client is
        // refused as too large.
        {"Write", {invalid, "k", "v"}},
        {"DeleteKey", {invalid, "k"}},
        {"DeleteSection", {invalid}},
        {"KeyExists", {invalid, "k"}},
        {"SectionExists", {invalid}},
        {"KeyList", {invalid}},
        {"WriteJson", {"{\"" + invalid + "\":{}}"}},
        {"WriteJson", {"[]"}},
        {"WriteJson", {json + "1}}"}},
        {"WriteJson", {json + "\"v\""}},
        {"WriteJson", {json + "\"" + too_long + "\"}}"}},
        {"Write", {SectionName(), "k", too_long}},
        {"Read", {SectionName()}},
        {"Write", {}},
        {"Rename", {SectionName()}},
    };
    return failures[Below(std::size(failures))];
  }

  std::mt19937_64& source;
  const std::string& prefix;
};

}  // namespace

model::Call RandomCall(std::mt19937_64& source, const std::string& prefix, std::size_t room) {
  Generator random{source, prefix};
  std::size_t kind = 0;
  for (std::size_t rest = random.Below(100); rest >= kKinds[kind].share; ++kind) {
    rest -= kKinds[kind].share;
  }
  const std::string member = kKinds[kind].member;
  if (member == "Write") {
    return random.Write(room);
  }
  if (member == "WriteJson") {
    return random.WriteJson(room);
  }
  if (member == "failure") {
    return random.Failure();
  }
  Call call{member, {random.SectionName(), random.KeyName()}};
  call.arguments.resize(model::kMethods.at(member));
  return call;
}
