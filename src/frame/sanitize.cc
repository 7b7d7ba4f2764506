// Searching text, and hiding the passwords in it.
#include <kel/strings.h>

#include <cstring>
#include <string_view>

#include "internal/ascii.h"

namespace {

/// Case-insensitive for ASCII, so that no locale can let a password through.
bool starts_with(const char* text, std::string_view lower_word) {
  for (const char c : lower_word)
    if (kel::internal::to_lower(*text++) != c) return false;
  return true;
}

/// The character after the next "passwd" or "password"; null when there is none.
const char* after_password_word(const char* text) {
  for (; *text != '\0'; ++text) {
    if (!starts_with(text, "passw")) continue;
    if (starts_with(text + 5, "d")) return text + 6;
    if (starts_with(text + 5, "ord")) return text + 8;
  }
  return nullptr;
}

}  // namespace

char* kelstrpbrk(const char* s, const char* accept) {
  if (s == nullptr || accept == nullptr) return nullptr;
  return const_cast<char*>(std::strpbrk(s, accept));
}

void kelstrsanitize(char* text, const char* delimiters) {
  const char* read = text;
  char* write = text;
  const auto keep_until = [&](const char* end) {
    const auto count = static_cast<size_t>(end - read);
    std::memmove(write, read, count);
    write += count;
    read = end;
  };
  while (const char* value = after_password_word(read)) {
    keep_until(value + std::strspn(value, " ="));
    if (*read == '\0') break;
    const size_t hidden = std::strcspn(read, delimiters);
    if (hidden != 0) *write++ = '*';
    read += hidden;
  }
  keep_until(read + std::strlen(read) + 1);
}
