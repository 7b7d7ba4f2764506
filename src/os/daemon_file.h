// The two files of a daemon that hold its process id.
#pragma once

#include <cstddef>

namespace kel::internal {

/// A file "DIR/NAME.pid". The path is absolute, so that it lasts when the working directory
/// changes.
class DaemonFile {
 public:
  static constexpr std::size_t kPathSize = 1025;
  static constexpr std::size_t kLineSize = 128;

  /// Takes the path; a null `dir` is the working directory. False with errno ENAMETOOLONG, or that
  /// of getcwd(3); there is no path then.
  bool set_path(const char* dir, const char* name) noexcept;
  void forget() noexcept { path_[0] = '\0'; }
  /// Empty when there is none.
  const char* path() const noexcept { return path_; }

  /// How far writing got.
  enum class Written { not_opened, opened, whole };
  /// Writes this process's id; `flags` are those of open(2) beside O_WRONLY and O_CREAT. A file
  /// that was opened but not written is removed. errno tells what failed.
  Written write_own_pid(int flags) noexcept;

  /// Reads the first line without its newline, cut where `line` ends; false when it cannot be read.
  bool read_line(char (&line)[kLineSize]) const noexcept;

  /// Removes the file when it still holds this process's id.
  void remove_own() noexcept;

 private:
  char path_[kPathSize] = "";
};

/// What DaemonLogPID() wrote.
DaemonFile& pid_file() noexcept;
/// The lock that was tested or taken last.
DaemonFile& lock_file() noexcept;

/// Has both files removed when the process exits, if they are its own and it leads its session
/// then.
void remove_daemon_files_at_exit() noexcept;

/// Reads the first line from `fd`, from its position on; an empty file has an empty one.
bool read_first_line(int fd, char (&line)[DaemonFile::kLineSize]) noexcept;

/// The process id that `line` begins with; 0 when it holds none.
int pid_of(const char* line) noexcept;

}  // namespace kel::internal
