// The JSON operations of the registry: export, and the validated merge of a JSON text.
#include <algorithm>
#include <boost/thread/lock_guard.hpp>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/lazy_persistent_store.h"
#include "registry/json_document.h"
#include "registry/json_printer.h"
#include "registry/name_rules.h"
#include "registry/registry_back_end.h"

namespace {

bool IsBad(const JsonMember& member) { return !member.is_ascii || member.kind == JsonMember::Kind::Refused; }

// Returns the member whose name, as written, is first in byte order. Returns `b` if `a` is null.
const JsonMember* FirstByName(const JsonDocument& document, const JsonMember* a, const JsonMember& b) {
  return a == nullptr || document.NameOf(b) < document.NameOf(*a) ? &b : a;
}

const JsonMember* FirstBadKey(const JsonDocument& document, const JsonMember& section, StopCheck& stop) {
  const JsonMember* first = nullptr;
  for (const JsonMember& key : document.KeysOf(section)) {
    stop.Step();
    first = IsBad(key) ? FirstByName(document, first, key) : first;
  }
  return first;
}

bool SetsKey(const JsonMember& key) { return key.kind == JsonMember::Kind::Accepted; }

// The keys of several sections as one sequence. It needs little memory, because there can be millions of keys.
class KeySequence {
public:
  KeySequence(const JsonDocument& document, JsonDocument::Range sections) {
    for (const JsonMember& section : sections) {
      const JsonDocument::Range keys = document.KeysOf(section);
      if (keys.begin() != keys.end()) {
        m_parts.push_back({m_size, keys.begin()});
        m_size += static_cast<std::size_t>(keys.end() - keys.begin());
      }
    }
  }

  std::size_t Size() const { return m_size; }

  const JsonMember& At(std::size_t index) const {
    const auto next = std::upper_bound(m_parts.begin(), m_parts.end(), index,
                                       [](std::size_t wanted, const Part& part) { return wanted < part.start; });
    const Part& part = *std::prev(next);
    return part.first_key[index - part.start];
  }

private:
  struct Part {
    std::size_t start;  // how many keys there are before
    const JsonMember* first_key;
  };

  std::vector<Part> m_parts;
  std::size_t m_size = 0;
};

// Calls `visit` for each key, in ascending order, with the last of the members that refer to it.
template <typename Visit>
void ForEachLastKey(const JsonDocument& document, JsonDocument::Range sections, StopCheck& stop, Visit visit) {
  if (sections.end() - sections.begin() == 1) {
    for (const JsonMember& key : document.KeysOf(*sections.begin())) {
      stop.Step();
      if (key.is_last_of_name) {
        visit(key);
      }
    }
    return;
  }
  const KeySequence keys(document, sections);
  std::vector<JsonMember> sorted;
  sorted.reserve(keys.Size());
  for (const JsonMember& section : sections) {
    for (const JsonMember& key : document.KeysOf(section)) {
      stop.Step();
      const std::size_t index = sorted.size();
      sorted.push_back(key);
      sorted.back().number = static_cast<std::uint32_t>(index) & JsonMember::kGreatestNumber;
    }
  }
  document.SortByFoldedName(sorted, stop);
  std::size_t last = 0;
  for (const JsonMember& key : sorted) {
    stop.Step();
    last = std::max<std::size_t>(last, key.number);
    if (key.is_last_of_name) {
      visit(keys.At(last));
      last = 0;
    }
  }
}

}  // namespace

std::string RegistryBackEnd::ReadAllJson() {
  const boost::lock_guard<boost::recursive_mutex> guard(m_lock);
  return PrintJson(Sections());
}

void RegistryBackEnd::WriteJson(const std::string& registry) {
  ImportJson(registry);
  Save();
  // An import always flushes, even if its text names nothing.
  Flush();
}

// The parsed document can be large, so it is destroyed before the registry is saved.
void RegistryBackEnd::ImportJson(const std::string& registry) {
  StopCheck stop(m_is_stop_requested);
  const JsonDocument document = JsonDocument::Parse(registry, stop);
  if (!document.IsObject()) {
    throw InvalidJson(registry);
  }
  ValidateJson(document, stop);
  try {
    MergeJson(document, stop);
  } catch (...) {
    RollBack();
    throw;
  }
}

// Throws for the first invalid entry in ascending order of the names as written. Does not change the registry.
void RegistryBackEnd::ValidateJson(const JsonDocument& document, StopCheck& stop) {
  const JsonMember* first = nullptr;
  for (const JsonMember& section : document.Sections()) {
    stop.Step();
    const auto keys = document.KeysOf(section);
    if (IsBad(section) || std::any_of(keys.begin(), keys.end(), IsBad)) {
      first = FirstByName(document, first, section);
    }
  }
  if (first == nullptr) {
    return;
  }
  const JsonMember* const bad = IsBad(*first) ? first : FirstBadKey(document, *first, stop);
  BRAMBLE_ASSERT(bad != nullptr);
  FoldName(std::string(document.NameOf(*bad)));
  throw InvalidJson(document.ValueOf(*bad, stop));
}

// A document can contain far more than fits into the registry. Once the entries that are certain to be kept are too
// long, the registry is full, and the rest is not read.
void RegistryBackEnd::MergeJson(const JsonDocument& document, StopCheck& stop) {
  std::size_t room = m_store->Capacity();
  const JsonMember* const end = document.Sections().data() + document.Sections().size();
  for (const JsonMember* section = document.Sections().data(); section != end;) {
    const JsonMember* const first = section;
    while (!section++->is_last_of_name) {
    }
    room -= MergeJsonSections(document, {first, section}, room, stop);
  }
}

// Merges members that refer to the same section, because their names differ only in case, one after another. Returns
// the minimum number of bytes that they add to the text of the registry. Throws Full if that exceeds `room`.
std::size_t RegistryBackEnd::MergeJsonSections(const JsonDocument& document, JsonDocument::Range variants,
                                               std::size_t room, StopCheck& stop) {
  RegistryTable& table = Table();
  const std::string name = FoldName(std::string(document.NameOf(*variants.begin())));
  bool sets_key = false;
  for (const JsonMember& section : variants) {
    stop.Step();
    if (section.kind == JsonDocument::Kind::Null) {
      table.EraseSection(name);
      variants = {&section + 1, variants.end()};
      sets_key = false;
    } else {
      const auto keys = document.KeysOf(section);
      sets_key = sets_key || std::any_of(keys.begin(), keys.end(), SetsKey);
    }
  }

  std::size_t size = 0;
  const auto take = [&](std::size_t bytes) {
    size += bytes;
    if (size > room) {
      throw Full();
    }
  };
  // Created even if a later member deletes the key again.
  if (sets_key) {
    take(name.size() + std::strlen("[]\n"));
    table.AddSection(name);
  }
  const auto section = table.Sections().find(name);
  if (section == table.Sections().end()) {
    return size;
  }
  ForEachLastKey(document, variants, stop, [&](const JsonMember& key) {
    const std::string key_name = FoldName(std::string(document.NameOf(key)));
    if (SetsKey(key)) {
      take(key_name.size() + JsonDocument::SizeOf(key) + std::strlen("\n"));
      table.SetKey(name, key_name, document.ValueOf(key, stop));
    } else if (section->second.count(key_name) != 0) {
      table.EraseKey(name, key_name);
    }
  });
  return size;
}
