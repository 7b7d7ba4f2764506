// Values of options: from text to the tool's variable, from the configuration file, and back to
// nothing.
#include <kel/charconv.h>
#include <kel/inifile.h>
#include <kel/text.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "config/options_table.h"
#include "internal/ascii.h"
#include "internal/handles.h"
#include "internal/report.h"

using namespace kel::internal;
using namespace kel::config;

namespace {

constexpr char kParseValue[] = "opt_parse_value";

int refuse_value(const opt_t& option, const char* text) {
  return refuse(errno, "%s: invalid value \"%s\" for option %s", kParseValue, text,
                OptionText(option).text);
}

/// A number or size up to `limit`; false with errno. The first character is looked at since
/// strtoull(3) takes signs and white space, and a minus as a way to write huge numbers.
bool read_number(const opt_t& option, const char* text, std::uint64_t limit,
                 std::uint64_t& number) {
  if (!is_digit(*text)) return fail_quietly(false, EINVAL);
  const bool is_size = option.type >= OPT_SIZE64;
  char* end;
  errno = 0;
  number = is_size ? strtosize(text, &end) : std::strtoull(text, &end, 10);
  if (errno != 0) return false;
  if (*end != '\0') return fail_quietly(false, EINVAL);
  return number <= limit || fail_quietly(false, ERANGE);
}

bool read_boolean(const char* text, bool& value) {
  char* end;
  errno = 0;
  value = strtobool(text, &end) != 0;
  if (errno != 0) return false;
  return *end == '\0' || fail_quietly(false, EINVAL);
}

template <class T>
int put(opt_t& option, T content, void* value) noexcept {
  if (value == nullptr) return 0;
  std::memcpy(value, &content, sizeof content);
  option.flags |= kStored;
  return 0;
}

template <class T>
int store_number(opt_t& option, const char* text, void* value) {
  std::uint64_t number;
  if (!read_number(option, text, std::numeric_limits<T>::max(), number))
    return refuse_value(option, text);
  return put(option, static_cast<T>(number), value);
}

int store_boolean(opt_t& option, const char* text, void* value) {
  bool truth;
  if (!read_boolean(text, truth)) return refuse_value(option, text);
  return put(option, truth, value);
}

int store_flag(opt_t& option, const char* text, void* value) {
  if (text == nullptr) return put(option, option.type == OPT_SET, value);
  errno = EINVAL;
  return refuse_value(option, text);
}

/// The string in the option's own place.
char*& own_string(const opt_t& option) noexcept { return *static_cast<char**>(option.value); }

/// Gives up what belongs to the parser in the option's own place.
void release_string(opt_t& option) {
  if ((option.flags & kFileLoaded) != 0) InifileReleaseA(own_string(option));
  if ((option.flags & kAllocated) != 0) {
    const ErrnoGuard keep;
    std::free(std::exchange(own_string(option), nullptr));
  }
  option.flags &= ~(kFileLoaded | kAllocated);
}

int store_string(opt_t& option, const char* text, void* value) {
  if (value == nullptr) return 0;
  const bool own = value == option.value;
  // The path of the file that is loaded: it stays loaded, with what was changed in it.
  if (own && (option.flags & kFileLoaded) != 0 && std::strcmp(own_string(option), text) == 0)
    return 0;

  const bool to_utf8 = option.type == OPT_STRING_UTF8;
  const bool as_it_is = to_utf8 && text == option.default_value;
  MallocPtr<char> copy;
  if (!as_it_is) copy.reset(to_utf8 ? strtoutf8_malloced(text) : ::strdup(text));
  if (!as_it_is && copy == nullptr)
    return refuse(errno,
                  to_utf8 ? "%s: error converting value \"%s\" to UTF-8 for option %s"
                          : "%s: error copying value \"%s\" for option %s",
                  kParseValue, text, OptionText(option).text);
  // The earlier string goes last: `text` may be part of it.
  if (own) release_string(option);
  if (own && !as_it_is) option.flags |= kAllocated;
  return put(option, as_it_is ? const_cast<char*>(text) : copy.release(), value);
}

/// The stored path of the configuration file, or null.
const char* path_of(const opt_t* ini_option) noexcept {
  if (ini_option == nullptr || ini_option->value == nullptr || (ini_option->flags & kStored) == 0)
    return nullptr;
  const char* const path = own_string(*ini_option);
  return path == nullptr || path[0] == '\0' ? nullptr : path;
}

}  // namespace

namespace kel::config {

void reset_flag(opt_t& option) noexcept { put(option, option.type == OPT_CLEAR, option.value); }

DefaultText default_text(const opt_t& option, const opt_t* ini_option, char* buf, size_t len) {
  const char* const path = path_of(ini_option);
  if (path != nullptr && option.ini_section != nullptr && option.ini_key != nullptr) {
    const int room = static_cast<int>(std::min<size_t>(len, INT_MAX));
    const int size = InifileGetValueA(option.ini_section, option.ini_key, buf, room, "", path);
    // The file is noted where opt_free() finds it; the caller's table is never constant.
    const_cast<opt_t*>(ini_option)->flags |= kFileLoaded;
    if (buf[0] != '\0') return {buf, size > room};
  }
  buf[0] = '\0';
  return {option.default_value, false};
}

}  // namespace kel::config

int opt_parse_value(opt_t* option, const char* text, void* value) {
  if (option == nullptr || (text == nullptr && !is_flag(*option)))
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  switch (option->type) {
    case OPT_CLEAR:
    case OPT_SET:
      return store_flag(*option, text, value);
    case OPT_STRING:
    case OPT_STRING_UTF8:
    case OPT_PATH:
    case OPT_INIFILE:
    case OPT_TEXT:
      return store_string(*option, text, value);
    case OPT_NUMBER64:
    case OPT_SIZE64:
      return store_number<std::uint64_t>(*option, text, value);
    case OPT_NUMBER32:
    case OPT_SIZE32:
      return store_number<std::uint32_t>(*option, text, value);
    case OPT_NUMBER16:
    case OPT_SIZE16:
      return store_number<std::uint16_t>(*option, text, value);
    case OPT_BOOLEAN:
      return store_boolean(*option, text, value);
    default:
      errno = EINVAL;
      return refuse_value(*option, text);
  }
}

const char* opt_get_default_value(const opt_t* option, const opt_t* iniOption, char* buf,
                                  size_t len) {
  if (option == nullptr || buf == nullptr || len == 0)
    return fail<const char*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  return default_text(*option, iniOption, buf, len).text;
}

void opt_free(opt_t** options) {
  if (options == nullptr) return;
  for (; *options != nullptr; ++options) {
    opt_t& option = **options;
    if (option.value != nullptr) release_string(option);
    option.flags &= ~kStored;
  }
}
