// A trace sink that keeps the latest texts in a ring buffer, for a debugger or a core file.
#pragma once

#include <boost/thread/mutex.hpp>
#include <cstdarg>
#include <cstddef>
#include <string>

#include "lib/platform/trace.h"

namespace bramble {

/// Thread-safe: each call takes the object's own lock.
class MemoryTrace : public BaseTrace {
public:
  /// `capacity` is the size of the ring buffer in bytes and must not be 0. The first Emit allocates the buffer.
  explicit MemoryTrace(std::size_t capacity) : m_capacity(capacity) {}
  ~MemoryTrace() override;

  /// Writes "[seconds.milliseconds] " of the monotonic clock and the text over the oldest bytes. If the text is longer
  /// than the buffer, only its end is kept. It is an assertion failure if the buffer cannot be allocated. Throws
  /// boost::lock_error and std::bad_alloc.
  void Emit(const std::string& text) override;

  /// Does nothing: the texts are in memory.
  void Flush() override {}

  /// Formats with strvprintf and emits the result.
  [[gnu::format(printf, 2, 0)]] void TraceV(const char* format, va_list args);

  /// Returns the whole buffer, oldest byte first. Bytes that were never written are spaces. Empty before the first
  /// Emit.
  std::string Contents() const;

private:
  const std::size_t m_capacity;
  char* m_start = nullptr;     // guarded by m_lock
  std::size_t m_position = 0;  // next byte to write, as an offset; guarded by m_lock
  mutable boost::mutex m_lock;
};

}  // namespace bramble
