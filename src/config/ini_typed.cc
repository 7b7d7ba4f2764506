// Values with a type: one getter behind all numbers, whose differences are in a row of NumberRules.
// Numbers have the same form in every locale, as the files of one host are read on another.
#include <kel/inifile.h>
#include <kel/text.h>

#include <locale.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/ascii.h"
#include "internal/report.h"
#include "internal/text_traits.h"

using namespace kel::internal;

namespace {

constexpr size_t kShortText = 32;
constexpr size_t kLongText = 64;

template <class T, class Parsed>
struct NumberRules {
  using Type = T;
  const char* function;  // under which a null pointer is reported
  size_t capacity;       // of the text that is read
  int unconverted;       // the result for a text that is not a number and nothing else
  Parsed (*parse)(const char* text, char** end);
};

constexpr NumberRules<int, long> kInteger = {
    "InifileGetIntegerA", kShortText, 0, [](const char* s, char** e) { return strtol(s, e, 10); }};
constexpr NumberRules<unsigned, unsigned long> kUInteger = {
    "InifileGetUIntegerA", kShortText, 0,
    [](const char* s, char** e) { return strtoul(s, e, 10); }};
constexpr NumberRules<short, long> kShort = {
    "InifileGetShortA", kShortText, 0, [](const char* s, char** e) { return strtol(s, e, 10); }};
constexpr NumberRules<unsigned short, unsigned long> kUShort = {
    "InifileGetUShortA", kShortText, 0, [](const char* s, char** e) { return strtoul(s, e, 10); }};
constexpr NumberRules<long, long long> kLongLong = {
    "InifileGetLongLongA", kLongText, -1,
    [](const char* s, char** e) { return strtoll(s, e, 10); }};
constexpr NumberRules<unsigned long, unsigned long long> kULongLong = {
    "InifileGetULongLongA", kLongText, -1,
    [](const char* s, char** e) { return strtoull(s, e, 10); }};
constexpr NumberRules<unsigned long, uint64_t> kSize = {"InifileGetSizeA", kLongText, -1,
                                                        strtosize};

int fail_null(const char* function, int result = -1) {
  return fail(result, EINVAL, "%s: invalid NULL parameter", function);
}

/// The decimal digits of a number.
template <class T>
class Digits {
 public:
  explicit Digits(T value) noexcept { *std::to_chars(text_, text_ + 24, value).ptr = '\0'; }
  const char* c_str() const noexcept { return text_; }

 private:
  char text_[25];
};

template <class Rules, class T = typename Rules::Type>
int get_number(const Rules& rules, const char* section, const char* key, T* out, T default_value,
               const char* path) {
  if (out == nullptr) return fail_null(rules.function);
  char text[kLongText];
  const int result = InifileGetValueA(section, key, text, static_cast<int>(rules.capacity),
                                      Digits<T>(default_value).c_str(), path);
  if (result == 0) return 0;
  char* end = text;
  const ErrnoGuard keep;
  errno = 0;
  *out = static_cast<T>(rules.parse(text, &end));
  if (errno == ERANGE || *end != '\0') return rules.unconverted;
  return result;
}

locale_t c_locale() noexcept {
  static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
  return locale;
}

/// strtod(3) with the point of the C locale.
double parse_double(const char* text, char** end) { return ::strtod_l(text, end, c_locale()); }

/// Writes a floating point number as printf does in the C locale, and `tail`; cut to the buffer.
template <class T, size_t Capacity>
void format_float(char (&to)[Capacity], T value, std::chars_format form, int precision,
                  std::string_view tail = {}) noexcept {
  char whole[128];
  const auto written =
      std::to_chars(whole, whole + sizeof whole - tail.size() - 1, value, form, precision);
  *std::copy(tail.begin(), tail.end(), written.ptr) = '\0';
  copy_cut(to, whole);
}

/// Reads a number, which has at least one digit, and one '%' with any white space around it.
bool parse_percentage(const char* text, double& value) {
  char* end = nullptr;
  const ErrnoGuard keep;
  errno = 0;
  const double number = parse_double(text, &end);
  if (end == text || (number == 0 && errno == ERANGE)) return false;
  const std::string_view digits(text, static_cast<size_t>(end - text));
  if (digits.find_first_of("0123456789") == std::string_view::npos) return false;
  int signs = 0;
  for (; *end != '\0'; ++end) {
    if (*end == '%')
      ++signs;
    else if (*end != ' ' && (*end < '\t' || *end > '\r'))
      return false;
  }
  if (signs != 1) return false;
  value = number;
  return true;
}

template <class T>
int save_number(const char* section, const char* key, T value, const char* path) {
  return InifileSaveValueA(section, key, Digits<T>(value).c_str(), path);
}

}  // namespace

int InifileGetIntegerA(const char* section, const char* key, int* out, int defaultValue,
                       const char* path) {
  return get_number(kInteger, section, key, out, defaultValue, path);
}
int InifileGetUIntegerA(const char* section, const char* key, unsigned int* out,
                        unsigned int defaultValue, const char* path) {
  return get_number(kUInteger, section, key, out, defaultValue, path);
}
int InifileGetShortA(const char* section, const char* key, short* out, short defaultValue,
                     const char* path) {
  return get_number(kShort, section, key, out, defaultValue, path);
}
int InifileGetUShortA(const char* section, const char* key, unsigned short* out,
                      unsigned short defaultValue, const char* path) {
  return get_number(kUShort, section, key, out, defaultValue, path);
}
int InifileGetLongLongA(const char* section, const char* key, long* out, long defaultValue,
                        const char* path) {
  return get_number(kLongLong, section, key, out, defaultValue, path);
}
int InifileGetULongLongA(const char* section, const char* key, unsigned long* out,
                         unsigned long defaultValue, const char* path) {
  return get_number(kULongLong, section, key, out, defaultValue, path);
}
int InifileGetSizeA(const char* section, const char* key, unsigned long* out,
                    unsigned long defaultValue, const char* path) {
  return get_number(kSize, section, key, out, defaultValue, path);
}

int InifileGetFloatA(const char* section, const char* key, float* out, const char* path,
                     float defaultValue) {
  if (out == nullptr) return fail_null(__func__);
  char text[kLongText];
  char default_text[kLongText];
  format_float(default_text, defaultValue, std::chars_format::fixed, 32);
  const int result = InifileGetValueA(section, key, text, sizeof text, default_text, path);
  if (result != 0) {
    const ErrnoGuard keep;
    *out = static_cast<float>(parse_double(text, nullptr));
  }
  return result;
}

int InifileGetBooleanA(const char* section, const char* key, int* out, int defaultValue,
                       const char* path) {
  if (out == nullptr) return fail_null(__func__, 0);
  *out = defaultValue;
  char text[kShortText];
  const int result =
      InifileGetValueA(section, key, text, sizeof text, Digits<int>(defaultValue).c_str(), path);
  if (result != 0) {
    const char first = to_lower(text[0]);
    *out = first == 't' || first == 'y' || first == '1' ? 1 : 0;
  }
  return result;
}

int InifileGetPercentageA(const char* section, const char* key, double* out, const char* path,
                          double defaultPercent) {
  if (out == nullptr) return fail_null(__func__);
  char text[kLongText];
  char default_text[kLongText];
  format_float(default_text, defaultPercent, std::chars_format::general, 48, "%");
  const int result = InifileGetValueA(section, key, text, sizeof text, default_text, path);
  if (result == 0) return 0;
  return parse_percentage(text, *out) ? result : -1;
}

int InifileGetPathA(const char* section, const char* key, char* buf, int buflen,
                    const char* defaultValue, const char* path) {
  if (buf == nullptr) return fail_null(__func__);
  const int result = InifileGetValueA(section, key, buf, buflen, defaultValue, path);
  if (result != 0 && std::strchr(buf, '/') == nullptr)
    for (char* c = buf; (c = std::strchr(c, '\\')) != nullptr; ++c) *c = '/';
  return result;
}

int InifileSaveIntegerA(const char* section, const char* key, int value, const char* path) {
  return save_number(section, key, value, path);
}
int InifileSaveUIntegerA(const char* section, const char* key, unsigned int value,
                         const char* path) {
  return save_number(section, key, static_cast<int>(value), path);
}
int InifileSaveShortA(const char* section, const char* key, short value, const char* path) {
  return save_number(section, key, value, path);
}
int InifileSaveUShortA(const char* section, const char* key, unsigned short value,
                       const char* path) {
  return save_number(section, key, value, path);
}
int InifileSaveLongLongA(const char* section, const char* key, long value, const char* path) {
  return save_number(section, key, value, path);
}
int InifileSaveULongLongA(const char* section, const char* key, unsigned long value,
                          const char* path) {
  return save_number(section, key, value, path);
}
int InifileSaveBooleanA(const char* section, const char* key, unsigned int value,
                        const char* path) {
  return save_number(section, key, value, path);
}

int InifileSaveFloatA(const char* section, const char* key, float value, const char* path) {
  char text[128];
  format_float(text, value, std::chars_format::fixed, 48);
  return InifileSaveValueA(section, key, text, path);
}

int InifileSaveSizeA(const char* section, const char* key, unsigned long value, const char* path) {
  char text[KEL_SIZE_TEXT];
  return InifileSaveValueA(section, key, sizetostr(text, sizeof text, value), path);
}
