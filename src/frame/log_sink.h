// Where log lines meet log files: the frame's one upward call.
#pragma once

namespace kel::internal {

/// Appends `line`, which ends in a newline, to the log file at `path`. Never reports: it is called
/// by the reports themselves.
void write_log_line(const char* line, const char* path) noexcept;

/// Brings what is buffered for log files to the kernel.
void flush_log_files() noexcept;

/// For a child after fork: drops the state of the log files; 0 or an errno value.
int reset_log_files() noexcept;

}  // namespace kel::internal
