#include "registry/registry_back_end.h"

#include <boost/thread/lock_guard.hpp>
#include <cstdint>
#include <utility>

#include "lib/platform/lazy_persistent_store.h"
#include "registry/name_rules.h"

namespace {

using Guard = boost::lock_guard<boost::recursive_mutex>;

constexpr std::uint32_t kFlushDelayMilliseconds = 60000;

}  // namespace

RegistryBackEnd::RegistryBackEnd(std::shared_ptr<PersistentStore> store, std::function<bool()> is_stop_requested)
    : m_store(std::make_shared<LazyPersistentStore>(std::move(store), kFlushDelayMilliseconds)),
      m_is_stop_requested(std::move(is_stop_requested)) {
  Load();
}

RegistryBackEnd::~RegistryBackEnd() = default;

std::string RegistryBackEnd::Read(const std::string& section, const std::string& key) {
  const Guard guard(m_lock);
  const RegistrySections& sections = Sections();
  const auto found = sections.find(FoldName(section));
  if (found == sections.end()) {
    return std::string();
  }
  const auto value = found->second.find(FoldName(key));
  return value == found->second.end() ? std::string() : value->second;
}

void RegistryBackEnd::Write(const std::string& section, const std::string& key, const std::string& value) {
  const Guard guard(m_lock);
  try {
    // The section is created before the key is checked; see the quirk in Registry::Write.
    const std::string folded_section = FoldName(section);
    Table().AddSection(folded_section);
    Table().SetKey(folded_section, FoldName(key), value);
  } catch (const InvalidName&) {
    throw;
  } catch (...) {
    RollBack();
    throw;
  }
  Save();
}

bool RegistryBackEnd::KeyExists(const std::string& section, const std::string& key) {
  const Guard guard(m_lock);
  const RegistrySections& sections = Sections();
  const auto found = sections.find(FoldName(section));
  return found != sections.end() && found->second.count(FoldName(key)) != 0;
}

bool RegistryBackEnd::SectionExists(const std::string& section) {
  const Guard guard(m_lock);
  return Sections().count(FoldName(section)) != 0;
}

void RegistryBackEnd::DeleteKey(const std::string& section, const std::string& key) {
  const Guard guard(m_lock);
  const std::string folded_section = FoldName(section);
  if (Sections().count(folded_section) != 0 && Table().EraseKey(folded_section, FoldName(key))) {
    Save();
  }
}

void RegistryBackEnd::DeleteSection(const std::string& section) {
  const Guard guard(m_lock);
  if (Table().EraseSection(FoldName(section))) {
    Save();
  }
}

void RegistryBackEnd::DeleteAll() {
  const Guard guard(m_lock);
  Table() = RegistryTable();
  Save();
}

void RegistryBackEnd::SectionList(const SectionCallback& callback) {
  const Guard guard(m_lock);
  for (const auto& section : Sections()) {
    callback(section.first);
  }
}

void RegistryBackEnd::KeyList(const std::string& section, const KeyCallback& callback) {
  const Guard guard(m_lock);
  const RegistrySections& sections = Sections();
  const auto found = sections.find(FoldName(section));
  if (found == sections.end()) {
    return;
  }
  for (const auto& [key, value] : found->second) {
    callback(key, value);
  }
}

RegistrySection RegistryBackEnd::KeyList(const std::string& section) {
  const Guard guard(m_lock);
  const RegistrySections& sections = Sections();
  const auto found = sections.find(FoldName(section));
  return found == sections.end() ? RegistrySection() : found->second;
}

void RegistryBackEnd::Flush() { m_store->Flush(); }

RegistryTable& RegistryBackEnd::Table() {
  if (m_must_reload) {
    Load();
  }
  return m_table;
}

const RegistrySections& RegistryBackEnd::Sections() { return Table().Sections(); }

void RegistryBackEnd::Load() {
  const Guard guard(m_lock);
  m_table = RegistryTable(ParseRegistry(m_store->Read()));
  m_must_reload = false;
}

void RegistryBackEnd::Save() {
  const Guard guard(m_lock);
  try {
    m_store->Write(Table().Text());
  } catch (const PersistentStore::Full&) {
    RollBack();
    throw Full();
  } catch (...) {
    RollBack();
    throw;
  }
}

// If memory is short, the reload can fail too. The next operation then reloads before it uses the table.
void RegistryBackEnd::RollBack() noexcept {
  const Guard guard(m_lock);
  try {
    Load();
  } catch (...) {
    m_must_reload = true;
  }
}
