// A store in memory, which is cheap, so that almost all counted instructions are those of its user.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "bench/workload.h"
#include "lib/platform/persistent_store.h"

class MemoryStore : public PersistentStore {
public:
  explicit MemoryStore(std::string text) : m_text(std::move(text)) {}
  std::string Read() override { return m_text; }
  void Write(const std::string& text) override { m_text = text; }
  std::uint32_t Capacity() override { return workload::kCapacity; }

private:
  std::string m_text;
};
