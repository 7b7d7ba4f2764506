// Blowfish. A round waits for its four table look-ups, so that blocks which do not depend on each
// other run side by side: the waits of one are filled with the work of the others.
#include <kel/blowfish.h>

#include <openssl/crypto.h>

#include <cstring>

#include "crypto/blowfish_tables.h"
#include "internal/bytes.h"
#include "internal/report.h"

using namespace kel::internal;

int bf_errno = 0;

namespace {

constexpr uint32_t kBlock = 8;
constexpr int kLanes = 4;  // as many as the registers of x86-64 take

enum Mode : uint32_t { kEcb = 0, kCbcEncrypt = 1, kCbcDecrypt = 2 };
enum class Direction { kEncrypt, kDecrypt };

struct Halves {
  uint32_t left;
  uint32_t right;
};

Halves load_block(const unsigned char* from) {
  return {load_be<uint32_t>(from), load_be<uint32_t>(from + 4)};
}

void store_block(unsigned char* to, Halves block) {
  store_be(to, block.left);
  store_be(to + 4, block.right);
}

Halves operator^(Halves a, Halves b) { return {a.left ^ b.left, a.right ^ b.right}; }

[[gnu::always_inline]] inline uint32_t mix(const BlowfishContext& c, uint32_t x) {
  return ((c.S[0][x >> 24] + c.S[1][x >> 16 & 0xff]) ^ c.S[2][x >> 8 & 0xff]) + c.S[3][x & 0xff];
}

/// Runs all lanes through the sixteen rounds; decryption takes the subkeys from the end.
template <Direction D, int Lanes>
[[gnu::always_inline]] inline void crypt(const BlowfishContext& c, Halves (&block)[Lanes]) {
  const auto subkey = [&c](int i) { return c.P[D == Direction::kEncrypt ? i : 17 - i]; };
  for (auto& b : block) b.left ^= subkey(0);
#pragma GCC unroll 8
  for (int i = 1; i < 17; i += 2) {
    for (auto& b : block) b.right = (b.right ^ subkey(i)) ^ mix(c, b.left);
    for (auto& b : block) b.left = (b.left ^ subkey(i + 1)) ^ mix(c, b.right);
  }
  for (auto& b : block) b = {b.right ^ subkey(17), b.left};
}

template <Direction D>
Halves crypt_one(const BlowfishContext& c, Halves block) {
  Halves lane[1] = {block};
  crypt<D>(c, lane);
  return lane[0];
}

constexpr uint32_t round_up(uint32_t length) { return (length + kBlock - 1) & ~(kBlock - 1); }

/// The bytes behind the last whole block, filled up with zeros.
struct Tail {
  Tail(const unsigned char* in, uint32_t length) {
    std::memcpy(bytes, in + length / kBlock * kBlock, length % kBlock);
  }
  ~Tail() { OPENSSL_cleanse(bytes, sizeof bytes); }
  unsigned char bytes[kBlock] = {};
};

/// Calls `step(in, out, blocks)` for the whole blocks and, when there is a rest, for the filled
/// tail; returns the bytes written.
template <class Step>
int for_blocks(const void* in, void* out, uint32_t length, Step step) {
  const auto* from = static_cast<const unsigned char*>(in);
  auto* to = static_cast<unsigned char*>(out);
  const uint32_t whole = length / kBlock;
  if (length % kBlock != 0) {
    const Tail tail(from, length);
    step(from, to, whole);
    step(tail.bytes, to + whole * kBlock, 1);
  } else {
    step(from, to, whole);
  }
  return static_cast<int>(round_up(length));
}

template <Direction D>
void crypt_ecb(const BlowfishContext& c, const unsigned char* in, unsigned char* out,
               uint32_t blocks) {
  for (; blocks >= kLanes; blocks -= kLanes, in += kLanes * kBlock, out += kLanes * kBlock) {
    Halves lane[kLanes];
    for (int i = 0; i < kLanes; ++i) lane[i] = load_block(in + i * kBlock);
    crypt<D>(c, lane);
    for (int i = 0; i < kLanes; ++i) store_block(out + i * kBlock, lane[i]);
  }
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock)
    store_block(out, crypt_one<D>(c, load_block(in)));
}

void encrypt_cbc(BlowfishContext& c, const unsigned char* in, unsigned char* out, uint32_t blocks) {
  Halves chain = load_block(c.chain);
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    chain = crypt_one<Direction::kEncrypt>(c, load_block(in) ^ chain);
    store_block(out, chain);
  }
  store_block(c.chain, chain);
}

void decrypt_cbc(BlowfishContext& c, const unsigned char* in, unsigned char* out, uint32_t blocks) {
  Halves chain = load_block(c.chain);
  for (; blocks >= kLanes; blocks -= kLanes, in += kLanes * kBlock, out += kLanes * kBlock) {
    Halves cipher[kLanes];
    Halves lane[kLanes];
    for (int i = 0; i < kLanes; ++i) lane[i] = cipher[i] = load_block(in + i * kBlock);
    crypt<Direction::kDecrypt>(c, lane);
    for (int i = 0; i < kLanes; ++i) {
      store_block(out + i * kBlock, lane[i] ^ chain);
      chain = cipher[i];
    }
  }
  for (; blocks > 0; --blocks, in += kBlock, out += kBlock) {
    const Halves cipher = load_block(in);
    store_block(out, crypt_one<Direction::kDecrypt>(c, cipher) ^ chain);
    chain = cipher;
  }
  store_block(c.chain, chain);
}

int refuse_mode(const BlowfishContext& c, const char* function) {
  report_error(errno, "%s: Invalid mode: %u", function, c.mode);
  return fail_quietly(-1, EINVAL);
}

}  // namespace

bool BlowfishInit(BlowfishContext* context, const unsigned char* key, size_t length) {
  BlowfishContext& c = *context;
  std::memcpy(c.P, kBlowfishP, sizeof c.P);
  std::memcpy(c.S, kBlowfishS, sizeof c.S);
  size_t next = 0;
  for (uint32_t& subkey : c.P) {
    uint32_t word = 0;
    for (int i = 0; i < 4; ++i) {
      word = word << 8 | key[next];
      if (++next == length) next = 0;
    }
    subkey ^= word;
  }
  Halves block = {0, 0};
  const auto replace = [&](uint32_t& first, uint32_t& second) {
    block = crypt_one<Direction::kEncrypt>(c, block);
    first = block.left;
    second = block.right;
  };
  for (int i = 0; i < 18; i += 2) replace(c.P[i], c.P[i + 1]);
  for (auto& box : c.S)
    for (int i = 0; i < 256; i += 2) replace(box[i], box[i + 1]);
  c.mode = kEcb;
  return true;
}

bool BlowfishInitCBC(BlowfishContext* context, const unsigned char* key, size_t length,
                     long direction) {
  if (!BlowfishInit(context, key, length)) {
    report_error(EFAULT, "%s: BlowfishInit failed to initialize", __func__);
    return false;
  }
  std::memset(context->chain, 0, sizeof context->chain);
  context->mode = direction == 1 ? kCbcDecrypt : kCbcEncrypt;
  return true;
}

int BlowfishEncode(BlowfishContext* context, const void* in, void* out, uint32_t length) {
  if (context == nullptr) return fail(-1, EINVAL, "%s: Invalid parameter: Null context", __func__);
  switch (context->mode) {
    case kEcb:
      return BlowfishEncodeECB(context, in, out, length);
    case kCbcEncrypt:
      return BlowfishEncodeCBC(context, in, out, length);
    default:
      return refuse_mode(*context, __func__);
  }
}

int BlowfishDecode(BlowfishContext* context, const void* in, void* out, uint32_t length) {
  if (context == nullptr) return fail(-1, EINVAL, "%s: Invalid parameter: Null context", __func__);
  switch (context->mode) {
    case kEcb:
      return BlowfishDecodeECB(context, in, out, length);
    case kCbcDecrypt:
      return BlowfishDecodeCBC(context, in, out, length);
    default:
      return refuse_mode(*context, __func__);
  }
}

int BlowfishEncodeECB(BlowfishContext* context, const void* in, void* out, uint32_t length) {
  return for_blocks(in, out, length, [context](auto* from, auto* to, uint32_t blocks) {
    crypt_ecb<Direction::kEncrypt>(*context, from, to, blocks);
  });
}

int BlowfishDecodeECB(BlowfishContext* context, const void* in, void* out, uint32_t length) {
  return for_blocks(in, out, length, [context](auto* from, auto* to, uint32_t blocks) {
    crypt_ecb<Direction::kDecrypt>(*context, from, to, blocks);
  });
}

int BlowfishEncodeCBC(BlowfishContext* context, const void* in, void* out, uint32_t length) {
  return for_blocks(in, out, length, [context](auto* from, auto* to, uint32_t blocks) {
    encrypt_cbc(*context, from, to, blocks);
  });
}

int BlowfishDecodeCBC(BlowfishContext* context, const void* in, void* out, uint32_t length) {
  return for_blocks(in, out, length, [context](auto* from, auto* to, uint32_t blocks) {
    decrypt_cbc(*context, from, to, blocks);
  });
}

long BlowfishGetOutputLength(long length) { return (length + 7) / 8 * 8; }
