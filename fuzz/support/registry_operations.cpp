#include "fuzz/support/registry_operations.h"

#include <cstddef>
#include <stdexcept>

namespace fuzz {
namespace {

using Arguments = std::vector<std::string>;

struct Method {
  const char* name;
  std::size_t arguments;
  std::string (*call)(Registry&, const Arguments&);
};

std::string SectionList(Registry& registry) {
  std::string names;
  registry.SectionList([&](const std::string& name) { names += name + '\n'; });
  return names;
}

std::string KeyList(Registry& registry, const std::string& section) {
  std::string keys;
  registry.KeyList(section,
                   [&](const std::string& key, const std::string& value) { keys += key + '=' + value + '\n'; });
  return keys;
}

template <typename Call>
std::string Silent(Call call) {
  call();
  return "done";
}

const Method kMethods[] = {
    {"Read", 2, [](Registry& r, const Arguments& a) { return r.Read(a[0], a[1]); }},
    {"Write", 3, [](Registry& r, const Arguments& a) { return Silent([&] { r.Write(a[0], a[1], a[2]); }); }},
    {"DeleteKey", 2, [](Registry& r, const Arguments& a) { return Silent([&] { r.DeleteKey(a[0], a[1]); }); }},
    {"DeleteSection", 1, [](Registry& r, const Arguments& a) { return Silent([&] { r.DeleteSection(a[0]); }); }},
    {"DeleteAll", 0, [](Registry& r, const Arguments&) { return Silent([&] { r.DeleteAll(); }); }},
    {"Flush", 0, [](Registry& r, const Arguments&) { return Silent([&] { r.Flush(); }); }},
    {"KeyExists", 2,
     [](Registry& r, const Arguments& a) { return std::string(r.KeyExists(a[0], a[1]) ? "true" : "false"); }},
    {"SectionExists", 1,
     [](Registry& r, const Arguments& a) { return std::string(r.SectionExists(a[0]) ? "true" : "false"); }},
    {"SectionList", 0, [](Registry& r, const Arguments&) { return SectionList(r); }},
    {"KeyList", 1, [](Registry& r, const Arguments& a) { return KeyList(r, a[0]); }},
    {"ReadAllJson", 0, [](Registry& r, const Arguments&) { return r.ReadAllJson(); }},
    {"WriteJson", 1, [](Registry& r, const Arguments& a) { return Silent([&] { r.WriteJson(a[0]); }); }},
};

const Method* Find(const std::string& name) {
  for (const Method& method : kMethods) {
    if (name == method.name) {
      return &method;
    }
  }
  return nullptr;
}

bool BeginsWith(const std::string& text, const char* beginning) { return text.rfind(beginning, 0) == 0; }

}  // namespace

std::optional<std::size_t> ArgumentCount(const std::string& method) {
  const Method* const found = Find(method);
  return found == nullptr ? std::nullopt : std::optional<std::size_t>(found->arguments);
}

std::optional<Operation> TakeOperation(Input& input) {
  while (!input.AtEnd()) {
    Operation operation{input.TakeField(), {}};
    if (const Method* const method = Find(operation.name)) {
      for (std::size_t i = 0; i < method->arguments; ++i) {
        operation.arguments.push_back(input.TakeField());
      }
      return operation;
    }
  }
  return std::nullopt;
}

std::string Outcome(Registry& registry, const Operation& operation) {
  try {
    return "returns " + Find(operation.name)->call(registry, operation.arguments);
  } catch (const Registry::InvalidName& e) {
    return "throws InvalidName " + e.Name();
  } catch (const Registry::InvalidJson&) {
    return "throws InvalidJson";
  } catch (const Registry::Full&) {
    return "throws Full";
  } catch (const std::runtime_error& e) {
    for (const char* const beginning : {"parse error - unexpected ", "No JSON: "}) {
      if (BeginsWith(e.what(), beginning)) {
        return std::string("throws ") + beginning;
      }
    }
    throw;
  }
}

std::string Contents(Registry& registry) {
  std::string contents;
  registry.SectionList([&](const std::string& section) {
    contents += section + ": " + Outcome(registry, {"KeyList", {section}}) + "\n";
  });
  return contents + Outcome(registry, {"ReadAllJson", {}});
}

}  // namespace fuzz
