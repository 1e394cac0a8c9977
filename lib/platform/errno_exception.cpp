#include "lib/platform/errno_exception.h"

#include <cstring>

namespace bramble {
namespace {

std::string Describe(int error_number) {
  std::string text;
  if (const char* description = std::strerror(error_number)) {
    text = description;
  }
  return text + " (" + std::to_string(error_number) + ")";
}

}  // namespace

ErrnoException::ErrnoException(int error_number) : m_message(Describe(error_number)), m_error_number(error_number) {}

ErrnoException::ErrnoException(int error_number, const char* context)
    : m_message((context != nullptr ? std::string(context) + ": " : std::string()) + Describe(error_number)),
      m_error_number(error_number) {}

ErrnoException::ErrnoException(int error_number, const std::string& context)
    : ErrnoException(error_number, context.c_str()) {}

}  // namespace bramble
