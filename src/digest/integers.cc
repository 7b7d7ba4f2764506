// Integers in buffers: each width under its exported names.
#include "digest/integers.h"

#include <kel/serialize.h>

using namespace kel::internal;

size_t KelUint8SerializedSize(uint8_t value, int raw) { return serialized_size(value, raw); }
size_t KelUint16SerializedSize(uint16_t value, int raw) { return serialized_size(value, raw); }
size_t KelUint32SerializedSize(uint32_t value, int raw) { return serialized_size(value, raw); }
size_t KelUint64SerializedSize(uint64_t value, int raw) { return serialized_size(value, raw); }

size_t KelUint8Serialize(void* buf, size_t size, uint8_t value, int raw) {
  return serialize_integer(buf, size, value, raw, __func__);
}

size_t KelUint16Serialize(void* buf, size_t size, uint16_t value, int raw) {
  if (buf != nullptr) {
    if (raw == 0) return fail_text_of_16_bits(size_t{0}, __func__);
    if (size < sizeof value) return fail_quietly(size_t{0}, ENOBUFS);
  }
  return serialize_integer(buf, size, value, raw, __func__);
}

size_t KelUint32Serialize(void* buf, size_t size, uint32_t value, int raw) {
  return serialize_integer(buf, size, value, raw, __func__);
}

size_t KelUint64Serialize(void* buf, size_t size, uint64_t value, int raw) {
  return serialize_integer(buf, size, value, raw, __func__);
}

uint8_t* KelUint8InitDeserialize(uint8_t* pvalue, const void* src, size_t size, int raw,
                                 size_t* used) {
  return deserialize_integer(pvalue, src, size, raw, used, __func__);
}

uint16_t* KelUint16InitDeserialize(uint16_t* pvalue, const void* src, size_t size, int raw,
                                   size_t* used) {
  return deserialize_integer(pvalue, src, size, raw, used, __func__);
}

uint32_t* KelUint32InitDeserialize(uint32_t* pvalue, const void* src, size_t size, int raw,
                                   size_t* used) {
  return deserialize_integer(pvalue, src, size, raw, used, __func__);
}

uint64_t* KelUint64InitDeserialize(uint64_t* pvalue, const void* src, size_t size, int raw,
                                   size_t* used) {
  return deserialize_integer(pvalue, src, size, raw, used, __func__);
}
