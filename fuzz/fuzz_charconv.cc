// Any bytes through conversions between character sets: measured and converted sizes agree, and
// what came out of a set without loss goes back.
#include <kel/charconv.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

const char* const kSets[] = {"UTF-8",       "UTF-16",  "UTF-32LE",    "ISO-8859-1",
                             "ISO-8859-15", "GB18030", "ISO-2022-JP", "ASCII"};
constexpr size_t kSetCount = sizeof kSets / sizeof kSets[0];

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  charconv_t* const h = charconv_open(kSets[data[0] % kSetCount], kSets[data[0] / 16 % kSetCount]);
  require(h != nullptr);
  std::vector<char> in(data + 1, data + size);
  const char* const text = in.empty() ? "" : in.data();
  const ssize_t measured = charconv_buf_len(h, text, in.size());
  size_t length = 1;
  char* const converted = charconv_buf_malloced(h, text, in.size(), &length);
  require((converted == nullptr) == (measured < 0));
  if (converted != nullptr) {
    require(length == static_cast<size_t>(measured));
    require(std::memcmp(converted + length, "\0\0\0", 4) == 0);
    std::vector<char> out(length + 1);
    size_t left = in.size(), room = length;
    require(_charconv_buf_buf(h, const_cast<char*>(text), &left, out.data(), &room) >= 0);
    require(left == 0 && room <= length && std::memcmp(out.data(), converted, room) == 0);
    std::free(converted);
  }
  charconv_close(h);

  const std::string string(text, in.size());
  wchar_t wide[16];
  require(iso8859_1towcs_buf(wide, reinterpret_cast<const unsigned char*>(string.c_str()), 16) ==
          (std::strlen(string.c_str()) < 16 ? wide : nullptr));
  wchar_t* const ascii = ascii7towcs_malloced(string.c_str());
  if (ascii != nullptr) {
    char* const again = wcstoascii7_malloced(ascii);
    require(std::strcmp(again, string.c_str()) == 0);
    utf8free(again);
    utf8free(ascii);
  }
  return 0;
}
