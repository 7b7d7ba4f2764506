// Integers from streams: what a form's bytes are is found here, what they mean in integers.h.
#include <kel/safeio.h>
#include <kel/serialize.h>

#include "digest/integers.h"

namespace {

using namespace kel::internal;

/// One more than can be read, so that a longer number is seen to be one.
constexpr size_t kMaxText = kMaxDigits + 1;

template <class Result>
Result fail_read(Result failure, const char* function, unsigned line = __builtin_LINE()) {
  return fail(failure, EIO, "%s (%u): unable to read file: %s", function, line, std::strerror(EIO));
}

template <std::unsigned_integral T>
T* read_integer(T* value, FILE* stream, int raw, size_t* used, const char* function) {
  if (value == nullptr) return fail(value, EINVAL, "%s: invalid NULL pvalue", function);
  if (stream == nullptr) return fail<T*>(nullptr, EINVAL, "%s: invalid NULL file", function);
  char form[kMaxText];
  size_t size = sizeof(T);
  if (raw != 0) {
    if (safe_fread(stream, form, size) != size) return fail_read<T*>(nullptr, function);
  } else if (fread_uint(stream, form, sizeof form, &size) == nullptr) {
    return fail_read<T*>(nullptr, function);
  }
  return deserialize_integer(value, form, size, raw, used, function);
}

}  // namespace

uint8_t* KelUint8InitFromFile(uint8_t* pvalue, FILE* stream, int raw, size_t* used) {
  return read_integer(pvalue, stream, raw, used, __func__);
}

uint32_t* KelUint32InitFromFile(uint32_t* pvalue, FILE* stream, int raw, size_t* used) {
  return read_integer(pvalue, stream, raw, used, __func__);
}

uint64_t* KelUint64InitFromFile(uint64_t* pvalue, FILE* stream, int raw, size_t* used) {
  return read_integer(pvalue, stream, raw, used, __func__);
}
