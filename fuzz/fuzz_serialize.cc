// Integers and buffers in any bytes: what is read is a prefix that prints to the same bytes again,
// and a stream gives what a buffer gives.
#include <kel/serialize.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fuzz_target.h"

namespace {

template <class T>
struct Width {
  size_t (*print)(void*, size_t, T, int);
  T* (*parse)(T*, const void*, size_t, int, size_t*);
  T* (*read)(T*, FILE*, int, size_t*);
};

template <class T>
void check(const Width<T>& width, const uint8_t* data, size_t size, int raw) {
  T value = 77;
  size_t used = 0;
  const bool parsed = width.parse(&value, data, size, raw, &used) != nullptr;
  if (parsed) {
    require(used >= 1 && used <= size);
    size_t zeros = 0;  // in front of the number
    while (raw == 0 && zeros + 1 < used && data[zeros] == '0') ++zeros;
    char form[32];
    require(width.print(form, sizeof form, value, raw) == used - zeros);
    require(std::memcmp(form, data + zeros, used - zeros) == 0);
  } else {
    require(used == 0 && value == (raw != 0 || size == 0 ? 77 : 0));
  }
  if (width.read == nullptr || size == 0) return;
  FILE* stream = fmemopen(const_cast<uint8_t*>(data), size, "r");  // NOLINT: only read
  T streamed = 77;
  size_t consumed = 0;
  const bool accepted = width.read(&streamed, stream, raw, &consumed) != nullptr;
  require(accepted == parsed && (!accepted || (streamed == value && consumed == used)));
  std::fclose(stream);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (const int raw : {0, 1}) {
    check<uint8_t>({KelUint8Serialize, KelUint8InitDeserialize, KelUint8InitFromFile}, data, size,
                   raw);
    check<uint32_t>({KelUint32Serialize, KelUint32InitDeserialize, KelUint32InitFromFile}, data,
                    size, raw);
    check<uint64_t>({KelUint64Serialize, KelUint64InitDeserialize, KelUint64InitFromFile}, data,
                    size, raw);
  }
  if (size >= 2)
    check<uint16_t>({KelUint16Serialize, KelUint16InitDeserialize, nullptr}, data, size, 1);

  std::vector<uint8_t> bytes(size / 2);
  if (KelBufToDeserialize(bytes.data(), bytes.size(), data, size) != 0) {
    std::vector<char> text(2 * bytes.size());
    require(KelBufToSerialize(text.data(), text.size(), bytes.data(), bytes.size()) == text.size());
    for (size_t i = 0; i < text.size(); ++i)
      require(text[i] == (data[i] | (data[i] >= 'A' ? 0x20 : 0)));
  }
  return 0;
}
