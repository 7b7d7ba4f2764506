#include "os/wide_path.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "internal/report.h"

namespace kel::internal {
namespace {

constexpr std::size_t kFailed = static_cast<std::size_t>(-1);
constexpr char kConversion[] = "__tomb";  // the name of the inner steps in reports
constexpr char kGetcwd[] = "wcsgetcwd";

/// As much of `path` as fits in `capacity` bytes; a result of `capacity` means that it was cut.
std::size_t to_multibyte(char* buf, const wchar_t* path, std::size_t capacity) noexcept {
  std::mbstate_t state = {};
  return std::wcsrtombs(buf, &path, capacity, &state);
}

}  // namespace

WidePath::WidePath(const wchar_t* path, const char* function) noexcept {
  if (path == nullptr) return;
  const std::size_t length = to_multibyte(stack_, path, kStackSize - 1);
  if (length < kStackSize - 1) {
    text_ = stack_;
    return;
  }
  if (length != kFailed && convert_long(path, function)) return;
  converted_ = false;
  if (function != nullptr) report_error(errno, "%s: could not convert to multi-byte", function);
}

bool WidePath::convert_long(const wchar_t* path, const char* function) noexcept {
  const bool quiet = function == nullptr;
  const std::size_t length = to_multibyte(nullptr, path, 0);
  if (length == kFailed)
    return quiet ? false
                 : fail(false, errno, "%s: could not determine number of bytes to convert",
                        kConversion);
  heap_.reset(static_cast<char*>(std::malloc(length + 1)));
  if (heap_ == nullptr)
    return quiet ? false : fail(false, ENOMEM, "%s: could not allocate memory", kConversion);
  to_multibyte(heap_.get(), path, length + 1);
  text_ = heap_.get();
  return true;
}

std::size_t working_directory(char* buf, std::size_t capacity) {
  if (::getcwd(buf, capacity) == nullptr)
    return fail(std::size_t{0}, errno, "%s: could not get current working directory", kGetcwd);
  return std::strlen(buf);
}

std::size_t working_directory(wchar_t* buf, std::size_t capacity) {
  char bytes[kWorkingDirectorySize];
  if (working_directory(bytes, sizeof bytes) == 0) return 0;
  const char* from = bytes;
  std::mbstate_t state = {};
  const std::size_t length = std::mbsrtowcs(buf, &from, capacity, &state);
  if (length == kFailed)
    return fail(std::size_t{0}, errno, "%s (%u): could not convert multi-byte to wide", kGetcwd,
                static_cast<unsigned>(__LINE__));
  if (length == capacity)
    return fail(std::size_t{0}, ENOBUFS, "%s: buffer too small for path", kGetcwd);
  return length;
}

}  // namespace kel::internal
