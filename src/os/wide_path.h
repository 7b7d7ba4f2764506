// Where wide text meets the system, which knows paths as bytes in the locale's encoding.
#pragma once

#include <cstddef>
#include <cwchar>

#include "internal/handles.h"

namespace kel::internal {

/// A wide path in the locale's multibyte form: on the stack up to 4,095 bytes, else on the heap.
/// Null stays null, so that the system call decides about it.
class WidePath {
 public:
  /// Converts `path`. A failure sets errno (EILSEQ, ENOMEM) and is reported under the name of
  /// `function`; with a null name it is not reported.
  WidePath(const wchar_t* path, const char* function) noexcept;
  WidePath(const WidePath&) = delete;
  WidePath& operator=(const WidePath&) = delete;

  /// Whether the path was converted.
  explicit operator bool() const noexcept { return converted_; }
  const char* c_str() const noexcept { return text_; }

 private:
  static constexpr std::size_t kStackSize = 4096;

  bool convert_long(const wchar_t* path, const char* function) noexcept;

  bool converted_ = true;
  const char* text_ = nullptr;
  MallocPtr<char> heap_;
  char stack_[kStackSize];
};

/// The longest working directory that is handled, terminator included.
inline constexpr std::size_t kWorkingDirectorySize = 4096;

/// Writes the working directory into `buf` and returns its length; 0 after a report under the name
/// "wcsgetcwd": the errors of getcwd(3), EILSEQ when it has no wide form, ENOBUFS when that does
/// not fit in `capacity` characters.
std::size_t working_directory(char* buf, std::size_t capacity);
std::size_t working_directory(wchar_t* buf, std::size_t capacity);

}  // namespace kel::internal
