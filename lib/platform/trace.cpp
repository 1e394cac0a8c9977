#include "lib/platform/trace.h"

#include <termios.h>

namespace bramble {
namespace {

void DrainStandardError() {
  std::fflush(stderr);
  ::tcdrain(::fileno(stderr));
}

}  // namespace

StderrTrace::~StderrTrace() { DrainStandardError(); }

void StderrTrace::Emit(const std::string& text) { std::fputs(text.c_str(), stderr); }

void StderrTrace::Flush() { DrainStandardError(); }

FileTrace::~FileTrace() { std::fclose(m_file); }

void FileTrace::Emit(const std::string& text) { std::fputs(text.c_str(), m_file); }

void FileTrace::Flush() { std::fflush(stderr); }

}  // namespace bramble
