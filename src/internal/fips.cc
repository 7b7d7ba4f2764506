#include "internal/fips.h"

#include <openssl/evp.h>

namespace kel::internal {

bool fips_mode() noexcept { return EVP_default_properties_is_fips_enabled(nullptr) == 1; }

}  // namespace kel::internal
