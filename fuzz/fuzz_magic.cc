// The archive header in any 14 bytes or fewer: every way of reading agrees, what is accepted
// encodes to the same bytes again, and every result can be described.
#include <kel/magic.h>

#include <cstdint>
#include <cstring>

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr uint64_t kUntouched = 0x1122334455667788;
  uint64_t block_size = kUntouched;
  const int result = kelMagicDecode(nullptr, data, static_cast<int>(size), &block_size);
  int encrypted = -1, compressed = -1;
  const int settings =
      kelMagicGetCryptSettings(data, static_cast<unsigned>(size), &encrypted, &compressed);
  kelMagicDesc(result, size == 0 ? 0 : data[size - 1]);

  if (size < KEL_MAGIC_SIZE) {
    require(result == 0 && settings == -1);
    return 0;
  }
  require(result == settings && result == kelMagicFromBuffer(data, nullptr));
  require((result > 0) == (encrypted >= 0 && compressed >= 0));
  if (result <= 0) {
    require(block_size == kUntouched);
    return 0;
  }
  unsigned char again[KEL_MAGIC_SIZE];
  require(kelMagicMake(result, again, sizeof again, block_size) == KEL_MAGIC_SIZE);
  require(std::memcmp(again, data, sizeof again) == 0);
  return 0;
}
