// Percent-encoded text of any kind: decoding never grows it nor reads past its end, and encoded
// text comes back as it was.
#include <kel/charconv.h>
#include <kel/url.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

/// Decodes in a block of exactly the text's size.
std::string decoded(char* (*decode)(char*), const std::string& text) {
  std::vector<char> block(text.c_str(), text.c_str() + text.size() + 1);
  require(decode(block.data()) == block.data());
  require(std::memchr(block.data(), '\0', block.size()) != nullptr);
  return block.data();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(std::string(reinterpret_cast<const char*>(data), size).c_str());
  decoded(URLDecodeUTF8, text);
  const std::string bytes = decoded(URLDecode, text);
  wchar_t* const wide = URLDecodeW_malloced(text.c_str());
  require(std::wcslen(wide) <= text.size());

  std::vector<char> encoded(3 * text.size() + 1);
  require(decoded(URLDecode, URLEncode(text.c_str(), encoded.data())) == text);
  char* const from_wide = URLEncodeW_malloced(wide);
  wchar_t* const again = URLDecodeW_malloced(from_wide);
  require(std::wcscmp(again, wide) == 0);  // no escape gives more than 16 bits
  std::free(again);
  std::free(from_wide);
  std::free(wide);
  return 0;
}
