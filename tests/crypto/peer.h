// OpenSSL's own ciphers as a peer of ours.
#pragma once

#include <openssl/evp.h>

#include "support/test.h"

namespace kel::testing {

/// `in` under a 256-bit key, without padding; an incomplete Blowfish block is filled with zeros.
inline std::string peer_cipher(const EVP_CIPHER* cipher, bool encrypt, const void* key,
                               const void* iv, std::string in) {
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
      EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  EXPECT_EQ(EVP_CipherInit_ex(context.get(), cipher, nullptr, nullptr, nullptr, encrypt), 1);
  EXPECT_EQ(EVP_CIPHER_CTX_set_key_length(context.get(), 32), 1);
  EXPECT_EQ(
      EVP_CipherInit_ex(context.get(), nullptr, nullptr, static_cast<const unsigned char*>(key),
                        static_cast<const unsigned char*>(iv), encrypt),
      1);
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  if (EVP_CIPHER_get_block_size(cipher) == 8) in.resize((in.size() + 7) / 8 * 8);
  std::string out(in.size() + 16, 0);
  int n = 0;
  EXPECT_EQ(EVP_CipherUpdate(context.get(), reinterpret_cast<unsigned char*>(out.data()), &n,
                             reinterpret_cast<const unsigned char*>(in.data()),
                             static_cast<int>(in.size())),
            1);
  out.resize(static_cast<size_t>(n));
  return out;
}

}  // namespace kel::testing
