// UTF-8 of any bytes: the check in blocks agrees with the check of one character after the other,
// and what is well-formed goes to wide text and back unchanged.
#include <kel/charconv.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

int characters(const unsigned char* s, size_t size) {
  int count = 0;
  for (size_t at = 0; at < size; ++count) {
    const int length = is_valid_utf8_char(s + at, static_cast<unsigned>(size - at));
    if (length < 0) return -1;
    at += static_cast<size_t>(length);
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<unsigned char> block(data, data + size);
  const int count = is_valid_utf8_string(block.data(), static_cast<int>(size));
  require(count == characters(block.data(), size));

  const std::string text(std::string(reinterpret_cast<const char*>(data), size).c_str());
  wchar_t* const wide = utf8towcs_malloced(text.c_str());
  require(wide != nullptr || count < 0);
  if (wide != nullptr) {
    char* const again = wcstoutf8_malloced(wide);
    require(count < 0 || text == again);
    require(text.size() >= std::strlen(again));  // over-long forms become shorter
    utf8free(again);
    utf8free(wide);
  }
  return 0;
}
