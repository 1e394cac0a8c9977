#include "lib/hardware/cfe_environment.h"

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "lib/hardware/nand_access.h"
#include "lib/hardware/nand_access_linux.h"
#include "lib/hardware/nand_partition.h"
#include "lib/platform/safe_print.h"

namespace {

constexpr char kPartitionName[] = "flash0.nvram";

// A record is a type byte, a length byte L, and L bytes of content: a flags byte and the text.
constexpr std::size_t kHeaderSize = 2;
constexpr std::size_t kFlagsSize = 1;
constexpr unsigned char kEndRecord = 0;
constexpr unsigned char kStringRecord = 1;
constexpr unsigned char kErased = 0xFF;

void Insert(CfeEnvironment& environment, const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) {
    bramble::SafePrint(stderr, "No equals sign in environment string\n");
    return;
  }
  environment[text.substr(0, equals)] = text.substr(equals + 1);
}

// A record of length 0 does not even have a flags byte.
std::string RecordText(const unsigned char* content, std::size_t length) {
  return length <= kFlagsSize ? std::string() : std::string(content + kFlagsSize, content + length);
}

CfeEnvironment ReadFromDevice() {
  const NandPartition partition = FindNandPartition(kPartitionName);
  return ReadCfeEnvironment(*LinuxNandAccessImpl(partition.path, partition.size));
}

boost::mutex g_cache_lock;
bool g_cache_loaded = false;  // guarded by g_cache_lock
CfeEnvironment g_cache;       // guarded by g_cache_lock

}  // namespace

CfeEnvironment ParseCfeEnvironment(const unsigned char* data, std::size_t length) {
  CfeEnvironment environment;
  if (length == 0 || data[0] == kErased) {
    return environment;
  }
  // A block that is full to its last byte has no end record.
  for (std::size_t offset = 0; offset < length && data[offset] != kEndRecord;) {
    if (data[offset] != kStringRecord) {
      throw std::runtime_error("Unknown record type");
    }
    if (length - offset < kHeaderSize) {
      throw std::runtime_error("Record header truncated");
    }
    const std::size_t content_length = data[offset + 1];
    if (length - offset - kHeaderSize < content_length) {
      throw std::runtime_error("Record content truncated");
    }
    Insert(environment, RecordText(data + offset + kHeaderSize, content_length));
    offset += kHeaderSize + content_length;
  }
  return environment;
}

CfeEnvironment ReadCfeEnvironment(NandAccess& nand) {
  const std::uint32_t block_size = nand.GetEraseSize();
  std::uint64_t offset = 0;
  while (offset < nand.GetTotalSize() && nand.IsBadBlock(static_cast<std::uint32_t>(offset))) {
    offset += block_size;
  }
  if (offset >= nand.GetTotalSize()) {
    throw std::runtime_error("All CFE environment NAND blocks are bad");
  }
  std::vector<unsigned char> block(block_size);
  const std::size_t length = nand.Read(static_cast<std::uint32_t>(offset), block.data(), block.size());
  return ParseCfeEnvironment(block.data(), length);
}

CfeEnvironment ReadCfeEnvironmentOrEmpty(const std::function<CfeEnvironment()>& read) {
  try {
    return read();
  } catch (...) {
    bramble::SafePrint(stderr, "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n");
    return CfeEnvironment();
  }
}

CfeEnvironment GetCfeEnvironment() {
  const boost::lock_guard<boost::mutex> guard(g_cache_lock);
  if (!g_cache_loaded) {
    g_cache = ReadCfeEnvironmentOrEmpty(ReadFromDevice);
    g_cache_loaded = true;
  }
  return g_cache;
}
