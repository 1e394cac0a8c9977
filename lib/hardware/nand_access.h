// Access to one partition of raw NAND flash.
#pragma once

#include <cstddef>
#include <cstdint>

/// Sizes are in bytes. Offsets are bytes from the start of the partition. Users share an object through shared
/// pointers. An object has no lock: only one thread may use it at a time. Every failure is an exception, ErrnoException
/// for a system call. Nothing is retried, and only callers mark blocks bad.
class NandAccess {
public:
  virtual ~NandAccess() = default;

  /// Returns the size of an erase block.
  virtual std::uint32_t GetEraseSize() = 0;
  /// Returns the size of the spare area of a page.
  virtual std::uint32_t GetOobSize() = 0;
  /// Returns the size of a page, which is the unit of writing.
  virtual std::uint32_t GetWriteSize() = 0;
  /// Returns the usable size of the partition, a whole number of erase blocks.
  virtual std::uint32_t GetTotalSize() = 0;

  /// Returns whether the block that contains `offset` is marked bad.
  virtual bool IsBadBlock(std::uint32_t offset) = 0;
  /// Returns whether every byte in the spare area of the page at `offset` is 0xFF. True if pages have no spare area.
  virtual bool IsOobErased(std::uint32_t offset) = 0;
  virtual void MarkBadBlock(std::uint32_t offset) = 0;
  /// Erases the block that begins at `offset`.
  virtual void EraseBlock(std::uint32_t offset) = 0;

  /// Erases every block that begins within the range and is not marked bad. The first block begins at `offset`.
  virtual void EraseRange(std::uint32_t offset, std::uint32_t length);
  virtual void EraseAll();

  /// Reads `length` bytes, but deliberately at most one erase block (callers read block by block), and fewer at the end
  /// of the device. Returns the number of bytes. Data of a page with uncorrectable errors is returned like any other.
  virtual std::size_t Read(std::uint32_t offset, void* buffer, std::size_t length) = 0;

  /// Writes all `length` bytes and returns their number. The pages must be erased.
  virtual std::size_t Write(std::uint32_t offset, const void* buffer, std::size_t length) = 0;
  virtual std::size_t WriteBlock(std::uint32_t offset, const void* buffer, std::size_t length);
};
