// Where the Blowfish key schedule starts from.
#pragma once

#include <cstdint>

namespace kel::internal {

extern const std::uint32_t kBlowfishP[18];
extern const std::uint32_t kBlowfishS[4][256];

}  // namespace kel::internal
