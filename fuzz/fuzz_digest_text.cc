// Fingerprint texts of any bytes and length: what is accepted comes back as it was, in lowercase.
#include <kel/digest.h>
#include <kel/logging.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

template <size_t Size>
void check(const uint8_t* data, size_t size,
           size_t (*parse)(unsigned char*, const void*, size_t, int),
           size_t (*print)(void*, size_t, const unsigned char*, int)) {
  unsigned char digest[Size];
  if (parse(digest, data, size, 0) == 0) return;
  char text[2 * Size];
  if (print(text, sizeof text, digest, 0) != sizeof text) std::abort();
  for (size_t i = 0; i < sizeof text; ++i)
    if (text[i] != (data[i] | (data[i] >= 'A' ? 0x20 : 0))) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kelLogSetFlags(KEL_LOG_NONE, 0);
  check<16>(data, size, MD5DigestDeserialize, MD5DigestSerialize);
  check<32>(data, size, SHA256DigestDeserialize, SHA256DigestSerialize);
  return 0;
}
