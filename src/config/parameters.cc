// Values out of parameter strings, image paths and URLs. All work on the caller's text.
#include <kel/logging.h>
#include <kel/probes.h>
#include <kel/strings.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "internal/ascii.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr int kFound = 0;
constexpr int kAbsent = 9;
constexpr int kTooLong = 14;

constexpr size_t kPatternSize = 255;
constexpr size_t kImagePathSize = 4095;
constexpr size_t kImageFieldSize = 255;

constexpr std::string_view kScheme = "https://";

/// Copies what fits, terminated; false when it was cut. `to` has room for `room` characters.
bool copy_what_fits(char* to, size_t room, const char* from, size_t length) noexcept {
  const size_t kept = std::min(length, room - 1);
  std::memmove(to, from, kept);
  to[kept] = '\0';
  return kept == length;
}

/// What stands behind the first `word` in `text`; null when that is nowhere.
const char* behind(const char* text, const char* word) noexcept {
  const char* const at = std::strstr(text, word);
  return at == nullptr ? nullptr : at + std::strlen(word);
}

/// Cuts the next field off `*rest`, up to `delimiter` or the end; null at the end. Two delimiters
/// have an empty field between them.
char* next_field(char** rest, char delimiter) noexcept {
  char* const field = *rest;
  if (*field == '\0') return nullptr;
  char* const end = std::strchr(field, delimiter);
  if (end == nullptr) {
    *rest = field + std::strlen(field);
  } else {
    *end = '\0';
    *rest = end + 1;
  }
  return field;
}

/// Without regard to case.
bool starts_with(const char* text, std::string_view lower) noexcept {
  return std::all_of(lower.begin(), lower.end(),
                     [&](char expected) { return to_lower(*text++) == expected; });
}

}  // namespace

int spaGetParamString(const char* text, const char* key, char* out, unsigned int outLen,
                      char delim) {
  if (text == nullptr || key == nullptr || out == nullptr || outLen == 0)
    return fail(kAbsent, -1, "Function %s: Invalid arguments", __func__);
  char pattern[kPatternSize] = "";
  const size_t key_length = ::strnlen(key, sizeof pattern - 1);
  std::memcpy(pattern, key, key_length);
  if (key_length < sizeof pattern - 1) pattern[key_length] = '=';
  const char* const value = behind(text, pattern);
  if (value == nullptr) {
    out[0] = '\0';
    WarningA(-1, "Function %s: No keyword [%s] was found!", __func__, key);
    return kAbsent;
  }
  const char stop[] = {delim, '\0'};
  if (!copy_what_fits(out, outLen, value, std::strcspn(value, stop)))
    return fail(kTooLong, -1, "Function %s: Buffer size is less than real data size", __func__);
  return kFound;
}

void parseValueByKey(const char* text, const char* key, const char* separator, char* out,
                     size_t outLen) {
  if (out == nullptr || outLen == 0) return;
  const char* value = text == nullptr || key == nullptr ? nullptr : behind(text, key);
  if (value != nullptr && separator != nullptr) value = behind(value, separator);
  if (value == nullptr) value = "";
  value += std::strspn(value, " \t");
  copy_what_fits(out, outLen, value, std::strcspn(value, "\n \t"));
}

char* extract_client_policy_imagename(const char* path, int fromClient, char* client, char* policy,
                                      char* imagename) {
  char work[kImagePathSize];
  kelstrcpy(work, path, sizeof work);
  char* rest = work;
  if (fromClient == 0) {
    next_field(&rest, '/');
    next_field(&rest, '/');
  }
  kelstrcpy(client, next_field(&rest, '/'), kImageFieldSize);
  kelstrcpy(policy, next_field(&rest, '/'), kImageFieldSize);
  return kelstrcpy(imagename, next_field(&rest, '*'), kImageFieldSize);
}

char* getHostFromUrl(const char* url, char* out, int outLen) {
  if (url == nullptr || out == nullptr || !starts_with(url, kScheme))
    return fail_quietly<char*>(nullptr, EINVAL);
  const char* const host = url + kScheme.size();
  const char* const end = std::strchr(host, '/');
  if (end == nullptr) return fail_quietly<char*>(nullptr, EINVAL);
  return kelstrncpy(out, host, static_cast<size_t>(std::max(outLen, 0)),
                    static_cast<size_t>(end - host));
}
