// Collects the diagnostics of the code under test, thousands a second, without a system call.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

/// While it lives, what is printed to `stderr` goes to memory. What writes to descriptor 2, as the sanitizers' reports
/// do, still gets there.
class Diagnostics {
public:
  Diagnostics() : m_saved(stderr) { stderr = ::open_memstream(&m_text, &m_size); }

  ~Diagnostics() {
    std::fclose(stderr);
    stderr = m_saved;
    std::free(m_text);
  }

  Diagnostics(const Diagnostics&) = delete;
  Diagnostics& operator=(const Diagnostics&) = delete;

  std::string Text() {
    std::fflush(stderr);
    return std::string(m_text, m_size);
  }

private:
  std::FILE* const m_saved;
  char* m_text = nullptr;
  std::size_t m_size = 0;
};

}  // namespace fuzz
