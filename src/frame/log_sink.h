// Where log lines meet log files (frame/log/). Nothing here reports through the log or throws: it
// is called by the reports themselves.
#pragma once

#include <string_view>

namespace kel::internal {

/// Appends `line`, which ends in a newline, to the log file at `path`; an `urgent` one reaches the
/// kernel before the call returns.
void write_log_line(std::string_view line, const char* path, bool urgent) noexcept;

/// Brings what is gathered for log files to the kernel and closes them.
void flush_log_files() noexcept;

/// Brings what is gathered for log files to the kernel, passing over files whose locks are not free
/// within a tenth of a second: for a process that is about to abort.
void rescue_log_lines() noexcept;

/// For a child after fork: drops the state of the log files; 0 or an errno value.
int reset_log_files() noexcept;

}  // namespace kel::internal
