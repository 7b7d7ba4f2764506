// Blowfish over data in pieces: blocks that a piece leaves incomplete are carried into the next.
#include <kel/blowfish.h>
#include <kel/cipher.h>

#include <openssl/crypto.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <new>

#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr int kBlock = 8;
/// Most bytes that may be held back and given at once: their rounded number must stay an int.
constexpr int kMaxLength = INT_MAX - (kBlock - 1);

}  // namespace

BlowfishCipher::BlowfishCipher(int id, int type) : Cipher(id, type, true) {}
BlowfishCipher::~BlowfishCipher() { BlowfishCipher::Free(); }

int BlowfishCipher::GetBlockSize() const { return kBlock; }
int BlowfishCipher::GetPaddingSize() const { return kBlock; }
int BlowfishCipher::GetAcUsed() const { return carry_count_; }

bool BlowfishCipher::Renew(int opMode) {
  Free();
  op_mode_ = opMode;
  context_ = new (std::nothrow) BlowfishContext{};
  return context_ != nullptr || fail_allocation(false, sizeof(BlowfishContext), "Init");
}

bool BlowfishCipher::InitSession(int opMode, const KelKey& key, const unsigned char*) {
  return Renew(opMode) && BlowfishInitCBC(context_, key.Bytes(), KelKey::kLength, opMode);
}

bool BlowfishCipher::Init(int opMode, const KelKey& key, const unsigned char*) {
  return Renew(opMode) && BlowfishInit(context_, key.Bytes(), KelKey::kLength);
}

int BlowfishCipher::UpdateAligned(const unsigned char* in, int len, unsigned char* out) {
  const auto length = static_cast<std::uint32_t>(len);
  return op_mode_ == 0 ? BlowfishEncode(context_, in, out, length)
                       : BlowfishDecode(context_, in, out, length);
}

int BlowfishCipher::Update(const void* in, int len, void* out) {
  if (in == nullptr || out == nullptr || len < 0 || len > kMaxLength - carry_count_)
    return fail(-1, EINVAL, "%s: invalid arguments", __func__);
  const auto* from = static_cast<const unsigned char*>(in);
  auto* to = static_cast<unsigned char*>(out);

  if (carry_count_ + len < kBlock) {
    std::memcpy(carry_ + carry_count_, from, static_cast<size_t>(len));
    carry_count_ += len;
    return 0;
  }
  int written = 0;
  if (carry_count_ > 0) {
    const int missing = kBlock - carry_count_;
    std::memcpy(carry_ + carry_count_, from, static_cast<size_t>(missing));
    written = UpdateAligned(carry_, kBlock, to);
    if (written < 0) return fail(-1, errno, "%s: UpdateAligned failed", __func__);
    from += missing;
    len -= missing;
  }
  carry_count_ = len % kBlock;
  const int whole = len - carry_count_;
  const int aligned = UpdateAligned(from, whole, to + written);
  if (aligned < 0) return fail(-1, errno, "%s: UpdateAligned failed", __func__);
  std::memcpy(carry_, from + whole, static_cast<size_t>(carry_count_));
  return written + aligned;
}

int BlowfishCipher::Final(void* out, unsigned int* padBytes) {
  if (out == nullptr) return fail(-1, EINVAL, "%s: invalid argument", __func__);
  const int held = carry_count_;
  if (padBytes != nullptr) *padBytes = held == 0 ? 0 : static_cast<unsigned>(kBlock - held);
  if (held == 0) return 0;
  carry_count_ = 0;
  return UpdateAligned(carry_, held, static_cast<unsigned char*>(out));
}

void BlowfishCipher::Free() {
  if (context_ != nullptr) {
    OPENSSL_cleanse(context_, sizeof *context_);
    delete context_;
    context_ = nullptr;
  }
  OPENSSL_cleanse(carry_, sizeof carry_);
  carry_count_ = 0;
}
