// Where the plug-in keeps its settings.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace kel::config {

inline constexpr char kFipsFile[] = "/etc/ZORNagent/fips.conf";
inline constexpr char kPluginSettingsFile[] = "/etc/ZORNagent/tq.conf";

/// The number that `text` starts with, at the limits of int when it is beyond them; 0 for none.
inline int number_in(const char* text, char** end) noexcept {
  return static_cast<int>(std::clamp<long>(std::strtol(text, end, 10), INT_MIN, INT_MAX));
}

/// Tells the trace which directory is about to be read.
void trace_plugin_directory();

}  // namespace kel::config
