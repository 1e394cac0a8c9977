#include "registry/file_store.h"

#include <cerrno>
#include <cstdio>

#include "lib/platform/errno_exception.h"
#include "lib/platform/posix_helpers.h"
#include "lib/platform/safe_print.h"

namespace {

class FileStoreImpl final : public FileStore {
public:
  FileStoreImpl(const std::string& path, std::uint32_t capacity, mode_t mode)
      : m_path(path), m_capacity(capacity), m_mode(mode) {}

  std::string Read() override {
    std::string text;
    try {
      text = bramble::ReadFile(m_path);
    } catch (const bramble::ErrnoException& e) {
      // A missing file is an empty registry. An unreadable file is one too, but is reported.
      if (e.ErrorNumber() != ENOENT) {
        bramble::SafePrint(stderr, "Error reading registry file: %d\n", e.ErrorNumber());
      }
      return std::string();
    }
    const std::size_t nul = text.find('\0');
    if (nul != std::string::npos) {
      text.resize(nul);
    }
    return text;
  }

  void Write(const std::string& text) override {
    if (text.size() > m_capacity) {
      throw Full();
    }
    bramble::ReplaceFile(m_path, text, m_mode);
  }

  std::uint32_t Capacity() override { return m_capacity; }

private:
  const std::string m_path;
  const std::uint32_t m_capacity;
  const mode_t m_mode;
};

}  // namespace

std::shared_ptr<FileStore> FileStore::Create(const std::string& path, std::uint32_t capacity, mode_t mode) {
  return std::make_shared<FileStoreImpl>(path, capacity, mode);
}
