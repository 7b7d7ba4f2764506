// Byte buffers as hexadecimal text.
#include <kel/serialize.h>

#include "internal/hex.h"
#include "internal/report.h"

namespace {

using kel::internal::fail;
using kel::internal::hex_decode;
using kel::internal::hex_encode;

/// Whether `text_size` reaches the digits of the data; else reports it for `function`.
bool is_pair(const void* data, size_t len, const void* text, size_t text_size,
             const char* function) {
  if (data != nullptr && text != nullptr && len != 0 && len <= text_size / 2) return true;
  return fail(false, EINVAL, "%s: invalid NULL parameter or bufsize too small", function);
}

}  // namespace

size_t KelBufToSerialize(void* buf, size_t size, const void* data, size_t len) {
  if (!is_pair(data, len, buf, size, __func__)) return 0;
  hex_encode(static_cast<const unsigned char*>(data), len, static_cast<char*>(buf));
  return 2 * len;
}

size_t KelBufToDeserialize(void* data, size_t len, const void* src, size_t size) {
  if (!is_pair(data, len, src, size, __func__)) return 0;
  const size_t good =
      hex_decode(static_cast<const char*>(src), len, static_cast<unsigned char*>(data));
  if (good == 2 * len) return good;
  return fail(size_t{0}, EINVAL, "%s: c%d is a non-digit found", __func__, good % 2 == 0 ? 1 : 2);
}
