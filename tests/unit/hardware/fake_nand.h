// A NAND partition in memory.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "lib/hardware/nand_access.h"

namespace test_hardware {

/// At first all blocks are good and erased. Only blocks with contents use memory, so a partition of 4 GB is possible.
/// Records the calls of IsBadBlock, EraseBlock, Read and Write with their arguments.
class FakeNand : public NandAccess {
public:
  FakeNand(std::uint32_t block_size, std::uint32_t total_size) : m_block_size(block_size), m_total_size(total_size) {}

  std::uint32_t GetEraseSize() override { return m_block_size; }
  std::uint32_t GetOobSize() override { return 64; }
  std::uint32_t GetWriteSize() override { return 2048; }
  std::uint32_t GetTotalSize() override { return m_total_size; }

  bool IsBadBlock(std::uint32_t offset) override {
    Record("IsBadBlock " + std::to_string(offset));
    return m_bad_blocks.count(offset / m_block_size) != 0;
  }

  bool IsOobErased(std::uint32_t offset) override { return m_contents.count(offset / m_block_size) == 0; }
  void MarkBadBlock(std::uint32_t offset) override { m_bad_blocks.insert(offset / m_block_size); }

  void EraseBlock(std::uint32_t offset) override {
    Record("EraseBlock " + std::to_string(offset));
    m_contents.erase(offset / m_block_size);
  }

  std::size_t Read(std::uint32_t offset, void* buffer, std::size_t length) override {
    Record("Read " + std::to_string(offset) + " " + std::to_string(length));
    const std::string bytes =
        Contents(offset / m_block_size).substr(offset % m_block_size, std::min(length, m_read_limit));
    std::memcpy(buffer, bytes.data(), bytes.size());
    return bytes.size();
  }

  std::size_t Write(std::uint32_t offset, const void* buffer, std::size_t length) override {
    Record("Write " + std::to_string(offset) + " " + std::to_string(length));
    std::string block = Contents(offset / m_block_size);
    m_contents[offset / m_block_size] =
        block.replace(offset % m_block_size, length, static_cast<const char*>(buffer), length);
    return length;
  }

  /// Returns the calls since the last call, such as "IsBadBlock 0, Read 0 64".
  std::string TakeCalls() { return std::exchange(m_calls, ""); }

  std::string Contents(std::uint32_t block) const {
    const auto found = m_contents.find(block);
    return found == m_contents.end() ? std::string(m_block_size, '\xFF') : found->second;
  }

  /// Limits the result of every Read to `limit` bytes.
  void LimitReads(std::size_t limit) { m_read_limit = limit; }

private:
  void Record(const std::string& call) { m_calls += (m_calls.empty() ? "" : ", ") + call; }

  const std::uint32_t m_block_size;
  const std::uint32_t m_total_size;
  std::set<std::uint32_t> m_bad_blocks;             // by block number
  std::map<std::uint32_t, std::string> m_contents;  // by block number
  std::string m_calls;
  std::size_t m_read_limit = SIZE_MAX;
};

}  // namespace test_hardware
