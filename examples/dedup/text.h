// Sizes and times for people.
#pragma once

#include <cstdint>
#include <string>

namespace dedup {

/// "17 B", "4.2 KiB", "1.3 GiB".
std::string size_text(uint64_t bytes);
/// "2026-11-24 17:35:41", local time.
std::string time_text(int64_t seconds);
/// A path as one line of a terminal can show it: control characters and bytes that are no part of
/// UTF-8 text as "\x0a".
std::string path_text(const std::string& path);

}  // namespace dedup
