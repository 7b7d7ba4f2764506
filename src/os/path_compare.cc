// The order of paths, of text and of version numbers. Both widths and both cases are one comparison
// over readers, which give one character after another.
#include <kel/path.h>

#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

#include "internal/ascii.h"
#include "internal/report.h"

namespace {

using kel::internal::ErrnoGuard;
using kel::internal::to_lower;

template <class Char>
constexpr Char kEmpty[1] = {};

template <class Char>
const Char* or_empty(const Char* text) {
  return text == nullptr ? kEmpty<Char> : text;
}

template <class Char>
int64_t value_of(Char c) {
  return static_cast<std::make_unsigned_t<std::conditional_t<sizeof(Char) == 1, char, int>>>(c);
}

/// Reads one text; 0 is its end.
template <class Char>
class Plain {
 public:
  explicit Plain(const Char* text) : at_(or_empty(text)) {}
  Char now() { return *at_; }
  void step() { ++at_; }

 private:
  const Char* at_;
};

/// Reads a directory, the separator and a name as one text; without a name, the directory.
template <class Char>
class Joined {
 public:
  Joined(const Char* directory, const Char* name, Char sep)
      : at_(or_empty(directory)),
        between_{sep},
        name_(or_empty(name)),
        left_(*name_ == 0 ? 0 : 2) {}
  Char now() {
    while (*at_ == 0 && left_ > 0) at_ = left_-- == 2 ? between_ : name_;
    return *at_;
  }
  void step() { ++at_; }

 private:
  const Char* at_;
  const Char between_[2];
  const Char* const name_;
  int left_;  // parts behind the one that is being read
};

struct AsIs {
  template <class Char>
  Char operator()(Char c) const {
    return c;
  }
};

struct Lowered {
  template <class Char>
  Char operator()(Char c) const {
    return to_lower(c);
  }
};

/// The separator comes after the end of a text and before everything else.
template <class Case, class Reader, class Char>
int compare(Reader a, Reader b, Char sep) {
  const Case in_case;
  for (;; a.step(), b.step()) {
    const Char x = in_case(a.now());
    const Char y = in_case(b.now());
    if (x != y) {
      if (x == sep) return y != 0 ? -1 : 1;
      if (y == sep) return x != 0 ? 1 : -1;
      return static_cast<int>(std::clamp<int64_t>(value_of(x) - value_of(y), -INT_MAX, INT_MAX));
    }
    if (x == 0) return 0;
  }
}

template <class Char>
int sign_of_order(const Char* a, const Char* b) {
  for (a = or_empty(a), b = or_empty(b); *a == *b; ++a, ++b)
    if (*a == 0) return 0;
  return value_of(*a) < value_of(*b) ? -1 : 1;
}

}  // namespace

int PathCompareA(const char* a, const char* b, char sep) {
  return compare<AsIs>(Plain(a), Plain(b), sep);
}
int PathCompareW(const wchar_t* a, const wchar_t* b, wchar_t sep) {
  return compare<AsIs>(Plain(a), Plain(b), sep);
}

int PathCaseCompareA(const char* a, const char* b, char sep) {
  return compare<Lowered>(Plain(a), Plain(b), sep);
}
int PathCaseCompareW(const wchar_t* a, const wchar_t* b, wchar_t sep) {
  return compare<Lowered>(Plain(a), Plain(b), sep);
}

int PathCompareCombinedA(const char* dir1, const char* name1, const char* dir2, const char* name2,
                         char sep) {
  return compare<AsIs>(Joined(dir1, name1, sep), Joined(dir2, name2, sep), sep);
}
int PathCompareCombinedW(const wchar_t* dir1, const wchar_t* name1, const wchar_t* dir2,
                         const wchar_t* name2, wchar_t sep) {
  return compare<AsIs>(Joined(dir1, name1, sep), Joined(dir2, name2, sep), sep);
}

int PathCaseCompareCombinedA(const char* dir1, const char* name1, const char* dir2,
                             const char* name2, char sep) {
  return compare<Lowered>(Joined(dir1, name1, sep), Joined(dir2, name2, sep), sep);
}
int PathCaseCompareCombinedW(const wchar_t* dir1, const wchar_t* name1, const wchar_t* dir2,
                             const wchar_t* name2, wchar_t sep) {
  return compare<Lowered>(Joined(dir1, name1, sep), Joined(dir2, name2, sep), sep);
}

int BufCompareA(const char* a, const char* b) { return sign_of_order(a, b); }
int BufCompareW(const wchar_t* a, const wchar_t* b) { return sign_of_order(a, b); }

int BufCaseCompareA(const char* a, const char* b) { return ::strcasecmp(or_empty(a), or_empty(b)); }
int BufCaseCompareW(const wchar_t* a, const wchar_t* b) {
  return ::wcscasecmp(or_empty(a), or_empty(b));
}

int ProtocolCompare(const char* a, const char* b) {
  constexpr int kNumbers = 5;
  const ErrnoGuard keep;  // strtoul(3) sets it for numbers out of range
  a = or_empty(a);
  b = or_empty(b);
  for (int i = 0; i < kNumbers; ++i) {
    char* behind_a;
    char* behind_b;
    const auto x = static_cast<int32_t>(std::strtoul(a, &behind_a, 10));
    const auto y = static_cast<int32_t>(std::strtoul(b, &behind_b, 10));
    if (x != y) return x < y ? -1 : 1;
    if (*behind_a == '\0' || *behind_b == '\0') return 0;
    a = behind_a + 1;
    b = behind_b + 1;
  }
  return 0;
}
