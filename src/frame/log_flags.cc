// The flags word as text and back.
#include <kel/logging.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "internal/ascii.h"

namespace {

struct Word {
  std::string_view text;
  int flags;
};

// In the order in which they are tried. Those that print stand behind "none", the largest last.
constexpr Word kPresets[] = {{"none", KEL_LOG_NONE},       {"minimal", KEL_LOG_MINIMAL},
                             {"short", KEL_LOG_SHORT},     {"long", KEL_LOG_LONG},
                             {"verbose", KEL_LOG_VERBOSE}, {"full", KEL_LOG_FULL}};
constexpr Word kLevels[] = {{"crit", KEL_LOG_CRIT},   {"err", KEL_LOG_ERR},
                            {"warn", KEL_LOG_WARN},   {"auth", KEL_LOG_AUTH},
                            {"info", KEL_LOG_INFO},   {"notice", KEL_LOG_NOTICE},
                            {"trace", KEL_LOG_TRACE}, {"bug", KEL_LOG_BUG}};
constexpr Word kModifiers[] = {{"thread", KEL_LOG_THREAD},
                               {"date", KEL_LOG_DATE},
                               {"silent", KEL_LOG_SILENT},
                               {"timing", KEL_LOG_TIMING}};

/// Anywhere in `text`, in either case.
bool contains(std::string_view text, std::string_view lower_word) noexcept {
  return std::search(text.begin(), text.end(), lower_word.begin(), lower_word.end(),
                     [](char c, char lower) { return kel::internal::to_lower(c) == lower; }) !=
         text.end();
}

/// The flags of all the words that are in `text`.
template <size_t Count>
int sum(std::string_view text, const Word (&words)[Count]) noexcept {
  int flags = 0;
  for (const Word& word : words)
    if (contains(text, word.text)) flags |= word.flags;
  return flags;
}

/// The levels that `text` asks for; -1 when it names none.
int levels_of(std::string_view text) noexcept {
  for (const Word& preset : kPresets)
    if (contains(text, preset.text)) return preset.flags;
  const int levels = sum(text, kLevels);
  return levels != 0 ? levels : -1;
}

}  // namespace

int kelLogParseFlagsA(const char* text) {
  if (text == nullptr || *text == '\0') return KEL_LOG_NONE;
  const int levels = levels_of(text);
  return levels == KEL_LOG_NONE || levels == -1 ? levels : levels | sum(text, kModifiers);
}

const char* kelLogFlagsToString(int flags, char* buf, size_t len) {
  if (buf == nullptr || len < 4) return "(unknown)";
  const auto has = [flags](int bits) { return (flags & bits) == bits; };
  const Word* preset = std::end(kPresets);
  while (!has((--preset)->flags)) continue;
  std::snprintf(buf, len, "%s%s%s%s%s", preset->text.data(),
                has(KEL_LOG_THREAD) ? ", threadid" : "", has(KEL_LOG_DATE) ? ", date" : "",
                has(KEL_LOG_SILENT) ? ", silent" : "", has(KEL_LOG_TIMING) ? ", timing" : "");
  return buf;
}
