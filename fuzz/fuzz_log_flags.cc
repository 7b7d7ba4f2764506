// Texts of logging flags: what they give agrees with a plain reading of the words, and the
// description of any flags word keeps to its buffer and gives flags that are described alike.
#include <kel/logging.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

int plain_reading(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  const auto has = [&](const char* word) { return text.find(word) != std::string::npos; };
  int flags = 0;
  if (text.empty() || has("none")) return 0;
  if (has("minimal"))
    flags = 0x8B;
  else if (has("short"))
    flags = 0x8F;
  else if (has("long"))
    flags = 0x9F;
  else if (has("verbose"))
    flags = 0xBF;
  else if (has("full"))
    flags = 0x8FF;
  else {
    int bit = 1;
    for (const char* word : {"crit", "err", "warn", "auth", "info", "notice", "trace", "bug"}) {
      if (has(word)) flags |= bit;
      bit <<= 1;
    }
    if (flags == 0) return -1;
  }
  if (has("thread")) flags |= 0x8000;
  if (has("date")) flags |= 0x800;
  if (has("silent")) flags |= 0x4000;
  if (has("timing")) flags |= 0x40000;
  return flags;
}

/// In a block of its own, so that a byte too much is seen.
std::string described(int flags, size_t room) {
  const std::unique_ptr<char[]> block(new char[room]);
  require(kelLogFlagsToString(flags, block.get(), room) == block.get());
  require(std::memchr(block.get(), '\0', room) != nullptr);
  return block.get();
}

}  // namespace

// The first four bytes are a flags word, the rest is the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int flags = 0;
  const size_t word = std::min(size, sizeof flags);
  std::memcpy(&flags, data, word);
  const std::string text(
      std::string(reinterpret_cast<const char*>(data) + word, size - word).c_str());
  const int parsed = kelLogParseFlagsA(text.c_str());
  require(parsed == plain_reading(text));

  const std::string whole = described(flags, 40);
  require(described(flags, 4 + text.size() % 36) == whole.substr(0, 3 + text.size() % 36));
  const int again = kelLogParseFlagsA(whole.c_str());
  require((again & ~flags) == 0);
  require(again == 0 || described(again, 40) == whole);
  return 0;
}
