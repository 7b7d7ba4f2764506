// Keys by value: taking, making, comparing and handing out their 32 bytes.
#include <kel/cipher.h>
#include <kel/runtime.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

static_assert(sizeof(KelKey) == 33 && std::is_trivially_copyable_v<KelKey>);

KelKey KelKey::NewKey(const void* src) {
  KelKey key;
  key.Assign(src);
  return key;
}

const KelKey& KelKey::Zero() {
  static constexpr KelKey kZero;
  return kZero;
}

void KelKey::Assign(const void* src) {
  if (src != nullptr) {
    std::memmove(bytes_, src, kLength);
  } else {
    RandomGetBytes(bytes_, kLength);
    for (int i = 0; i < kLength; ++i) {
      if (bytes_[i] != 0) continue;
      std::uint32_t random = 0;
      RandomGetBytes(&random, sizeof random);
      bytes_[i] = static_cast<unsigned char>(random % 255 + 1);
    }
    bytes_[bytes_[kLength - 1] & 31] |= 0x80;
  }
  bytes_[kLength] = 0;
}

void KelKey::AssignZero() { std::memset(bytes_, 0, sizeof bytes_); }

int KelKey::Compare(const void* other) const { return std::memcmp(bytes_, other, kLength); }

bool KelKey::CopyToBuffer(void* buf, size_t size) const {
  if (size < sizeof bytes_) return false;
  std::memcpy(buf, bytes_, sizeof bytes_);
  return true;
}
