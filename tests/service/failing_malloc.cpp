// Preloaded into the daemon: one allocation of its main thread fails, in whatever library. The file that
// LEDGERD_TEST_ALLOCATIONS names holds a number, mapped by the test too: the allocations until the one that fails, 0
// for none.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The C library's own names for what it exports.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}

namespace {

std::atomic<std::int32_t>* g_countdown = nullptr;

[[gnu::constructor]] void MapCountdown() {
  const char* const path = std::getenv("LEDGERD_TEST_ALLOCATIONS");
  const int fd = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
  void* const shared = ::mmap(nullptr, sizeof *g_countdown, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (shared != MAP_FAILED) {
    g_countdown = static_cast<std::atomic<std::int32_t>*>(shared);
  }
}

bool Fails() {
  if (g_countdown == nullptr || *g_countdown == 0 || ::gettid() != ::getpid() || --*g_countdown != 0) {
    return false;
  }
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) { return Fails() ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) { return Fails() ? nullptr : __libc_calloc(count, size); }
void* realloc(void* memory, std::size_t size) { return Fails() ? nullptr : __libc_realloc(memory, size); }

}  // extern "C"
