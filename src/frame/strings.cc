// Bounded strings: two templates (copy and join) behind fourteen names. What differs between the
// members is data: a row of CopyRules.
#include <kel/strings.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "internal/report.h"
#include "internal/text_traits.h"

namespace {

using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::report_warning;
using kel::internal::TextTraits;

constexpr size_t kWhole = SIZE_MAX;  // as a count: the whole source is wanted

enum class OnCut { kError, kWarningWithText };

struct CopyRules {
  const char* name;          // under which the copy reports
  bool reports_null_source;  // else a null source only sets errno
  OnCut on_cut = OnCut::kError;
};

constexpr CopyRules kStrcpy = {"kelstrcpy", true, OnCut::kWarningWithText};
constexpr CopyRules kStrncpy = {"kelstrncpy", true};
constexpr CopyRules kStrlcpy = {"kelstrlcpy", true};
constexpr CopyRules kStrlncpy = {"kelstrlncpy", false};
constexpr CopyRules kWcscpy = {"kelwcscpy", false};
constexpr CopyRules kWcsncpy = {"kelwcsncpy", true};
constexpr CopyRules kWcslcpy = {"kelwcslcpy", true};
constexpr CopyRules kWcslncpy = {"kelwcslncpy", true};

template <class Char>
Char* report_cut(const CopyRules& rules, const Char* src, size_t capacity) {
  if constexpr (sizeof(Char) == 1) {
    if (rules.on_cut == OnCut::kWarningWithText) {
      report_warning(ENOBUFS, "%s: insufficient buffer, src:%s, dst size=%lu", rules.name, src,
                     capacity);
      return fail_quietly<Char*>(nullptr, ENOBUFS);
    }
  }
  return fail<Char*>(nullptr, ENOBUFS, "%s: insufficient buffer", rules.name);
}

/// Copies the first `wanted` characters of `src` at most; `dst`, or null after a report.
template <class Char>
Char* copy(const CopyRules& rules, Char* dst, const Char* src, size_t capacity, size_t wanted) {
  const bool writable = dst != nullptr && capacity != 0;
  if (src == nullptr) {
    if (writable) dst[0] = 0;
    return rules.reports_null_source
               ? fail<Char*>(nullptr, EINVAL, "%s: invalid NULL src parameter", rules.name)
               : fail_quietly<Char*>(nullptr, EINVAL);
  }
  if (!writable)
    return fail<Char*>(nullptr, ENOBUFS, "%s: invalid NULL or zero-length destination", rules.name);
  const size_t length = TextTraits<Char>::length(src, std::min(wanted, capacity));
  const size_t kept = std::min(length, capacity - 1);
  std::memmove(dst, src, kept * sizeof(Char));
  dst[kept] = 0;
  return kept == length ? dst : report_cut(rules, src, capacity);
}

/// As copy(), but the result is the size that the wanted text needs; 0 for a null source.
template <class Char>
size_t sized_copy(const CopyRules& rules, Char* dst, const Char* src, size_t capacity,
                  size_t wanted) {
  const bool fitted = copy(rules, dst, src, capacity, wanted) != nullptr;
  if (src == nullptr) return 0;
  const Char* measured = fitted ? dst : src;
  return 1 + (wanted == kWhole ? TextTraits<Char>::length(measured)
                               : TextTraits<Char>::length(measured, wanted));
}

/// Appends to the text in `dst`; where the appended text starts, or null after a report.
template <class Char>
Char* join(const char* name, const CopyRules& rules, Char* dst, const Char* src, size_t capacity,
           size_t wanted) {
  const bool writable = dst != nullptr && capacity != 0;
  const size_t length = writable ? TextTraits<Char>::length(dst, capacity) : 0;
  if (length == capacity || !writable) {
    if (writable) dst[capacity - 1] = 0;
    return fail<Char*>(nullptr, EINVAL, "%s: destination too small", name);
  }
  return copy(rules, dst + length, src, capacity - length, wanted);
}

template <class Char>
size_t bounded_length(const Char* s, size_t max) {
  if (s == nullptr || max == 0) return fail_quietly(max, EINVAL);
  const size_t length = TextTraits<Char>::length(s, max);
  return length < max ? length : fail_quietly(max, EINVAL);
}

}  // namespace

char* kelstrcpy(char* dst, const char* src, size_t dstsize) {
  return copy(kStrcpy, dst, src, dstsize, kWhole);
}
wchar_t* kelwcscpy(wchar_t* dst, const wchar_t* src, size_t dstsize) {
  return copy(kWcscpy, dst, src, dstsize, kWhole);
}

char* kelstrncpy(char* dst, const char* src, size_t dstsize, size_t n) {
  return copy(kStrncpy, dst, src, dstsize, n);
}
wchar_t* kelwcsncpy(wchar_t* dst, const wchar_t* src, size_t dstsize, size_t n) {
  return copy(kWcsncpy, dst, src, dstsize, n);
}

size_t kelstrlcpy(char* dst, const char* src, size_t dstsize) {
  return sized_copy(kStrlcpy, dst, src, dstsize, kWhole);
}
size_t kelwcslcpy(wchar_t* dst, const wchar_t* src, size_t dstsize) {
  return sized_copy(kWcslcpy, dst, src, dstsize, kWhole);
}

size_t kelstrlncpy(char* dst, const char* src, size_t dstsize, size_t n) {
  return sized_copy(kStrlncpy, dst, src, dstsize, n);
}
size_t kelwcslncpy(wchar_t* dst, const wchar_t* src, size_t dstsize, size_t n) {
  return sized_copy(kWcslncpy, dst, src, dstsize, n);
}

char* kelstrcat(char* dst, const char* src, size_t dstsize) {
  return join("kelstrcat", kStrcpy, dst, src, dstsize, kWhole);
}
wchar_t* kelwcscat(wchar_t* dst, const wchar_t* src, size_t dstsize) {
  return join("kelwcscat", kWcscpy, dst, src, dstsize, kWhole);
}

char* kelstrncat(char* dst, const char* src, size_t dstsize, size_t n) {
  return join("kelstrncat", kStrncpy, dst, src, dstsize, n);
}
wchar_t* kelwcsncat(wchar_t* dst, const wchar_t* src, size_t dstsize, size_t n) {
  return join("kelwcsncat", kWcsncpy, dst, src, dstsize, n);
}

size_t kelstrlen(const char* s, size_t maxlen) { return bounded_length(s, maxlen); }
size_t kelwcslen(const wchar_t* s, size_t maxlen) { return bounded_length(s, maxlen); }
