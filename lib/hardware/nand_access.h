// Access to one partition of raw NAND flash.
#pragma once

#include <cstddef>
#include <cstdint>

/// Sizes are in bytes; offsets are bytes from the start of the partition. Shared by its users through shared pointers;
/// an object has no lock and is used by one thread at a time. Every failure is an exception: ErrnoException for a
/// system call. Nothing is retried, and no block is marked bad unless a caller asks for it.
class NandAccess {
public:
  virtual ~NandAccess() = default;

  /// The size of an erase block.
  virtual std::uint32_t GetEraseSize() = 0;
  /// The size of a page's spare area.
  virtual std::uint32_t GetOobSize() = 0;
  /// The size of a page, the unit of writing.
  virtual std::uint32_t GetWriteSize() = 0;
  /// The usable size of the partition, a whole number of erase blocks.
  virtual std::uint32_t GetTotalSize() = 0;

  /// Whether the block that holds `offset` is marked bad.
  virtual bool IsBadBlock(std::uint32_t offset) = 0;
  /// Whether every byte of the spare area of the page at `offset` is 0xFF; true where pages have none.
  virtual bool IsOobErased(std::uint32_t offset) = 0;
  virtual void MarkBadBlock(std::uint32_t offset) = 0;
  /// Erases the block that begins at `offset`.
  virtual void EraseBlock(std::uint32_t offset) = 0;

  /// Erases every block that begins within the range and is not marked bad. Blocks count from `offset`.
  virtual void EraseRange(std::uint32_t offset, std::uint32_t length);
  virtual void EraseAll();

  /// Reads `length` bytes, but at most one erase block (deliberately: callers read block by block), and fewer at the
  /// end of the device. Returns the count. Data of a page with uncorrectable errors is returned like any other.
  virtual std::size_t Read(std::uint32_t offset, void* buffer, std::size_t length) = 0;

  /// Writes all `length` bytes and returns the count. The pages must be erased.
  virtual std::size_t Write(std::uint32_t offset, const void* buffer, std::size_t length) = 0;
  virtual std::size_t WriteBlock(std::uint32_t offset, const void* buffer, std::size_t length);
};
