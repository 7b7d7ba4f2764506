// What nearly every test uses: the matchers, the helpers beside this file, and the standard headers
// of models and scenarios. `using namespace kel::testing` makes all of it short.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/import_hook.h"
#include "support/refusals.h"
#include "support/reports.h"
#include "support/temp_dir.h"

namespace kel::testing {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

/// What the process writes to standard error during `call`.
template <class Call>
std::string console_of(Call call) {
  ::testing::internal::CaptureStderr();
  call();
  return ::testing::internal::GetCapturedStderr();
}

template <class Bytes = std::string>
Bytes random_bytes(std::mt19937& random, size_t count) {
  Bytes bytes(count, 0);
  for (auto& byte : bytes) byte = static_cast<typename Bytes::value_type>(random());
  return bytes;
}

}  // namespace kel::testing
