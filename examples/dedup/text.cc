#include "text.h"

#include <cstdio>
#include <ctime>

namespace dedup {
namespace {

/// The length of the UTF-8 sequence at `at`, 0 when there is none.
size_t utf8_length(const std::string& text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const size_t length = lead < 0x80                   ? 1
                        : lead >= 0xc2 && lead < 0xe0 ? 2
                        : lead >= 0xe0 && lead < 0xf0 ? 3
                        : lead >= 0xf0 && lead < 0xf5 ? 4
                                                      : 0;
  if (at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i)
    if ((static_cast<unsigned char>(text[at + i]) & 0xc0) != 0x80) return 0;
  return length;
}

}  // namespace

std::string size_text(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof text, "%lu B", static_cast<unsigned long>(bytes));
    return text;
  }
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1023.95) {
    value /= 1024;
    ++unit;
  }
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string time_text(int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  char text[32] = "?";
  if (::localtime_r(&time, &parts) != nullptr)
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

std::string path_text(const std::string& path) {
  std::string text;
  for (size_t i = 0; i < path.size();) {
    const size_t length = utf8_length(path, i);
    const auto byte = static_cast<unsigned char>(path[i]);
    const bool is_control =
        byte < 0x20 || byte == 0x7f ||
        (byte == 0xc2 && length == 2 && static_cast<unsigned char>(path[i + 1]) < 0xa0);
    if (length == 0 || is_control) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      text += escaped;
      ++i;
    } else {
      text.append(path, i, length);
      i += length;
    }
  }
  return text;
}

}  // namespace dedup
