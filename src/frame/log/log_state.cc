#include "frame/log/log_state.h"

#include <kel/path.h>

#include <pthread.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cwchar>

#include "internal/text_traits.h"

namespace kel::internal {
namespace {

/// Hashes of the paths that were told about. Two paths in one slot only take turns; what matters is
/// that telling needs neither memory nor a lock.
std::array<std::atomic<size_t>, 64> told;

size_t hash_of(std::string_view path) noexcept {
  return std::hash<std::string_view>{}(path) | 1;  // never the empty slot's 0
}

std::atomic<size_t>& slot_of(size_t hash) noexcept { return told[hash / 2 % told.size()]; }

}  // namespace

bool make_log_directory(const std::string& directory) {
  return CreateTreeLoggingOptionalA(directory.c_str(), 0755, false) != 0;
}

void tell_lost_lines(std::string_view path, const char* reason) noexcept {
  const size_t hash = hash_of(path);
  if (slot_of(hash).exchange(hash) == hash) return;
  std::fprintf(stderr, "Warning: libkel: lines for the log file %.*s cannot be written: %s\n",
               static_cast<int>(path.size()), path.data(), reason);
}

void forget_lost_lines(std::string_view path) noexcept {
  size_t hash = hash_of(path);
  slot_of(hash).compare_exchange_strong(hash, 0);
}

void throw_bad_path(const std::string& what) {
  throw kel::util::BadPathException("A thread (id=" + std::to_string(::pthread_self()) +
                                    ") encountered an error while attempting to " + what);
}

std::string to_multibyte(const std::wstring& line) {
  std::string text;
  std::mbstate_t state{};
  for (const wchar_t c : line) {
    char bytes[MB_LEN_MAX];
    const size_t length = std::wcrtomb(bytes, c, &state);
    if (length != static_cast<size_t>(-1)) {
      text.append(bytes, length);
      continue;
    }
    state = {};
    char escape[16];
    const auto code = code_of(c);
    std::snprintf(escape, sizeof escape, code <= 0xffff ? "\\u%04X" : "\\U%08X", code);
    text += escape;
  }
  return text;
}

}  // namespace kel::internal
