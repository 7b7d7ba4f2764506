// All loaded files of the process, behind one lock.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "config/ini_model.h"

namespace kel::config {

/// Reads the file at `path`. What cannot be read is reported and counts as one newline, so that the
/// file exists in memory and a save creates it. Null, reported, when memory is short.
std::unique_ptr<IniFile> load_file(const char* path);

/// One call's hold on a loaded file. Nothing reports while it lasts, since reports call the
/// program's own functions; the lock is free, too, while a file is being read.
class Hold {
 public:
  enum class Missing { kLoad, kLeave };

  /// Takes the lock and finds `path`, which may be null (then there is no file).
  Hold(const char* path, Missing missing);

  explicit operator bool() const noexcept { return file_ != nullptr; }
  IniFile* operator->() const noexcept { return file_; }
  IniFile& operator*() const noexcept { return *file_; }
  /// Ends the hold early, for what remains to be reported.
  void end() { lock_.unlock(); }

 private:
  void find_or_load(const char* path, Missing missing);
  void report_unlocked();

  std::unique_lock<std::mutex> lock_;
  IniFile* file_ = nullptr;
};

/// The lock of the list of loaded files.
std::unique_lock<std::mutex> lock_files();
/// The first loaded file, in the order of loading. Under the lock.
IniFile* first_file() noexcept;

inline bool names_nothing(const char* name) noexcept { return name == nullptr || *name == '\0'; }

}  // namespace kel::config
