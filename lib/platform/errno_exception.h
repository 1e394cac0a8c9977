// The exception for a failed system call: an error number and its message.
#pragma once

#include <exception>
#include <string>

namespace bramble {

/// Thrown where a system call fails. Callers capture `errno` before anything else can change it and pass it here.
/// Copying may throw std::bad_alloc; the accessors never throw.
class ErrnoException : public std::exception {
public:
  /// The text is "<description> (<number>)", for example "No such file or directory (2)".
  explicit ErrnoException(int error_number);

  /// The text is "<context>: <description> (<number>)". A null context is left out.
  ErrnoException(int error_number, const char* context);
  ErrnoException(int error_number, const std::string& context);

  /// The text is valid as long as the exception object.
  const char* what() const noexcept override { return m_message.c_str(); }

  int ErrorNumber() const noexcept { return m_error_number; }

private:
  std::string m_message;
  int m_error_number;
};

}  // namespace bramble
