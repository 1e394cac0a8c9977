// The registry in memory, written out as a whole after every change.
#pragma once

#include <boost/thread/recursive_mutex.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "registry/json_document.h"
#include "registry/registry.h"
#include "registry/registry_format.h"
#include "registry/registry_table.h"
#include "registry/stop_check.h"

class LazyPersistentStore;
class PersistentStore;

/// Every operation but Flush and WriteJson's merge takes the registry's recursive lock for its whole duration; the lazy
/// store's lock is taken inside it. The capacity rule: a change is made in memory, the whole text is measured, and a
/// text longer than the store's capacity is refused by loading the last accepted text again. A change that fails for
/// another reason, be it the store's or a lack of memory, is undone the same way and the exception passes on.
class RegistryBackEnd : public Registry {
public:
  /// Loads the registry from `store`, which is shared and from now on written 60 s after the first unwritten change.
  /// Passes on what the load throws. An import asks `is_stop_requested` many times a second whether to give up; without
  /// that function it never gives up.
  explicit RegistryBackEnd(std::shared_ptr<PersistentStore> store, std::function<bool()> is_stop_requested = nullptr);

  /// Writes out what is not written yet; a failure there ends the process.
  ~RegistryBackEnd() override;

  std::string ReadAllJson() override;

  /// Takes no lock for the merge itself: changes come from one thread only, the dispatcher's. Throws WorkStopped, and
  /// nothing has then changed.
  void WriteJson(const std::string& registry) override;

  std::string Read(const std::string& section, const std::string& key) override;
  void Write(const std::string& section, const std::string& key, const std::string& value) override;
  bool KeyExists(const std::string& section, const std::string& key) override;
  bool SectionExists(const std::string& section) override;
  void DeleteKey(const std::string& section, const std::string& key) override;
  void DeleteSection(const std::string& section) override;
  void DeleteAll() override;
  void SectionList(const SectionCallback& callback) override;
  void KeyList(const std::string& section, const KeyCallback& callback) override;

  /// A copy of the section; a missing one is empty. Throws InvalidName.
  RegistrySection KeyList(const std::string& section);

  /// Takes the lazy store's lock only. Throws what the store's file replacement throws; the text then stays pending.
  void Flush() override;

private:
  static std::string NormaliseName(const std::string& name);
  static void ValidateJson(const JsonDocument& document, StopCheck& stop);

  // The table that every operation works on. Throws std::bad_alloc if a failed change is still to be undone and there
  // is not the memory to do it.
  RegistryTable& Table();
  const RegistrySections& Sections();

  void Load();
  void Save();
  void RollBack() noexcept;
  void ImportJson(const std::string& registry);
  void MergeJson(const JsonDocument& document, StopCheck& stop);
  std::size_t MergeJsonSections(const JsonDocument& document, JsonDocument::Range variants, std::size_t room,
                                StopCheck& stop);

  boost::recursive_mutex m_lock;
  const std::shared_ptr<LazyPersistentStore> m_store;
  const std::function<bool()> m_is_stop_requested;
  RegistryTable m_table;       // guarded by m_lock
  bool m_must_reload = false;  // guarded by m_lock; m_table holds a change that failed
};
