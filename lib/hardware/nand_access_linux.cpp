#include "lib/hardware/nand_access_linux.h"

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/posix_helpers.h"

namespace {

class LinuxNandAccess final : public NandAccess {
public:
  LinuxNandAccess(const std::string& path, std::size_t size) : m_device(bramble::Open(path, O_RDWR | O_SYNC)) {
    mtd_info_user info{};
    Control(MEMGETINFO, &info);
    m_erase_size = info.erasesize;
    m_write_size = info.writesize;
    m_oob_size = info.oobsize;
    m_total_size = static_cast<std::uint32_t>(std::min<std::size_t>(info.size, size));
    BRAMBLE_ASSERT(m_erase_size != 0);
    BRAMBLE_ASSERT(m_total_size % m_erase_size == 0);
  }

  std::uint32_t GetEraseSize() override { return m_erase_size; }
  std::uint32_t GetOobSize() override { return m_oob_size; }
  std::uint32_t GetWriteSize() override { return m_write_size; }
  std::uint32_t GetTotalSize() override { return m_total_size; }

  bool IsBadBlock(std::uint32_t offset) override {
    loff_t position = offset;
    return Control(MEMGETBADBLOCK, &position) != 0;
  }

  bool IsOobErased(std::uint32_t offset) override {
    std::vector<unsigned char> spare(m_oob_size);
    if (spare.empty()) {
      return true;
    }
    mtd_oob_buf request{offset, m_oob_size, spare.data()};
    Control(MEMREADOOB, &request);
    return std::all_of(spare.begin(), spare.end(), [](unsigned char byte) { return byte == 0xFF; });
  }

  void MarkBadBlock(std::uint32_t offset) override {
    loff_t position = offset;
    Control(MEMSETBADBLOCK, &position);
  }

  void EraseBlock(std::uint32_t offset) override {
    erase_info_user request{offset, m_erase_size};
    Control(MEMERASE, &request);
  }

  std::size_t Read(std::uint32_t offset, void* buffer, std::size_t length) override {
    Seek(offset, "NandBlockAccess::Read");
    return bramble::read_all_throw(m_device.Get(), buffer, std::min<std::size_t>(length, m_erase_size),
                                   "read_all_throw");
  }

  std::size_t Write(std::uint32_t offset, const void* buffer, std::size_t length) override {
    Seek(offset, "NandBlockAccess::Write");
    bramble::write_all_throw(m_device.Get(), buffer, length);
    return length;
  }

private:
  int Control(unsigned long request, void* argument) {
    const int result = ::ioctl(m_device.Get(), request, argument);
    if (result < 0) {
      throw bramble::ErrnoException(errno);
    }
    return result;
  }

  void Seek(std::uint32_t offset, const char* context) {
    const off_t reached = ::lseek(m_device.Get(), offset, SEEK_SET);
    if (reached < 0) {
      throw bramble::ErrnoException(errno, context);
    }
    if (reached != static_cast<off_t>(offset)) {
      throw std::runtime_error(std::string(context) + " seek failure");
    }
  }

  bramble::FileDescriptor m_device;
  std::uint32_t m_erase_size;
  std::uint32_t m_write_size;
  std::uint32_t m_oob_size;
  std::uint32_t m_total_size;
};

}  // namespace

std::shared_ptr<NandAccess> LinuxNandAccessImpl(const std::string& path, std::size_t size) {
  return std::make_shared<LinuxNandAccess>(path, size);
}
