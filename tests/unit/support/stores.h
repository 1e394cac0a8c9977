// A persistent store for tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lib/platform/persistent_store.h"

namespace test_support {

/// Records every text that is written and counts the reads. It takes no lock: the lock of the lazy store serialises the
/// calls. A test may therefore look at it only while no flush can run, or after a call that took that lock.
class RecordingStore : public PersistentStore {
public:
  explicit RecordingStore(std::string text = "", std::uint32_t capacity = 16383)
      : m_text(std::move(text)), m_capacity(capacity) {}

  std::string Read() override {
    ++m_reads;
    return m_text;
  }

  void Write(const std::string& text) override {
    if (m_on_write) {
      m_on_write();
    }
    m_text = text;
    m_writes.push_back(text);
  }

  std::uint32_t Capacity() override { return m_capacity; }

  int Reads() const { return m_reads; }
  const std::vector<std::string>& Writes() const { return m_writes; }
  const std::string& Text() const { return m_text; }

  /// Every Write first calls `hook` and passes on its exceptions.
  void OnWrite(std::function<void()> hook) { m_on_write = std::move(hook); }

private:
  std::string m_text;
  std::uint32_t m_capacity;
  int m_reads = 0;
  std::vector<std::string> m_writes;
  std::function<void()> m_on_write;
};

}  // namespace test_support
