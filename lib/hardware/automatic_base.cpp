#include "lib/hardware/automatic_base.h"

#include <cstdlib>
#include <cstring>

unsigned long long ParseUnsigned(const std::string& text) {
  // This skips more than one sign, but strtoull then rejects the number.
  const char* const digits = text.c_str() + std::strspn(text.c_str(), " \f\n\r\t\v+-");
  const bool leading_zero = digits[0] == '0';
  const bool prefix = leading_zero && (digits[1] == 'x' || digits[1] == 'X');
  return std::strtoull(text.c_str(), nullptr, prefix ? 16 : leading_zero ? 8 : 10);
}
