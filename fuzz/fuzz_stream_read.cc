// Archive streams from any bytes: one call and many small windows end in the same code with the
// same output, the data are never believed about how much memory they need. The first byte gives
// cipher type and key, the second the windows.
#include <kel/crypt.h>

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "fuzz_target.h"

namespace {

constexpr size_t kSmall = 1 << 18;  // what a reader may have whatever its input

size_t largest_allocation = 0;

void note_allocation(const volatile void*, size_t size) {
  largest_allocation = std::max(largest_allocation, size);
}
void note_free(const volatile void*) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  __sanitizer_install_malloc_and_free_hooks(note_allocation, note_free);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const unsigned char type = data[0] & 3;
  unsigned char key_bytes[KelKey::kLength];
  std::memset(key_bytes, data[0] >> 2, sizeof key_bytes);
  const KelKey key = KelKey::NewKey(key_bytes);
  std::minstd_rand random(data[1]);
  const unsigned most = data[1] % 2 == 0 ? 3 : 5000;
  const uint8_t* const stream = data + 2;
  const auto stream_size = static_cast<unsigned>(size - 2);

  unsigned whole_size = stream_size;
  unsigned char* const whole = dcpDecryptData(key, type, stream, &whole_size, nullptr, 0);

  std::vector<unsigned char> pieces;
  std::vector<unsigned char> window(most);
  c_stream_t c = {};
  largest_allocation = 0;
  require(dcpDecryptInit(&c, key, type) == 0);
  c.next_in = stream;
  int code = 0;
  while (code == 0 && pieces.size() < kSmall) {
    const auto left = static_cast<unsigned>(stream + stream_size - c.next_in);
    if (c.avail_in == 0) c.avail_in = std::min<unsigned>(left, random() % most);
    // Windows of their own size, so that a byte too many is found.
    const std::vector<unsigned char> in(c.next_in, c.next_in + c.avail_in);
    const uint8_t* const given = c.next_in;
    const unsigned given_size = c.avail_in;
    window.resize(1 + random() % most);
    window.shrink_to_fit();
    c.next_in = in.data();
    c.next_out = window.data();
    c.avail_out = static_cast<unsigned>(window.size());
    code = dcpDecrypt(&c, given_size == left);
    require(c.avail_in <= given_size && c.avail_out <= window.size());
    c.next_in = given + (given_size - c.avail_in);
    pieces.insert(pieces.end(), window.begin(), window.end() - c.avail_out);
  }
  require(largest_allocation <= kSmall + 4 * pieces.size() + 256 * size);
  dcpDecryptEnd(&c);

  if (code < 0) {
    require(code >= -5 || code == -31);
    require(whole == nullptr && whole_size == stream_size);
  } else if (code == 1) {
    require(c.total_out <= pieces.size() && c.total_in <= stream_size);
    require(whole != nullptr && whole_size == c.total_out);
    require(whole_size == 0 || std::memcmp(whole, pieces.data(), whole_size) == 0);
  }
  std::free(whole);
  return 0;
}
