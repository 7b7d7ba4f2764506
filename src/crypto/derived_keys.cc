// Data keys that are computed instead of stored, and texts encrypted with one.
#include <kel/cipher.h>
#include <kel/crypt.h>
#include <kel/digest.h>
#include <kel/logging.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "crypto/derived_key_constants.h"
#include "crypto/secret.h"
#include "internal/hex.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr std::size_t kDigestSize = 32;
constexpr std::size_t kKeyTextSize = 65;  // with its terminator
constexpr std::size_t kIvSize = 16;
constexpr int kAes256Ctr = 3;

template <std::size_t Size>
using SecretBytes = Secret<unsigned char[Size]>;

bool hmac(const void* key, std::size_t key_size, const char* text, std::size_t text_size,
          unsigned char* digest) {
  return HMAC(EVP_sha256(), key, static_cast<int>(key_size),
              reinterpret_cast<const unsigned char*>(text), text_size, digest, nullptr) != nullptr;
}

/// The key text of a seed, which may be null; false when OpenSSL fails.
bool derive(const char* seed, char (&text)[kKeyTextSize]) {
  SecretBytes<kDigestSize> digest;
  if (!hmac(kDerivedKeySecret, sizeof kDerivedKeySecret - 1, kDerivedKeyText,
            sizeof kDerivedKeyText - 1, digest.value))
    return false;
  if (seed != nullptr && *seed != '\0') {
    const SecretBytes<kDigestSize> base = digest;
    if (!hmac(base.value, kDigestSize, seed, std::strlen(seed), digest.value)) return false;
  }
  return SHA256FromData_r(digest.value, kDigestSize, text, kKeyTextSize) != nullptr;
}

}  // namespace

int dcpGetDecrptKeyFromSeed(char* dataKey, size_t len, const char* seed) {
  if (dataKey == nullptr || len == 0) {
    errno = EINVAL;
    return fail(-1, -1, "%s, The input param data_key is NULL", __func__);
  }
  Secret<char[kKeyTextSize]> secret;
  auto& text = secret.value;
  if (!derive(seed, text)) return fail(-1, -1, "%s, The data_key generate fails", __func__);
  if (len < kKeyTextSize) text[len] = '\0';
  std::memcpy(dataKey, text, std::min(len, kKeyTextSize));
  if (TraceOn()) __Trace("plugin generated data key:%s \n", text);
  return 0;
}

int dcpEncodeText(const char* plainText, char* encodeText, size_t len) {
  if (plainText == nullptr) {
    errno = EINVAL;
    return fail(-1, -1, "%s, the input param: plain_text is NULL", __func__);
  }
  if (encodeText == nullptr) {
    errno = EINVAL;
    return fail(-1, -1, "%s, the output param: encode_text is NULL", __func__);
  }

  const std::size_t size = std::strlen(plainText);
  if (size > INT_MAX || 2 * (kIvSize + size) + 1 > len)
    return fail(-1, ENOBUFS, "%s: insufficient buffer", __func__);
  const std::unique_ptr<Cipher> cipher(Cipher::NewCipher(kAes256Ctr));
  std::unique_ptr<unsigned char[]> sealed(new (std::nothrow) unsigned char[kIvSize + size]);
  if (cipher == nullptr) return -1;
  if (sealed == nullptr) return fail_allocation(-1, kIvSize + size, __func__);

  SecretBytes<KelKey::kLength> raw_key;
  if (dcpGetDecrptKeyFromSeed(reinterpret_cast<char*>(raw_key.value), KelKey::kLength, nullptr) !=
      0)
    return fail(-1, -1, "%s, get data_key fails", __func__);
  Secret<KelKey> key;
  key.value.Assign(raw_key.value);
  cipher->makeIv(sealed.get());
  const bool done = cipher->Init(0, key.value, sealed.get()) &&
                    cipher->Process(plainText, static_cast<int>(size), true, sealed.get() + kIvSize,
                                    nullptr) >= 0;
  if (!done) return -1;  // reported by the cipher
  hex_encode(sealed.get(), kIvSize + size, encodeText);
  encodeText[2 * (kIvSize + size)] = '\0';
  return 0;
}
