// Hiding passwords in any text: never grows it, never reads past its end, finds nothing twice.
#include <kel/strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  text = text.c_str();  // the text ends at its first NUL
  std::string hidden = text;
  kelstrsanitize(hidden.data(), " ;\n");
  hidden.resize(std::strlen(hidden.c_str()));
  if (hidden.size() > text.size()) std::abort();
  std::string again = hidden;
  kelstrsanitize(again.data(), " ;\n");
  if (again.c_str() != hidden) std::abort();
  return 0;
}
