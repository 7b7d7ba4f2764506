// Yes and no, times of day, percentages, and string functions that work in place.
#include <kel/base64.h>
#include <kel/text.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "internal/ascii.h"
#include "internal/report.h"

namespace {

using namespace kel::internal;

bool is_space(char c) {
  return (kelascii_ctype_table[static_cast<unsigned char>(c)] & KELASCII_SPACE) != 0;
}

char* skip_space(char* s) {
  while (is_space(*s)) ++s;
  return s;
}

template <class Char>
bool starts_with(const Char* text, std::string_view lower_word) {
  for (const char c : lower_word)
    if (to_lower(*text++) != static_cast<Char>(c)) return false;
  return true;
}

struct Word {
  std::string_view text;
  int value;
};
// In the order in which they are tried.
constexpr Word kWords[] = {{"yes", 1}, {"y", 1}, {"1", 1}, {"true", 1},  {"t", 1},
                           {"no", 0},  {"n", 0}, {"0", 0}, {"false", 0}, {"f", 0}};

template <class Char>
int read_bool(const char* function, const Char* s, Char** end) {
  const auto set_end = [end](const Char* at) {
    if (end != nullptr) *end = const_cast<Char*>(at);
  };
  set_end(s);
  if (s == nullptr) return fail(0, EINVAL, "%s: invalid NULL parameter", function);
  for (const Word& word : kWords) {
    if (!starts_with(s, word.text)) continue;
    set_end(s + word.text.size());
    return word.value;
  }
  return fail(0, ERANGE, "%s: value outside of range", function);
}

}  // namespace

int strtobool(const char* s, char** end) { return read_bool(__func__, s, end); }
int wcstobool(const wchar_t* s, wchar_t** end) { return read_bool(__func__, s, end); }

int strtotimeofday(const char* s, char** end) {
  if (end != nullptr) *end = const_cast<char*>(s);
  if (s == nullptr) return fail(0, EINVAL, "%s: invalid NULL parameter", __func__);
  char* at;
  errno = 0;
  if (!is_digit(*s)) return fail(0, ERANGE, "%s: hour value not a digit", __func__);
  const unsigned long hour = std::strtoul(s, &at, 10);
  if (errno != 0) return 0;
  if (hour >= 24 || *at != ':')
    return fail(0, ERANGE, "%s: hour value outside of range or inproper format", __func__);

  if (!is_digit(*++at)) return fail(0, ERANGE, "%s: minute value not a digit", __func__);
  const unsigned long minute = std::strtoul(at, &at, 10);
  if (minute >= 60) return fail(0, ERANGE, "%s: minute value outside of range", __func__);

  unsigned long second = 0;
  if (*at == ':') {
    if (!is_digit(*++at)) return fail(0, ERANGE, "%s: second value not a digit", __func__);
    second = std::strtoul(at, &at, 10);
    if (second >= 60) return fail(0, ERANGE, "%s: second value outside of range", __func__);
  }
  if (end != nullptr) *end = at;
  return static_cast<int>(hour * 3600 + minute * 60 + second);
}

int strpercentotvalue(const char* s, double* value) {
  if (s == nullptr || value == nullptr) return 0;
  errno = 0;
  char* at;
  const double number = std::strtod(s, &at);
  if (at == s || (number == 0 && errno == ERANGE)) return 0;
  at = skip_space(at);
  if (*at != '%' || *skip_space(at + 1) != '\0') return 0;
  *value = number;
  return 1;
}

char* strstrip(char* s) {
  if (s == nullptr) return nullptr;
  char* kept = s;
  for (const char* read = s; *read != '\0'; ++read)
    if (!is_space(*read)) *kept++ = *read;
  *kept = '\0';
  return s;
}

char* StringGetNextTokenA(char** cursor) {
  if (cursor == nullptr || *cursor == nullptr) return nullptr;
  char* const token = skip_space(*cursor);
  char* at = token;
  while (*at != '\0' && !is_space(*at)) ++at;
  if (*at != '\0') {
    *at = '\0';
    at = skip_space(at + 1);
  }
  *cursor = at;
  return at == token ? nullptr : token;
}

int strrepl(char* s, int from, int to) {
  if (s == nullptr) return 0;
  int count = 0;
  for (; *s != '\0'; ++s) {
    if (*s != static_cast<char>(from)) continue;
    *s = static_cast<char>(to);
    ++count;
  }
  return count;
}
