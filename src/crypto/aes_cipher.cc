// AES-256 in the stream modes of OpenSSL.
#include <kel/cipher.h>

#include <openssl/evp.h>

#include "internal/report.h"

using namespace kel::internal;

AESCipher::AESCipher(int id, int type, bool useIv8, const evp_cipher_st* cipher)
    : Cipher(id, type, useIv8), cipher_(cipher) {}

AESCipher::~AESCipher() { AESCipher::Free(); }

bool AESCipher::Init(int opMode, const KelKey& key, const unsigned char* iv) {
  static constexpr unsigned char kZeroIv[16] = {};
  op_mode_ = opMode;
  if (context_ == nullptr) context_ = EVP_CIPHER_CTX_new();
  if (context_ == nullptr || EVP_CipherInit(context_, cipher_, key.Bytes(),
                                            iv != nullptr ? iv : kZeroIv, opMode == 0) != 1)
    return fail(false, errno, "%s: EVP_CipherInit failed(%d)", __func__, op_mode_);
  return true;
}

int AESCipher::Update(const void* in, int len, void* out) {
  if (in == nullptr || out == nullptr || len < 0)
    return fail(-1, EINVAL, "%s: invalid arguments", __func__);
  int written = 0;
  if (context_ == nullptr || EVP_CipherUpdate(context_, static_cast<unsigned char*>(out), &written,
                                              static_cast<const unsigned char*>(in), len) != 1)
    return fail(-1, errno, "%s: EVP_CipherUpdate failed(%d)", __func__, op_mode_);
  return written;
}

int AESCipher::Final(void* out, unsigned int* padBytes) {
  if (out == nullptr) return fail(-1, EINVAL, "%s: invalid arguments", __func__);
  int written = 0;
  if (context_ == nullptr ||
      EVP_CipherFinal_ex(context_, static_cast<unsigned char*>(out), &written) != 1)
    return fail(-1, errno, "%s: EVP_CipherFinal_ex failed(%d)", __func__, op_mode_);
  if (padBytes != nullptr) *padBytes = 0;
  return written;
}

void AESCipher::Free() {
  EVP_CIPHER_CTX_free(context_);  // wipes the key schedule; accepts null
  context_ = nullptr;
}
