// The table of options: names, words, and what must hold for every table.
#include "config/options_table.h"

#include <kel/logging.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "internal/report.h"

using namespace kel::internal;

const char* const opt_type_metavars[17] = {
    nullptr,  nullptr,  nullptr, nullptr, "STRING", "STRING",  "PATHNAME", "PATHNAME", "NUMBER",
    "NUMBER", "NUMBER", "SIZE",  "SIZE",  "SIZE",   "BOOLEAN", "STRING",   nullptr};

namespace kel::config {
namespace {

const char* type_word(int type) noexcept {
  const bool is_type = type >= 0 && type < static_cast<int>(std::size(opt_type_metavars));
  return is_type ? opt_type_metavars[type] : nullptr;
}

bool is_valid_type(const opt_t& option) noexcept {
  return is_flag(option) || type_word(option.type) != nullptr;
}

/// As snprintf(); -1 for an option without a name.
int format_text(char* buf, std::size_t len, const opt_t& option) noexcept {
  const char* const word = word_of(option);
  const char* const equals = is_flag(option) ? "" : "=";
  if (option.long_name == nullptr && option.short_name == '\0') return -1;
  if (option.long_name == nullptr)
    return std::snprintf(buf, len, "-%c %s", option.short_name, word);
  if (option.short_name == '\0')
    return std::snprintf(buf, len, "--%s%s%s", option.long_name, equals, word);
  return std::snprintf(buf, len, "-%c, --%s%s%s", option.short_name, option.long_name, equals,
                       word);
}

/// Whether one of the options behind `*at` has the value that `*at` has in `field`.
template <class Same>
bool is_repeated(opt_t** at, Same same) {
  for (opt_t** later = at + 1; *later != nullptr; ++later)
    if (same(**at, **later)) return true;
  return false;
}

bool same_short_name(const opt_t& a, const opt_t& b) noexcept {
  return a.short_name != '\0' && a.short_name == b.short_name;
}

bool same_long_name(const opt_t& a, const opt_t& b) noexcept {
  return a.long_name != nullptr && b.long_name != nullptr &&
         std::strcmp(a.long_name, b.long_name) == 0;
}

/// What is wrong with an option for itself, as the end of a sentence; null: nothing.
const char* find_fault(opt_t& option) {
  if (option.short_name == '-') return "short option name cannot be '-'";
  if (option.long_name != nullptr && option.long_name[0] == '\0')
    return "long option name cannot be empty";
  if (option.value == nullptr) return "pointer to value is NULL";
  if (option.default_value != nullptr &&
      opt_parse_value(&option, option.default_value, nullptr) != 0)
    return "invalid default value";
  if (option.ini_section != nullptr && option.ini_key == nullptr)
    return "ini_section without ini_key";
  if (option.ini_key != nullptr && option.ini_section == nullptr)
    return "ini_key without ini_section";
  return nullptr;
}

int validate_option(opt_t** at) {
  constexpr char kFunction[] = "opt_validate";
  opt_t& option = **at;
  char text[kOptionText];
  if (opt_snprintf(text, sizeof text, &option) < 0)
    return refuse(errno, "%s: cannot print option name", kFunction);
  if (is_repeated(at, same_short_name))
    return refuse(EINVAL, "%s: internal option configuration error: duplicate option -%c",
                  kFunction, option.short_name);
  if (is_repeated(at, same_long_name))
    return refuse(EINVAL, "%s: internal option configuration error: duplicate option --%s",
                  kFunction, option.long_name);
  if (!is_valid_type(option))
    return refuse(EINVAL,
                  "%s: internal option configuration error: invalid option type %d for option %s",
                  kFunction, option.type, text);
  if (const char* fault = find_fault(option))
    return refuse(EINVAL, "%s: internal option configuration error: %s for option %s", kFunction,
                  fault, text);
  return 0;
}

}  // namespace

const char* word_of(const opt_t& option) noexcept {
  if (is_flag(option)) return "";
  if (option.metavar != nullptr) return option.metavar;
  const char* const word = type_word(option.type);
  return word == nullptr ? "" : word;
}

OptionText::OptionText(const opt_t& option) noexcept {
  if (format_text(text, sizeof text, option) < 0) text[0] = '\0';
}

int refuse(int error, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_message(-1, KEL_LOG_ERR, format, args);
  va_end(args);
  return fail_quietly(-1, error);
}

}  // namespace kel::config

using namespace kel::config;

int opt_snprintf(char* buf, size_t len, const opt_t* option) {
  if (option == nullptr || (buf == nullptr && len != 0))
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const int length = format_text(buf, len, *option);
  if (length < 0) {
    if (len != 0) buf[0] = '\0';
    return refuse(EINVAL, "%s: internal error: option without option name", __func__);
  }
  if (static_cast<size_t>(length) >= len)
    return fail(-1, ENOBUFS, "%s: target buffer too small", __func__);
  return length;
}

int opt_validate(opt_t** options) {
  if (options == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  for (; *options != nullptr; ++options)
    if (validate_option(options) != 0) return -1;
  return 0;
}
