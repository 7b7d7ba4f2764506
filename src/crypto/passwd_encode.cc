// Passwords in their encoded form: hidden from a glance, no more.
#include <kel/base64.h>
#include <kel/passwd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "crypto/secret.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kWord[] = "TarnVole";
constexpr std::size_t kWordSize = sizeof kWord - 1;

/// `size` bytes XORed with the word, which starts over at `from`.
void mask(const char* from, std::size_t size, unsigned char* to) {
  for (std::size_t i = 0; i < size; ++i)
    to[i] = static_cast<unsigned char>(from[i] ^ kWord[i % kWordSize]);
}

}  // namespace

int PasswdEncode(const char* passwd, char* dst, unsigned dstLen) {
  if (passwd == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  std::size_t left = std::strlen(passwd);
  if (dstLen < KEL_BASE64_SIZE(left))
    return fail(-1, EINVAL, "%s: destination too small", __func__);

  // Whole words and whole groups of three bytes a piece, so that nothing large has to be wiped.
  Secret<unsigned char[42 * 3 * kWordSize]> masked;
  std::size_t written = 0;
  do {
    const std::size_t piece = std::min(left, sizeof masked.value);
    mask(passwd, piece, masked.value);
    const std::size_t count = Base64Encode(masked.value, piece, dst + written, dstLen - written);
    if (count == KEL_BASE64_FAILURE) return fail(-1, errno, "%s: failed to encode", __func__);
    written += count;
    passwd += piece;
    left -= piece;
  } while (left != 0);
  return 0;
}

int PasswdDecode(const char* encoded, char* dst, unsigned dstLen) {
  if (encoded == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  if (dstLen == 0) return fail(-1, EINVAL, "%s: destination too small", __func__);
  auto* const bytes = reinterpret_cast<unsigned char*>(dst);
  const std::size_t size = Base64Decode(encoded, bytes, dstLen - 1);
  if (size == KEL_BASE64_FAILURE) return -1;  // reported there
  mask(dst, size, bytes);
  dst[size] = '\0';
  return 0;
}
