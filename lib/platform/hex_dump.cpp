#include "lib/platform/hex_dump.h"

#include <fmt/printf.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <string>

#include "lib/platform/string_operations.h"
#include "lib/platform/trace.h"

namespace bramble {
namespace {

constexpr std::size_t kBytesPerLine = 16;

// Like SafePrint, for a sink: a text that cannot be formatted is replaced by the reason.
void EmitFormatted(BaseTrace& sink, const char* format, const std::string& text) {
  std::string formatted;
  try {
    formatted = fmt::sprintf(format, text);
  } catch (const std::exception& e) {
    formatted = strprintf("Message '%s' threw '%s'\n", format, e.what());
  }
  sink.Emit(formatted);
}

std::string FormatLine(const unsigned char* bytes, std::size_t count) {
  std::string line = strprintf("%p: ", static_cast<const void*>(bytes));
  for (std::size_t i = 0; i < count; ++i) {
    line += strprintf("%02x ", bytes[i]);
  }
  line.append(3 * (kBytesPerLine - count), ' ');
  std::transform(bytes, bytes + count, std::back_inserter(line),
                 [](unsigned char byte) { return byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '.'; });
  return line;
}

}  // namespace

void HexDump(BaseTrace& sink, const void* data, std::size_t length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t offset = 0; offset < length; offset += kBytesPerLine) {
    EmitFormatted(sink, "%s\n", FormatLine(bytes + offset, std::min(kBytesPerLine, length - offset)));
  }
}

void HexDump(BaseTrace& sink, const char* title, const void* data, std::size_t length) {
  const std::size_t title_length = std::strlen(title);
  const bool needs_line_feed = title_length != 0 && title[title_length - 1] != '\n';
  EmitFormatted(sink, needs_line_feed ? "%s\n" : "%s", title);
  HexDump(sink, data, length);
}

}  // namespace bramble
