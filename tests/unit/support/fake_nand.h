// A NAND partition in memory.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "lib/hardware/nand_access.h"

namespace test_support {

/// At first all blocks are good and erased. Only blocks with contents use memory, so a partition of 4 GB is possible.
class FakeNand : public NandAccess {
public:
  FakeNand(std::uint32_t block_size, std::uint32_t total_size) : m_block_size(block_size), m_total_size(total_size) {}

  std::uint32_t GetEraseSize() override { return m_block_size; }
  std::uint32_t GetOobSize() override { return 64; }
  std::uint32_t GetWriteSize() override { return 2048; }
  std::uint32_t GetTotalSize() override { return m_total_size; }

  bool IsBadBlock(std::uint32_t offset) override {
    Record("IsBadBlock", offset);
    return m_bad_blocks.count(offset / m_block_size) != 0;
  }

  bool IsOobErased(std::uint32_t offset) override { return m_contents.count(offset / m_block_size) == 0; }

  void MarkBadBlock(std::uint32_t offset) override { m_bad_blocks.insert(offset / m_block_size); }

  void EraseBlock(std::uint32_t offset) override {
    Record("EraseBlock", offset);
    m_contents.erase(offset / m_block_size);
  }

  std::size_t Read(std::uint32_t offset, void* buffer, std::size_t length) override {
    Record("Read", offset, length);
    if (m_on_read) {
      m_on_read();
    }
    const std::string bytes =
        Block(offset / m_block_size).substr(offset % m_block_size, std::min(length, m_read_limit));
    std::memcpy(buffer, bytes.data(), bytes.size());
    return bytes.size();
  }

  std::size_t Write(std::uint32_t offset, const void* buffer, std::size_t length) override {
    Record("Write", offset, length);
    std::string block = Block(offset / m_block_size);
    block.replace(offset % m_block_size, length, static_cast<const char*>(buffer), length);
    m_contents[offset / m_block_size] = block;
    return length;
  }

  /// The recorded calls: the name and the arguments of each call of IsBadBlock, EraseBlock, Read and Write.
  const std::vector<std::string>& Calls() const { return m_calls; }
  void ForgetCalls() { m_calls.clear(); }

  /// Every Read first calls `hook` and passes on its exceptions.
  void OnRead(std::function<void()> hook) { m_on_read = std::move(hook); }

  /// Limits the result of every Read to `limit` bytes.
  void LimitReads(std::size_t limit) { m_read_limit = limit; }

private:
  void Record(const std::string& call, std::uint32_t offset) { m_calls.push_back(call + " " + std::to_string(offset)); }
  void Record(const std::string& call, std::uint32_t offset, std::size_t length) {
    Record(call, offset);
    m_calls.back() += " " + std::to_string(length);
  }

  std::string Block(std::uint32_t number) const {
    const auto found = m_contents.find(number);
    return found == m_contents.end() ? std::string(m_block_size, '\xFF') : found->second;
  }

  const std::uint32_t m_block_size;
  const std::uint32_t m_total_size;
  std::set<std::uint32_t> m_bad_blocks;             // by block number
  std::map<std::uint32_t, std::string> m_contents;  // by block number
  std::vector<std::string> m_calls;
  std::function<void()> m_on_read;
  std::size_t m_read_limit = SIZE_MAX;
};

}  // namespace test_support
