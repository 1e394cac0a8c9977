// Sinks for formatted diagnostic texts. The program uses only the sink of StderrSink(); the others are part of the
// platform library. Only MemoryTrace has a lock.
#pragma once

#include <cstdio>
#include <string>

namespace bramble {

class BaseTrace {
public:
  constexpr BaseTrace() = default;
  virtual ~BaseTrace() = default;
  BaseTrace(const BaseTrace&) = delete;
  BaseTrace& operator=(const BaseTrace&) = delete;

  /// Writes one formatted text unchanged. The caller adds the newline.
  virtual void Emit(const std::string& text) = 0;
  virtual void Flush() = 0;
};

/// Writes to standard error. If that is a terminal, Flush and the destructor also wait until all text has been sent to
/// it.
class StderrTrace : public BaseTrace {
public:
  constexpr StderrTrace() = default;
  ~StderrTrace() override;
  void Emit(const std::string& text) override;
  void Flush() override;
};

/// A standard-error sink with a switch. Callers test IsEnabled() before they format an expensive text. Emit ignores the
/// switch and always writes.
class OptionalTrace : public StderrTrace {
public:
  explicit constexpr OptionalTrace(bool enabled) : m_enabled(enabled) {}
  virtual void SetEnabled(bool enabled) { m_enabled = enabled; }
  bool IsEnabled() const { return m_enabled; }

private:
  bool m_enabled;
};

/// Writes to a C stream that it owns and closes.
class FileTrace : public BaseTrace {
public:
  /// Takes ownership of `file`, which must not be null.
  explicit FileTrace(std::FILE* file) : m_file(file) {}
  ~FileTrace() override;
  void Emit(const std::string& text) override;

  /// Deliberately flushes standard error, not the stream of this sink. The destructor closes and so flushes the stream.
  void Flush() override;

private:
  std::FILE* m_file;
};

/// The process-wide sink on standard error. It is constant-initialised and therefore usable before main(). At the end
/// of the process it flushes and drains standard error.
BaseTrace& StderrSink();

}  // namespace bramble
