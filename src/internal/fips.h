// Whether the cryptographic library runs in its approved (FIPS 140) mode.
#pragma once

namespace kel::internal {

/// True when the default properties of OpenSSL's default library context ask for "fips=yes".
bool fips_mode() noexcept;

}  // namespace kel::internal
