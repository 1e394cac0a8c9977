#include "lib/platform/memory_trace.h"

#include <boost/thread/lock_guard.hpp>
#include <cstdlib>
#include <cstring>

#include "lib/platform/assertion.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/string_operations.h"

namespace bramble {

MemoryTrace::~MemoryTrace() { std::free(m_start); }

void MemoryTrace::Emit(const std::string& text) {
  const boost::lock_guard<boost::mutex> guard(m_lock);
  if (m_start == nullptr) {
    m_start = static_cast<char*>(std::malloc(m_capacity));
    BRAMBLE_ASSERT(m_start);
    std::memset(m_start, ' ', m_capacity);
    m_position = 0;
  }
  const timespec now = get_monotonic_time();
  const std::string line =
      strprintf("[%05ld.%03ld] ", static_cast<long>(now.tv_sec), static_cast<long>(now.tv_nsec / 1000000)) + text;
  for (const char byte : line) {
    m_start[m_position] = byte;
    m_position = (m_position + 1) % m_capacity;
  }
}

void MemoryTrace::TraceV(const char* format, va_list args) { Emit(strvprintf(format, args)); }

std::string MemoryTrace::Contents() const {
  const boost::lock_guard<boost::mutex> guard(m_lock);
  if (m_start == nullptr) {
    return std::string();
  }
  return std::string(m_start + m_position, m_capacity - m_position).append(m_start, m_position);
}

}  // namespace bramble
