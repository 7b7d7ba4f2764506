// What the files under log/ share: the state of the process, and the one way to
// tell that lines are lost.
#pragma once

#include <kel/logfiles.h>

#include <atomic>
#include <string>
#include <string_view>

namespace kel::internal {

/// Forks between the first process and this one, so that a child knows its parent's lines.
inline std::atomic<unsigned> log_forks{0};

/// The process is ending: nobody will flush what gathers from now on.
inline std::atomic<bool> log_ending{false};

/// Lines in buffers, waiting for a file.
inline std::atomic<long> log_lines_waiting{0};

/// Makes `directory` and those above it. The frame's one call up to the floor of files.
bool make_log_directory(const std::string& directory);

/// Tells on standard error why lines for `path` are dropped, once until forget_lost_lines().
/// Needs neither memory nor a lock of the log.
void tell_lost_lines(std::string_view path, const char* reason) noexcept;
void forget_lost_lines(std::string_view path) noexcept;

/// "A thread (id=ID) encountered an error while attempting to " and `what`.
[[noreturn]] void throw_bad_path(const std::string& what);

/// `line` in the multibyte encoding of the current locale.
std::string to_multibyte(const std::wstring& line);

}  // namespace kel::internal
