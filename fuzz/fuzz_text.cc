// Sizes, booleans, times and percentages in any text: narrow and wide agree, no parser stops
// outside the text, and what was read prints to something that reads the same.
#include <kel/text.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(std::string(reinterpret_cast<const char*>(data), size).c_str());
  for (char& c : text) c = static_cast<char>(c & 0x7F);  // which widens to itself
  text = text.c_str();
  const std::wstring wide(text.begin(), text.end());
  const char* const s = text.c_str();
  const auto read_alike = [&](auto narrow_call, auto wide_call) {
    char* end;
    wchar_t* wide_end;
    const auto value = narrow_call(s, &end);
    require(value == wide_call(wide.c_str(), &wide_end));
    require(end >= s && end <= s + text.size() && end - s == wide_end - wide.c_str());
    return value;
  };
  const uint64_t value = read_alike(strtosize, wcstosize);
  read_alike(strtosizemult, wcstosizemult);
  read_alike(strtobool, wcstobool);

  char buf[KEL_SIZE_TEXT];
  require(strtosize(sizetostr(buf, sizeof buf, value), nullptr) == value);
  wchar_t rounded[KEL_SIZE_TEXT];
  const int precision = static_cast<int>(size % 30);
  sizetofloatstr(buf, sizeof buf, value, precision);
  sizetofloatwcs(rounded, KEL_SIZE_TEXT, value, precision);
  for (size_t i = 0; i <= std::strlen(buf); ++i) require(buf[i] == static_cast<char>(rounded[i]));

  char* end;
  const int seconds = strtotimeofday(s, &end);
  require(seconds >= 0 && seconds < 86400 && end >= s && end <= s + text.size());
  double percentage;
  strpercentotvalue(s, &percentage);

  std::string joined, tokens = text, stripped = text;
  char* cursor = tokens.data();
  while (const char* token = StringGetNextTokenA(&cursor)) joined += token;
  require(joined == strstrip(stripped.data()));
  return 0;
}
