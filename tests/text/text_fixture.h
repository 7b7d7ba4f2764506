// What the tests of texts share: commands that do what the library does, and new texts.
#pragma once

#include <cstdlib>
#include <string_view>

#include "support/test.h"

namespace kel::testing {

struct Free {
  void operator()(void* text) const { std::free(text); }
};
template <class Char>
using NewText = std::unique_ptr<Char, Free>;

/// What `command` writes when it reads `input`.
inline std::string filtered(const std::string& command, std::string_view input) {
  const TempDir dir;
  write_file(dir / "in", input);
  const std::string line = command + " <" + (dir / "in") + " >" + (dir / "out");
  EXPECT_EQ(std::system(line.c_str()), 0) << command;
  return read_file(dir / "out");
}

inline const unsigned char* bytes_of(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace kel::testing
