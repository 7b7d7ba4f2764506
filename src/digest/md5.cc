// The MD5 family of fingerprints.
#define OPENSSL_SUPPRESS_DEPRECATED  // the context is part of the interface
#include <kel/digest.h>

#include <strings.h>

#include "digest/digest_text.h"
#include "internal/fips.h"

using namespace kel::internal;

const unsigned char md5_empty_digest[16] = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                                            0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};

namespace {

constexpr DigestFamily<16> kMd5 = {"md5", false, "MD5DigestSerialize", "MD5DigestDeserialize"};
constexpr size_t kStringSize = kMd5.kTextSize + 1;
constexpr char kEmptyText[] = "d41d8cd98f00b204e9800998ecf8427e";

/// MD5 is no approved digest: warns and tells the caller to do nothing.
bool is_unavailable(const char* function) {
  if (!fips_mode()) return false;
  report_warning(-1, "%s should not be used in FIPS mode", function);
  return true;
}

/// The digest of `data`; zero bytes in approved mode.
void digest_of(const void* data, size_t length, unsigned char* digest) {
  MD5Context context = {};
  MD5Initialize(&context);
  for (const auto* from = static_cast<const unsigned char*>(data);;) {
    const auto piece = static_cast<uint32_t>(std::min<size_t>(length, UINT32_MAX));
    MD5Append(&context, from, piece);
    if ((length -= piece) == 0) break;
    from += piece;
  }
  MD5Finalize(&context);
  std::memcpy(digest, context.digest, sizeof context.digest);
}

}  // namespace

const unsigned char* MD5EmptyDigest(void) { return md5_empty_digest; }

int MD5IsEmptyDigest(const unsigned char* digest) {
  if (digest == nullptr) return fail_null(0, __func__);
  return std::memcmp(digest, md5_empty_digest, sizeof md5_empty_digest) == 0;
}

int MD5IsEmptyFP(const char* text) {
  if (text == nullptr) return fail_null(0, __func__);
  return strcasecmp(text, kEmptyText) == 0;
}

unsigned char* MD5DigestInitMinimum(unsigned char* digest) {
  return fill_digest<16>(digest, 0x00, __func__);
}
unsigned char* MD5DigestInitMaximum(unsigned char* digest) {
  return fill_digest<16>(digest, 0xff, __func__);
}
unsigned char* MD5DigestIncrement(unsigned char* digest) { return increment<16>(digest, __func__); }
unsigned char* MD5DigestDecrement(unsigned char* digest) { return decrement<16>(digest, __func__); }
uint32_t MD5DigestHash32(const unsigned char* digest) { return hash32(digest, __func__); }

size_t MD5DigestSerializedSize(int raw) { return raw != 0 ? 16 : kMd5.kTextSize; }

size_t MD5DigestSerialize(void* buf, size_t size, const unsigned char* digest, int raw) {
  return serialize(kMd5, buf, size, digest, raw);
}

size_t MD5DigestDeserialize(unsigned char* digest, const void* src, size_t size, int raw) {
  return deserialize(kMd5, digest, src, size, raw);
}

char* MD5DigestToString_r(const unsigned char* digest, char* buf, size_t size) {
  return to_string(kMd5, digest, buf, size, __func__);
}

char* MD5DigestToString(const unsigned char* digest) {
  static char text[kStringSize];
  return to_string(kMd5, digest, text, sizeof text, __func__);
}

unsigned char* MD5StringToDigest_r(const char* text, unsigned char* digest) {
  return from_string(kMd5, text, digest, __func__);
}

unsigned char* MD5StringToDigest(const char* text) {
  static unsigned char digest[16];
  return from_string(kMd5, text, digest, __func__);
}

void MD5ValidateAndExitOnError(const char* text) { validate_or_exit(kMd5, text); }

void MD5Initialize(MD5Context* context) {
  if (context == nullptr) return report_null(__func__);
  if (!is_unavailable(__func__)) MD5_Init(&context->state);
}

void MD5Append(MD5Context* context, const void* data, uint32_t length) {
  if (context == nullptr || (data == nullptr && length != 0)) return report_null(__func__);
  if (!is_unavailable(__func__)) MD5_Update(&context->state, data, length);
}

void MD5Finalize(MD5Context* context) {
  if (context == nullptr) return report_null(__func__);
  if (!is_unavailable(__func__)) MD5_Final(context->digest, &context->state);
}

char* MD5GetString_r(const MD5Context* context, char* buf, size_t size) {
  if (context == nullptr || buf == nullptr || size < kStringSize)
    return fail_null<char*>(nullptr, __func__);
  return to_string(kMd5, context->digest, buf, size, __func__);
}

char* MD5GetString(const MD5Context* context) {
  static char text[kStringSize];
  if (context == nullptr) return fail_null<char*>(nullptr, __func__);
  return to_string(kMd5, context->digest, text, sizeof text, __func__);
}

unsigned char* MD5DigestFromData_r(const void* data, size_t length, unsigned char* digest) {
  if ((data == nullptr && length != 0) || digest == nullptr)
    return fail_null<unsigned char*>(nullptr, __func__);
  digest_of(data, length, digest);
  return digest;
}

char* MD5FromData_r(const void* data, size_t length, char* buf, size_t size) {
  if (!are_usable(kMd5, data, length, buf, size)) return fail_null<char*>(nullptr, __func__);
  unsigned char digest[16];
  digest_of(data, length, digest);
  return to_string(kMd5, digest, buf, size, __func__);
}

char* MD5FromData(const void* data, size_t length) {
  static char text[kStringSize];
  if (data == nullptr && length != 0) return fail_null<char*>(nullptr, __func__);
  return MD5FromData_r(data, length, text, sizeof text);
}
