// What all ciphers share: making them by number, and the routine that processes and ends a piece.
#include <kel/cipher.h>
#include <kel/runtime.h>

#include <openssl/evp.h>

#include <cstring>
#include <new>

#include "crypto/cipher_description.h"
#include "internal/atomic_field.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

int last_id = 0;

}  // namespace

Cipher::Cipher(int id, int type, bool useIv8) : id_(id), type_(type), use_iv8_(useIv8) {}
Cipher::~Cipher() = default;

int Cipher::GetBlockSize() const { return 16; }
int Cipher::GetPaddingSize() const { return 1; }
int Cipher::GetAcUsed() const { return 0; }

bool Cipher::InitSession(int opMode, const KelKey& key, const unsigned char* iv) {
  return Init(opMode, key, iv);
}

Cipher* Cipher::NewCipher(int type) {
  const int id = add_field(last_id, 1);
  Cipher* cipher = nullptr;
  switch (type) {
    case 0:
      cipher = new (std::nothrow) BlowfishCipher(id, type);
      break;
    case 1:
      cipher = new (std::nothrow) AESCipher(id, type, true, EVP_aes_256_cfb128());
      break;
    case 2:
      cipher = new (std::nothrow) AESCipher(id, type, true, EVP_aes_256_ofb());
      break;
    case 3:
      cipher = new (std::nothrow) AESCipher(id, type, false, EVP_aes_256_ctr());
      break;
    default:
      return fail<Cipher*>(nullptr, EINVAL, "Invalid cipher type %d", type);
  }
  if (cipher == nullptr)
    return fail_allocation<Cipher*>(nullptr, type == 0 ? sizeof(BlowfishCipher) : sizeof(AESCipher),
                                    __func__);
  return cipher;
}

const char* Cipher::GetCipherDescription(int type) { return cipher_description(type); }

void Cipher::makeIv(unsigned char* iv) {
  if (use_iv8_) {
    RandomGetBytes(iv, 4);
    std::memcpy(iv + 4, iv, 4);
  } else {
    RandomGetBytes(iv, static_cast<size_t>(GetBlockSize()));
  }
}

int Cipher::Process(const void* in, int len, bool last, void* out, unsigned int* padBytes) {
  const int updated = Update(in, len, out);
  if (updated < 0)
    return fail(-1, errno, "%s: Update failed for %s(%d)", __func__, GetDescription(), op_mode_);
  if (!last) return updated;
  const int finished = Final(static_cast<unsigned char*>(out) + updated, padBytes);
  if (finished < 0)
    return fail(-1, errno, "%s: Final failed for %s(%d)", __func__, GetDescription(), op_mode_);
  return updated + finished;
}

int Cipher::Encrypt(const void* in, int len, bool last, void* out, unsigned int* padBytes) {
  return Process(in, len, last, out, padBytes);
}

int Cipher::Decrypt(const void* in, int len, bool last, void* out, unsigned int* padBytes) {
  return Process(in, len, last, out, padBytes);
}
