// Unique identifiers in any bytes: what is accepted is valid, comes back as it was in lowercase,
// and is the same from a stream.
#include <kel/uid.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (const int raw : {0, 1}) {
    KelUID uid = {{0}};
    const size_t used = KelUIDDeserialize(&uid, data, size, raw);
    require((used != 0) == (uid.bytes[0] == KEL_UID_RANDOM));
    if (used != 0) {
      require(KelUIDValidate(&uid) == 1 && used == KelUIDSerializedSize(&uid, raw));
      char form[32];
      require(KelUIDSerialize(form, sizeof form, &uid, raw) == used);
      for (size_t i = 0; i < used; ++i) {
        const int lower = raw == 0 && data[i] >= 'A' ? 0x20 : 0;
        require(static_cast<uint8_t>(form[i]) == (data[i] | lower));
      }
    }
    if (size == 0) continue;
    FILE* stream = fmemopen(const_cast<uint8_t*>(data), size, "r");  // NOLINT: only read
    KelUID streamed = {{0}};
    const bool accepted = KelUIDInitFromFile(&streamed, stream, raw, nullptr) != nullptr;
    require(accepted == (used != 0) && (!accepted || KelUIDEqual(&uid, &streamed) == 1));
    std::fclose(stream);
  }
  return 0;
}
