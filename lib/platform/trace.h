// Sinks for finished diagnostic texts. The program writes to one of them only, the standard-error sink of StderrSink();
// the others belong to the platform layer. No sink but MemoryTrace has a lock of its own.
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

  /// Writes one finished text as it stands; the caller brings the line feed.
  virtual void Emit(const std::string& text) = 0;
  virtual void Flush() = 0;
};

/// Writes to standard error. Flush, and the destructor, also wait until a terminal has sent the text.
class StderrTrace : public BaseTrace {
public:
  constexpr StderrTrace() = default;
  ~StderrTrace() override;
  void Emit(const std::string& text) override;
  void Flush() override;
};

/// A standard-error sink with a switch. The switch is advice for callers, who ask IsEnabled() before they compose a
/// costly text; Emit itself always writes.
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
  /// `file` must not be null; ownership passes to this object.
  explicit FileTrace(std::FILE* file) : m_file(file) {}
  ~FileTrace() override;
  void Emit(const std::string& text) override;

  /// Flushes standard error, not the stream of this sink: deliberate. The destructor flushes the stream by closing it.
  void Flush() override;

private:
  std::FILE* m_file;
};

/// The process-wide sink on standard error. It is constant-initialised, so usable before main; when the process ends it
/// flushes and drains standard error.
BaseTrace& StderrSink();

}  // namespace bramble
