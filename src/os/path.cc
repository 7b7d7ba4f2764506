// Absolute, normalised paths and their parts, in both widths.
#include <kel/path.h>
#include <kel/strings.h>

#include <algorithm>
#include <iterator>

#include "internal/report.h"
#include "internal/text_traits.h"
#include "os/wide_path.h"

namespace {

using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::kWorkingDirectorySize;
using kel::internal::TextTraits;
using kel::internal::working_directory;

/// Takes what does not fit: tells the capacity that would do.
int refuse_size(size_t* size, size_t needed) {
  *size = needed;
  return fail_quietly(-1, ENOBUFS);
}

int fail_size(const char* function, const char* text, size_t* size, size_t needed) {
  *size = needed;
  return fail(-1, ENOBUFS, "%s: %s", function, text);
}

template <class Char>
size_t behind_last_slash(const Char* path, size_t length) {
  while (length > 0 && path[length - 1] != '/') --length;
  return length;
}

/// Takes ".", ".." and empty components out of an absolute path, in place; keeps a slash at its
/// end.
template <class Char>
size_t normalise(Char* path, size_t length) {
  Char* to = path;  // behind the last component kept; the slash before the next one stands there
  const Char* const end = path + length;
  const bool names_directory = end[-1] == '/';
  for (const Char* from = path; from != end;) {
    while (from != end && *from == '/') ++from;
    const Char* const next = std::find(from, end, Char('/'));
    const auto count = static_cast<size_t>(next - from);
    if (count == 2 && from[0] == '.' && from[1] == '.') {
      while (to != path && *--to != '/') {
      }
    } else if (count > 1 || (count == 1 && *from != '.')) {
      *to++ = '/';
      to = std::copy(from, next, to);
    }
    from = next;
  }
  if (to == path || names_directory) *to++ = '/';
  *to = 0;
  return static_cast<size_t>(to - path);
}

/// Writes `path` (`length` characters; it may lie at the start of `out`) as an absolute path. An
/// absolute one has to fit in `*size` characters as it is.
template <class Char>
int make_absolute(const Char* path, size_t length, Char* out, size_t* size) {
  if (length != 0 && *path == '/') {
    std::copy_n(path, length, out);
  } else {
    Char directory[kWorkingDirectorySize];
    const size_t above = working_directory(directory, kWorkingDirectorySize);
    if (above == 0) {
      *size = 0;
      return -1;
    }
    const size_t needed = above + length + 2;
    if (needed > *size) return refuse_size(size, needed);
    std::copy_backward(path, path + length, out + above + 1 + length);
    std::copy_n(directory, above, out);
    out[above] = '/';
    length += length == 0 ? above : above + 1;
  }
  *size = normalise(out, length);
  return 0;
}

template <class Char>
int real_path(const char* function, const Char* path, Char* out, size_t* size) {
  if (path == nullptr || out == nullptr || size == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", function);
  size_t length = TextTraits<Char>::length(path);
  if (length + 1 > *size)
    return fail_size(function, "size of path too large for buffer", size, length + 1);
  while (length > 1 && path[length - 1] == '/') --length;
  return make_absolute(path, length, out, size);
}

template <class Char>
int resolve_path(const char* function, const Char* path, Char* dir_out, Char* file_out,
                 size_t* dir_size, size_t* file_size) {
  if (path == nullptr || dir_out == nullptr || dir_size == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", function);
  const size_t length = TextTraits<Char>::length(path);
  if (length + 1 > *dir_size) {
    if (file_size != nullptr) *file_size = length + 1;
    return fail_size(function, "size of path too large for buffer", dir_size, length + 1);
  }
  const size_t cut = behind_last_slash(path, length);
  if (file_size != nullptr) {
    const size_t name_length = length - cut;
    if (name_length + 1 > *file_size)
      return fail_size(function, "buffer too small", file_size, name_length + 1);
    *file_size = name_length;
    if (file_out != nullptr) {
      std::copy_n(path + cut, name_length, file_out);
      file_out[name_length] = 0;
    }
  }
  static constexpr Char kHere[] = {'.', '/'};
  return cut == 0 ? make_absolute(kHere, std::size(kHere), dir_out, dir_size)
                  : make_absolute(path, cut, dir_out, dir_size);
}

template <class Char>
Char* to_native(Char* path) {
  if (path == nullptr) return nullptr;
  const Char* const end = path + TextTraits<Char>::length(path);
  if (std::find<const Char*>(path, end, Char('/')) == end)
    std::replace(path, path + (end - path), Char('\\'), Char('/'));
  return path;
}

}  // namespace

int RealPathA(const char* path, char* out, size_t* size) {
  return real_path(__func__, path, out, size);
}
int RealPathW(const wchar_t* path, wchar_t* out, size_t* size) {
  return real_path(__func__, path, out, size);
}

int ResolvePathA(const char* path, char* dirOut, char* fileOut, size_t* dirSize, size_t* fileSize) {
  return resolve_path(__func__, path, dirOut, fileOut, dirSize, fileSize);
}
int ResolvePathW(const wchar_t* path, wchar_t* dirOut, wchar_t* fileOut, size_t* dirSize,
                 size_t* fileSize) {
  return resolve_path(__func__, path, dirOut, fileOut, dirSize, fileSize);
}

int StatPathA(const char* path, char* out, size_t size) {
  if (kelstrcpy(out, path, size) != nullptr) return 0;
  return fail(-1, errno, "%s: could not copy path", __func__);
}
int StatPathW(const wchar_t* path, wchar_t* out, size_t size) {
  if (kelwcscpy(out, path, size) != nullptr) return 0;
  return fail(-1, errno, "%s: could not copy path", __func__);
}

char* PathToNativePathA(char* path) { return to_native(path); }
wchar_t* PathToNativePathW(wchar_t* path) { return to_native(path); }
