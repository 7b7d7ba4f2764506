// JSON text of any bytes: what is refused leaves an empty object, and what is accepted is written
// as a text that means the same.
#include <kel/json.h>

#include <jansson.h>

#include <cstdint>
#include <string>

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  JsonObject object;
  const bool accepted = object.LoadFromString(text.c_str());
  const std::string written = object.DumpToString(0);
  if (!accepted) {
    require(written == "{}");
    return 0;
  }
  JsonObject again;
  require(again.LoadFromString(written.c_str()));
  require(json_equal(object.GetHandle(), again.GetHandle()) == 1);
  require(again.DumpToString(0) == written);

  JsonObject copy(object);
  object = again;
  again.Free();
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(copy.GetHandle(), key, value) {
    require(copy.GetObject(key) == value);
    long number = 0;
    require((copy.GetInt64(key, number) == 0) == json_is_integer(value));
    require(number == copy.GetInt64(key));
    require(copy.GetString(key).size() == json_string_length(value));
  }
  require(copy.ArraySize() == json_array_size(object.GetHandle()));
  require(copy.SetNew("kel", json_true()) == json_is_object(copy.GetHandle()));
  return 0;
}
