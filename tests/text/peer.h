// Commands that do what the library does, to hold it against.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

#include "support/temp_dir.h"

namespace kel::testing {

/// What `command` writes when it reads `input`.
inline std::string filtered(const std::string& command, std::string_view input) {
  const TempDir dir;
  write_file(dir / "in", input);
  const std::string line = command + " <" + (dir / "in") + " >" + (dir / "out");
  EXPECT_EQ(std::system(line.c_str()), 0) << command;
  return read_file(dir / "out");
}

inline std::string random_bytes(std::mt19937& random, size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

}  // namespace kel::testing
