// The SHA256 family of fingerprints: SHA-512/256 (FIPS 180-4).
#define OPENSSL_SUPPRESS_DEPRECATED  // the context is part of the interface
#include <kel/digest.h>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <strings.h>

#include "digest/digest_text.h"
#include "internal/fips.h"
#include "internal/handles.h"
#include "internal/transfer.h"

using namespace kel::internal;

const unsigned char sha256_empty_digest[32] = {
    0xc6, 0x72, 0xb8, 0xd1, 0xef, 0x56, 0xed, 0x28, 0xab, 0x87, 0xc3, 0x62, 0x2c, 0x51, 0x14, 0x06,
    0x9b, 0xdd, 0x3a, 0xd7, 0xb8, 0xf9, 0x73, 0x74, 0x98, 0xd0, 0xc0, 0x1e, 0xce, 0xf0, 0x96, 0x7a};

namespace {

constexpr DigestFamily<32> kSha256 = {"sha256", true, "SHA256DigestSerialize",
                                      "SHA256DigestDeserialize"};
constexpr size_t kStringSize = kSha256.kTextSize + 1;
constexpr char kEmptyText[] = "c672b8d1ef56ed28ab87c3622c5114069bdd3ad7b8f9737498d0c01ecef0967a";

constexpr SHA_LONG64 kInitialState[8] = {0x22312194fc2bf72c, 0x9f555fa3c84c64c2, 0x2393b86b6f53b151,
                                         0x963877195940eabd, 0x96283ee2a88effe3, 0xbe5e1e2553863992,
                                         0x2b0199fc2c85b8aa, 0x0eb72ddc81c52ca2};

/// A context that is finalised when the scope ends, if it was not before.
class Digest {
 public:
  Digest() { SHA256Initialize(&context_); }
  ~Digest() {
    if (!finished_) finish();
  }
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void append(const void* data, size_t length) { SHA256Append(&context_, data, length); }
  const unsigned char* finish() {
    SHA256Finalize(&context_);
    finished_ = true;
    return context_.digest;
  }

 private:
  SHA256Context context_;
  bool finished_ = false;
};

void initialize_approved(SHA256Context* context) {
  // Without a state of either kind the context takes no data and its digest is zero.
  context->state = {};
  context->approved = EVP_MD_CTX_new();
  if (context->approved != nullptr &&
      EVP_DigestInit_ex(context->approved, EVP_sha512_256(), nullptr) == 1)
    return;
  EVP_MD_CTX_free(context->approved);
  context->approved = nullptr;
  InfoA(-1, "%s: SHA512NULL", "SHA256Initialize");
}

bool has_state(const SHA256Context* context) { return context->state.md_len != 0; }

bool digest_file(int fd, Digest& digest) {
  constexpr size_t kPiece = 32 << 10;
  unsigned char piece[kPiece];
  for (;;) {
    const Transfer read = transfer_whole(
        kPiece, [&](size_t done, size_t left) { return ::read(fd, piece + done, left); });
    if (read.failed) return fail(false, errno, "%s: file read failed", "__sha512_256FromFile");
    digest.append(piece, read.done);
    if (read.done < kPiece) return true;
  }
}

char* text_of_file(const char* path, char* buf, size_t size, const char* function) {
  if (path == nullptr || buf == nullptr || size < kStringSize)
    return fail_null<char*>(nullptr, function);
  const UniqueFd fd(retry_interrupted([path] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
  if (!fd) return fail<char*>(nullptr, errno, "%s: failed to open file %s", function, path);
  Digest digest;
  if (!digest_file(fd.get(), digest)) return nullptr;
  return to_string(kSha256, digest.finish(), buf, size, function);
}

char* text_of_data(const void* data, size_t length, char* buf, size_t size, const char* function) {
  if (!are_usable(kSha256, data, length, buf, size)) return fail_null<char*>(nullptr, function);
  Digest digest;
  digest.append(data, length);
  return to_string(kSha256, digest.finish(), buf, size, function);
}

}  // namespace

const unsigned char* SHA256EmptyDigest(void) { return sha256_empty_digest; }

int SHA256IsEmptyDigest(const unsigned char* digest) {
  if (digest == nullptr) return fail_null(0, __func__);
  return std::memcmp(digest, sha256_empty_digest, sizeof sha256_empty_digest) == 0;
}

int SHA256IsEmptyFP(const char* text) {
  if (text == nullptr) return fail_null(0, __func__);
  return strcasecmp(text, kEmptyText) == 0;
}

unsigned char* SHA256DigestInitMinimum(unsigned char* digest) {
  return fill_digest<32>(digest, 0x00, __func__);
}
unsigned char* SHA256DigestInitMaximum(unsigned char* digest) {
  return fill_digest<32>(digest, 0xff, __func__);
}
unsigned char* SHA256DigestIncrement(unsigned char* digest) {
  return increment<32>(digest, __func__);
}
unsigned char* SHA256DigestDecrement(unsigned char* digest) {
  return decrement<32>(digest, __func__);
}
uint32_t SHA256DigestHash32(const unsigned char* digest) { return hash32(digest, __func__); }

size_t SHA256DigestSerializedSize(int raw) { return raw != 0 ? 32 : kSha256.kTextSize; }

size_t SHA256DigestSerialize(void* buf, size_t size, const unsigned char* digest, int raw) {
  return serialize(kSha256, buf, size, digest, raw);
}

size_t SHA256DigestDeserialize(unsigned char* digest, const void* src, size_t size, int raw) {
  return deserialize(kSha256, digest, src, size, raw);
}

char* SHA256DigestToString_r(const unsigned char* digest, char* buf, size_t size) {
  return to_string(kSha256, digest, buf, size, __func__);
}

unsigned char* SHA256StringToDigest_r(const char* text, unsigned char* digest) {
  return from_string(kSha256, text, digest, __func__);
}

unsigned char* SHA256StringToDigest(const char* text) {
  static unsigned char digest[32];
  return from_string(kSha256, text, digest, __func__);
}

void SHA256ValidateAndExitOnError(const char* text) { validate_or_exit(kSha256, text); }

void SHA256Initialize(SHA256Context* context) {
  if (context == nullptr) return report_null(__func__);
  if (fips_mode()) return initialize_approved(context);
  context->approved = nullptr;
  SHA512_Init(&context->state);
  std::memcpy(context->state.h, kInitialState, sizeof kInitialState);
}

void SHA256Append(SHA256Context* context, const void* data, size_t length) {
  if (context == nullptr || (data == nullptr && length != 0)) return report_null(__func__);
  if (context->approved != nullptr)
    EVP_DigestUpdate(context->approved, data, length);
  else if (has_state(context))
    SHA512_Update(&context->state, data, length);
}

void SHA256Finalize(SHA256Context* context) {
  if (context == nullptr) return report_null(__func__);
  if (context->approved != nullptr) {
    EVP_DigestFinal_ex(context->approved, context->digest, nullptr);
    EVP_MD_CTX_free(context->approved);
    context->approved = nullptr;
  } else if (has_state(context)) {
    unsigned char whole[SHA512_DIGEST_LENGTH];
    SHA512_Final(whole, &context->state);
    std::memcpy(context->digest, whole, sizeof context->digest);
  } else {
    std::memset(context->digest, 0, sizeof context->digest);
  }
}

char* SHA256GetString_r(const SHA256Context* context, char* buf, size_t size) {
  if (context == nullptr || buf == nullptr || size < kStringSize)
    return fail_null<char*>(nullptr, __func__);
  return to_string(kSha256, context->digest, buf, size, __func__);
}

char* SHA256FromData_r(const void* data, size_t length, char* buf, size_t size) {
  return text_of_data(data, length, buf, size, __func__);
}

char* SHA256FromData(const void* data, size_t length) {
  static char text[kStringSize];
  return text_of_data(data, length, text, sizeof text, __func__);
}

char* SHA256FromFile_r(const char* path, char* buf, size_t size) {
  return text_of_file(path, buf, size, __func__);
}

char* SHA256FromFile(const char* path) {
  static char text[kStringSize];
  return text_of_file(path, text, sizeof text, __func__);
}
