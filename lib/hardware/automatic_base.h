// Numbers whose prefix gives their base.
#pragma once

#include <string>

/// Returns the number at the beginning of `text`, like strtoull with base 0: after white space and a sign, "0x" means
/// hexadecimal, another "0" octal, anything else decimal. Ignores what follows the number. Returns 0 if there is no
/// number, and the maximum if the number does not fit. Newer C libraries also accept the binary prefix "0b". This
/// function does not: "0b1" is the number 0, and the rest is ignored.
unsigned long long ParseUnsigned(const std::string& text);
