// Byte counts and their units as text, narrow and wide from one template each.
#include <kel/text.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "internal/ascii.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "internal/text_traits.h"

namespace {

using namespace kel::internal;

constexpr char kUnits[] = "KMGTPE";  // for exponents from 1

/// How often `value`, not 0, can be divided by `base`; what is left replaces it.
unsigned divide_out(std::uint64_t& value, std::uint64_t base) {
  unsigned times = 0;
  for (; value % base == 0; value /= base) ++times;
  return times;
}

struct ExactSize {
  std::uint64_t number;
  char unit[4];  // "", "KB", "KiB" ...
};

ExactSize exact_size(std::uint64_t value) {
  if (value == 0) return {0, ""};
  std::uint64_t binary = value, decimal = value;
  const unsigned binary_exponent = divide_out(binary, 1024);
  const unsigned decimal_exponent = divide_out(decimal, 1000);
  if (decimal_exponent > binary_exponent)
    return {decimal, {kUnits[decimal_exponent - 1], 'B', '\0', '\0'}};
  if (binary_exponent > 0) return {binary, {kUnits[binary_exponent - 1], 'i', 'B', '\0'}};
  return {value, ""};
}

template <class Char>
Char* print_exact(const char* function, Char* buf, std::size_t n, std::uint64_t value) {
  if (buf == nullptr || n == 0)
    return fail<Char*>(nullptr, EINVAL, "%s: invalid NULL parameter", function);
  auto [number, unit] = exact_size(value);
  const std::size_t unit_length = std::strlen(unit);
  if (n <= unit_length) return fail<Char*>(nullptr, ENOBUFS, "%s: buffer too short", function);
  Char* first = buf + n - 1 - unit_length;
  std::copy(unit, unit + unit_length + 1, first);
  do {
    if (first == buf) return fail_quietly<Char*>(nullptr, ENOBUFS);
    *--first = static_cast<Char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  return first;
}

/// What snprintf() would do; its result.
int format_rounded(char* buf, std::size_t n, std::uint64_t value, int precision) {
  unsigned exponent = 0;
  for (std::uint64_t rest = value; rest > 1024; rest >>= 10) ++exponent;
  if (exponent == 0) return std::snprintf(buf, n, "%lu bytes", value);
  const std::uint64_t unit = std::uint64_t{1} << (10 * exponent);
  const char letter = kUnits[exponent - 1];
  if (value % unit == 0) return std::snprintf(buf, n, "%lu %ciB", value / unit, letter);
  return std::snprintf(buf, n, "%.*f %ciB", precision,
                       static_cast<double>(value) / static_cast<double>(unit), letter);
}

char* print_rounded(char* buf, std::size_t n, std::uint64_t value, int precision) {
  return format_rounded(buf, n, value, precision) < 0 ? nullptr : buf;
}

/// The narrow text widened, since swprintf() fails where snprintf() cuts.
wchar_t* print_rounded(wchar_t* buf, std::size_t n, std::uint64_t value, int precision) {
  char usual[64];
  MallocPtr<char> longer;
  const char* text = usual;
  const int length = format_rounded(usual, sizeof usual, value, precision);
  if (length < 0) return nullptr;
  if (static_cast<std::size_t>(length) >= sizeof usual) {
    const std::size_t size = static_cast<std::size_t>(length) + 1;
    longer.reset(static_cast<char*>(std::malloc(size)));
    if (longer == nullptr) return fail_allocation<wchar_t*>(nullptr, size, "sizetofloatwcs");
    if (format_rounded(longer.get(), size, value, precision) < 0) return nullptr;
    text = longer.get();
  }
  std::mbstate_t state{};  // the decimal point may be any character of the locale
  const std::size_t written = std::mbsrtowcs(buf, &text, n, &state);
  if (written == static_cast<std::size_t>(-1)) return nullptr;
  buf[std::min(written, n - 1)] = L'\0';
  return buf;
}

template <class Char>
Char* print_rounded(const char* function, Char* buf, std::size_t n, std::uint64_t value,
                    int precision) {
  if (buf == nullptr || n == 0 || precision < 0)
    return fail<Char*>(nullptr, EINVAL, "%s: invalid NULL parameter", function);
  return print_rounded(buf, n, value, precision);
}

std::uint64_t power(std::uint64_t base, std::size_t exponent) {
  std::uint64_t result = 1;
  for (; exponent != 0; --exponent) result *= base;
  return result;
}

/// The multiplier of the unit at `s`, which moves past it.
template <class Char>
std::uint64_t take_unit(const Char*& s) {
  std::uint64_t multiplier = 1;
  for (std::size_t i = 0; kUnits[i] != '\0'; ++i) {
    if (to_lower(*s) != to_lower(static_cast<Char>(kUnits[i]))) continue;
    ++s;
    const bool binary = to_lower(*s) == 'i';
    if (binary) ++s;
    multiplier = power(binary ? 1024 : 1000, i + 1);
    break;
  }
  if (to_lower(*s) == 'b') ++s;
  return multiplier;
}

/// Hands back how far a text was read, through the pointer to variable text that strtol() made
/// customary.
template <class Char>
void set_end(Char** end, const Char* at) {
  if (end != nullptr) *end = const_cast<Char*>(at);
}

template <class Char>
std::uint64_t read_unit(const char* function, const Char* s, Char** end) {
  if (s == nullptr) {
    set_end(end, s);
    return fail<std::uint64_t>(1, EINVAL, "%s: invalid NULL parameter", function);
  }
  const std::uint64_t multiplier = take_unit(s);
  set_end(end, s);
  return multiplier;
}

unsigned long long read_number(const char* s, char** end) { return std::strtoull(s, end, 10); }
unsigned long long read_number(const wchar_t* s, wchar_t** end) {
  return std::wcstoull(s, end, 10);
}

template <class Char>
std::uint64_t read_size(const char* function, const Char* s, Char** end) {
  if (s == nullptr) {
    set_end(end, s);
    return fail<std::uint64_t>(0, EINVAL, "%s: invalid NULL parameter", function);
  }
  errno = 0;
  Char* after_number;
  const std::uint64_t number = read_number(s, &after_number);
  const Char* at = after_number;
  if (errno != 0) {
    set_end(end, at);
    return number;
  }
  const std::uint64_t multiplier = take_unit(at);
  set_end(end, at);
  std::uint64_t size = 0;
  if (__builtin_mul_overflow(number, multiplier, &size))
    return fail(UINT64_MAX, ERANGE, "%s: number above positive range", function);
  return size;
}

}  // namespace

char* sizetostr(char* buf, size_t n, uint64_t value) {
  return print_exact(__func__, buf, n, value);
}
wchar_t* sizetowcs(wchar_t* buf, size_t n, uint64_t value) {
  return print_exact(__func__, buf, n, value);
}

char* sizetofloatstr(char* buf, size_t n, uint64_t value, int precision) {
  return print_rounded(__func__, buf, n, value, precision);
}
wchar_t* sizetofloatwcs(wchar_t* buf, size_t n, uint64_t value, int precision) {
  return print_rounded(__func__, buf, n, value, precision);
}

uint64_t strtosize(const char* s, char** end) { return read_size(__func__, s, end); }
uint64_t wcstosize(const wchar_t* s, wchar_t** end) { return read_size(__func__, s, end); }

uint64_t strtosizemult(const char* s, char** end) { return read_unit(__func__, s, end); }
uint64_t wcstosizemult(const wchar_t* s, wchar_t** end) { return read_unit(__func__, s, end); }
