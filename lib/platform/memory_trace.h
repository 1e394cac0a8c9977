// A trace sink that keeps the latest texts in a ring of fixed size, to be looked at in a debugger or a core file.
#pragma once

#include <boost/thread/mutex.hpp>
#include <cstdarg>
#include <cstddef>
#include <string>

#include "lib/platform/trace.h"

namespace bramble {

/// Any thread may call it; each call takes the object's own lock.
class MemoryTrace : public BaseTrace {
public:
  /// `capacity` is the size of the ring in bytes and must not be 0. The ring is allocated by the first Emit.
  explicit MemoryTrace(std::size_t capacity) : m_capacity(capacity) {}
  ~MemoryTrace() override;

  /// Puts "[seconds.milliseconds] " of the monotonic clock and then the text into the ring, over the oldest bytes. Of a
  /// text longer than the ring only the tail stays. No room for the ring is an assertion failure. Throws
  /// boost::lock_error, std::bad_alloc.
  void Emit(const std::string& text) override;

  /// Nothing to do: the ring is memory.
  void Flush() override {}

  /// Formats as strvprintf does and emits the result.
  [[gnu::format(printf, 2, 0)]] void TraceV(const char* format, va_list args);

  /// The whole ring, oldest byte first; bytes never written are blanks. Empty before the first Emit.
  std::string Contents() const;

private:
  const std::size_t m_capacity;
  char* m_start = nullptr;     // guarded by m_lock
  std::size_t m_position = 0;  // next byte to write, as an offset; guarded by m_lock
  mutable boost::mutex m_lock;
};

}  // namespace bramble
