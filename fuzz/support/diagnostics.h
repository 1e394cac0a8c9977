// Captures the diagnostics of the code under test in memory. It makes no system call, so that a fuzzer can run
// thousands of inputs per second.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

/// While this object exists, output to `stderr` is kept in memory. Output that is written directly to descriptor 2,
/// such as the reports of the sanitizers, is not captured.
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
