// A NAND device of four blocks in an ordinary file.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "lib/hardware/nand_access_linux.h"
#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/support/temp_dir.h"

namespace test_hardware {

constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kBlocks = 4;
constexpr std::uint32_t kSize = kBlock * kBlocks;
constexpr std::uint32_t kPage = 512;
constexpr std::uint32_t kSpare = 16;
/// The offset of the last block of the largest possible device.
constexpr std::uint32_t kFarBlock = 0xFFFFF000;

/// Returns the alphabet repeated over the whole device, in lower case in even blocks and in upper case in odd blocks.
inline std::string Contents() {
  std::string contents;
  for (std::uint32_t i = 0; i < kSize; ++i) {
    contents += static_cast<char>((i / kBlock % 2 == 0 ? 'a' : 'A') + i % 26);
  }
  return contents;
}

class LinuxNandAccessTest : public testing::Test {
protected:
  LinuxNandAccessTest() { test_support::WriteTextFile(m_path, Contents()); }

  std::shared_ptr<NandAccess> Open() {
    auto nand = LinuxNandAccessImpl(m_path, kSize);
    m_mtd.TakeRequests();
    return nand;
  }

  test_support::TempDir m_dir;
  const std::string m_path = m_dir / "mtd1";
  FakeMtd m_mtd{{kSize, kBlock, kPage, kSpare}};
};

inline std::string ReadText(NandAccess& nand, std::uint32_t offset, std::size_t length) {
  std::string text(length, '?');
  text.resize(nand.Read(offset, text.data(), length));
  return text;
}

}  // namespace test_hardware
