// Numbers whose base their text says.
#pragma once

#include <string>

/// The number at the beginning of `text`, as strtoull with automatic base reads it: after white space and a sign, "0x"
/// means hexadecimal, another "0" octal, anything else decimal. Trailing junk is ignored; no number gives 0, one that
/// does not fit the greatest. Newer C libraries also know a binary "0b"; here that is the number 0 with trailing junk.
unsigned long long ParseUnsigned(const std::string& text);
