// Base64 and hexadecimal text of any kind: what is measured is what is decoded, what is accepted
// encodes to the same letters again, and all bytes come back.
#include <kel/base64.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

using Encode = size_t (*)(const unsigned char*, size_t, char*, size_t);
using Decode = size_t (*)(const char*, unsigned char*, size_t);

std::string encoded(Encode encode, const unsigned char* bytes, size_t size) {
  std::vector<char> text(KEL_BASE64_SIZE(size));
  require(encode(bytes, size, text.data(), text.size()) == text.size() - 1);
  require(encode(bytes, size, text.data(), text.size() - 1) == KEL_BASE64_FAILURE);
  return text.data();
}

void check(Encode encode, Decode decode, const std::string& text, const uint8_t* data,
           size_t size) {
  const size_t measured = decode(text.c_str(), nullptr, 0);
  std::vector<unsigned char> bytes(text.size() + 1);
  const size_t decoded = decode(text.c_str(), bytes.data(), bytes.size());
  if (decoded != KEL_BASE64_FAILURE) {
    require(decoded == measured);
    std::string letters;
    for (const char c : text)
      if ((kelascii_ctype_table[static_cast<unsigned char>(c)] & KELASCII_SPACE) == 0) letters += c;
    require(encoded(encode, bytes.data(), decoded) == letters);
    if (decoded >= 2) {  // a buffer of no bytes is no buffer
      std::vector<unsigned char> small(decoded - 1);
      require(decode(text.c_str(), small.data(), small.size()) == KEL_BASE64_FAILURE);
    }
  }
  const std::string again = encoded(encode, data, size);
  std::vector<unsigned char> back(size + 1);
  require(decode(again.c_str(), back.data(), back.size()) == size);
  require(size == 0 || std::memcmp(back.data(), data, size) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(std::string(reinterpret_cast<const char*>(data), size).c_str());
  check(Base64Encode, Base64Decode, text, data, size);
  check(Base64URLEncode, Base64URLDecode, text, data, size);

  std::vector<char> hex(data, data + size);
  const int count = HexDecode(hex.data(), static_cast<int>(size));
  require(count == static_cast<int>((size + 1) / 2));
  std::string digits;
  blob2hexstring(data, size, digits);
  unsigned long length;
  unsigned char* const blob = hexstring2blob(digits, length);
  require(length == size && (size == 0 || std::memcmp(blob, data, size) == 0));
  std::free(blob);
  return 0;
}
