// The registry in memory. After each change it passes the whole text to the lazy store, which writes it to the file
// later.
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

/// Thread-safe. Every operation except Flush and the merge of WriteJson holds the registry's recursive lock from
/// beginning to end. The lock of the lazy store is taken while that lock is held.
///
/// The capacity rule: a change is made in memory, and the size of the whole text is checked. If it exceeds the capacity
/// of the store, the back end reloads the last accepted text and throws Full. A change that fails for another reason
/// (the store failed, or there was not enough memory) is undone in the same way, and its exception is thrown.
class RegistryBackEnd : public Registry {
public:
  /// Loads the registry from `store` and keeps a shared pointer to it. From then on it writes to `store` 60 s after the
  /// first unwritten change. Throws the exceptions of the load. An import calls `is_stop_requested` many times a
  /// second, and ends with WorkStopped when that function returns true. Without the function, an import is never
  /// stopped.
  explicit RegistryBackEnd(std::shared_ptr<PersistentStore> store, std::function<bool()> is_stop_requested = nullptr);

  /// Writes pending changes. A failure ends the process.
  ~RegistryBackEnd() override;

  std::string ReadAllJson() override;

  /// The merge itself takes no lock, because only one thread, the dispatcher's, makes changes. Throws WorkStopped; the
  /// registry is then unchanged.
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

  /// Returns a copy of the section, or an empty section if it does not exist. Throws InvalidName.
  RegistrySection KeyList(const std::string& section);

  /// Takes only the lock of the lazy store. Throws the exceptions of the store; the text is then still pending.
  void Flush() override;

private:
  static void ValidateJson(const JsonDocument& document, StopCheck& stop);

  // Returns the table for an operation. If a failed change has not been undone yet, undoes it first; throws
  // std::bad_alloc if there is not enough memory.
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
  bool m_must_reload = false;  // guarded by m_lock; m_table contains a change that failed
};
