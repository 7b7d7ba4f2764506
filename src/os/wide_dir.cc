// Directory streams with wide names.
#include <kel/wide.h>

#include <dirent.h>

#include <cerrno>
#include <cwchar>
#include <memory>
#include <new>

#include "internal/report.h"
#include "os/wide_path.h"

/// The system's stream and the entry last given out.
struct wcsDIR {
  DIR* system;
  wcsdirent entry;
};

namespace {

using kel::internal::ErrnoGuard;
using kel::internal::fail;
using kel::internal::WidePath;

/// Fills `entry`; false after a report when the name does not fit its wide form.
bool convert(const char* function, const dirent& found, wcsdirent* entry) {
  const char* name = found.d_name;
  std::mbstate_t state{};
  const size_t length = std::mbsrtowcs(entry->d_name, &name, WCS_NAME_SIZE, &state);
  if (length == static_cast<size_t>(-1) || length == WCS_NAME_SIZE) {
    const int code = length == WCS_NAME_SIZE ? ENAMETOOLONG : errno;
    return fail(false, code, "%s: could not convert directory", function);
  }
  entry->d_ino = found.d_ino;
  entry->d_type = found.d_type;
  return true;
}

template <class Result>
Result fail_null(Result failure, const char* function) {
  return fail(failure, EINVAL, "%s: invalid NULL parameter", function);
}

}  // namespace

wcsDIR* wcsopendir(const wchar_t* path) {
  if (path == nullptr) return fail_null<wcsDIR*>(nullptr, __func__);
  const WidePath converted(path, __func__);
  if (!converted) return nullptr;
  std::unique_ptr<wcsDIR> stream(new (std::nothrow) wcsDIR{});
  if (stream == nullptr)
    return kel::internal::fail_allocation<wcsDIR*>(nullptr, sizeof(wcsDIR), __func__);
  stream->system = ::opendir(converted.c_str());
  if (stream->system != nullptr) return stream.release();
  const ErrnoGuard keep;
  stream.reset();
  return nullptr;
}

wcsdirent* wcsreaddir(wcsDIR* stream) {
  if (stream == nullptr) return fail_null<wcsdirent*>(nullptr, __func__);
  const dirent* const found = ::readdir(stream->system);
  return found != nullptr && convert(__func__, *found, &stream->entry) ? &stream->entry : nullptr;
}

int wcsreaddir_r(wcsDIR* stream, wcsdirent* entry, wcsdirent** result) {
  if (stream == nullptr || entry == nullptr || result == nullptr) return fail_null(-1, __func__);
  *result = nullptr;
  const int before = errno;
  errno = 0;
  const dirent* const found = ::readdir(stream->system);
  if (found == nullptr && errno != 0)
    return fail(-1, errno, "%s: could not read directory", __func__);
  errno = before;
  if (found == nullptr) return 0;
  if (!convert(__func__, *found, entry)) return -1;
  *result = entry;
  return 0;
}

void wcsrewinddir(wcsDIR* stream) {
  if (stream == nullptr)
    fail_null(0, __func__);
  else
    ::rewinddir(stream->system);
}

int wcsclosedir(wcsDIR* stream) {
  if (stream == nullptr) return fail_null(-1, __func__);
  const std::unique_ptr<wcsDIR> owned(stream);
  return ::closedir(stream->system);
}

int wcsdirfd(wcsDIR* stream) {
  if (stream == nullptr) return fail_null(-1, __func__);
  return ::dirfd(stream->system);
}
