#include "fuzz/support/back_end.h"

#include <functional>
#include <map>
#include <stdexcept>

namespace fuzz {
namespace {

using Arguments = std::vector<std::string>;

model::Reply Boolean(bool value) { return {"b", {value ? "true" : "false"}}; }

model::Reply SectionList(Registry& registry) {
  model::Reply reply{"as", {}};
  registry.SectionList([&](const std::string& name) { reply.items.push_back(name); });
  return reply;
}

model::Reply KeyList(Registry& registry, const std::string& section) {
  model::Reply reply{"a{ss}", {}};
  registry.KeyList(section, [&](const std::string& key, const std::string& value) {
    reply.items.insert(reply.items.end(), {key, value});
  });
  return reply;
}

template <typename Call>
model::Reply Silent(Call call) {
  call();
  return {};
}

using Method = model::Reply (*)(Registry&, const Arguments&);

const std::map<std::string, Method> kCalls = {
    {"Read",
     [](Registry& r, const Arguments& a) {
       return model::Reply{"s", {r.Read(a[0], a[1])}};
     }},
    {"Write", [](Registry& r, const Arguments& a) { return Silent([&] { r.Write(a[0], a[1], a[2]); }); }},
    {"DeleteKey", [](Registry& r, const Arguments& a) { return Silent([&] { r.DeleteKey(a[0], a[1]); }); }},
    {"DeleteSection", [](Registry& r, const Arguments& a) { return Silent([&] { r.DeleteSection(a[0]); }); }},
    {"DeleteAll", [](Registry& r, const Arguments&) { return Silent([&] { r.DeleteAll(); }); }},
    {"Flush", [](Registry& r, const Arguments&) { return Silent([&] { r.Flush(); }); }},
    {"KeyExists", [](Registry& r, const Arguments& a) { return Boolean(r.KeyExists(a[0], a[1])); }},
    {"SectionExists", [](Registry& r, const Arguments& a) { return Boolean(r.SectionExists(a[0])); }},
    {"SectionList", [](Registry& r, const Arguments&) { return SectionList(r); }},
    {"KeyList", [](Registry& r, const Arguments& a) { return KeyList(r, a[0]); }},
    {"ReadAllJson",
     [](Registry& r, const Arguments&) {
       return model::Reply{"s", {r.ReadAllJson()}};
     }},
    {"WriteJson", [](Registry& r, const Arguments& a) { return Silent([&] { r.WriteJson(a[0]); }); }},
};

}  // namespace

std::optional<model::Call> TakeCall(Input& input) {
  while (!input.AtEnd()) {
    model::Call call{input.TakeField(), {}};
    if (const auto method = model::kMethods.find(call.member); method != model::kMethods.end()) {
      while (call.arguments.size() < method->second) {
        call.arguments.push_back(input.TakeField());
      }
      return call;
    }
  }
  return std::nullopt;
}

model::Reply Reply(Registry& registry, const model::Call& call) {
  try {
    return kCalls.at(call.member)(registry, call.arguments);
  } catch (const Registry::InvalidName& e) {
    return model::RegistryError({"InvalidName", "Invalid Name", e.Name()});
  } catch (const Registry::InvalidJson&) {
    return model::RegistryError({"InvalidJson", "Invalid Json"});
  } catch (const Registry::Full&) {
    return model::RegistryError({"Full", "Full"});
  } catch (const std::runtime_error& e) {
    return model::RegistryError({"Exception", e.what()});
  }
}

void RequireSameReply(Registry& registry, model::RegistryModel& model, const model::Call& call) {
  RequireExpected(Reply(registry, call), model.Apply(call), call.member);
}

void RequireSameContents(Registry& registry, model::RegistryModel& model) {
  for (const model::Call& call : model.CallsForContents()) {
    RequireSameReply(registry, model, call);
  }
}

}  // namespace fuzz
