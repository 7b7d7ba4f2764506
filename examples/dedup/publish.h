// Files of the repository appear whole or not at all: they are written under a temporary name,
// flushed, and renamed.
#pragma once

#include <string>

namespace dedup {

/// Makes an open file durable, and then visible in `directory` under the name that ends
/// `temporary`; false after a report.
bool publish(int file, const std::string& temporary, const std::string& directory);

}  // namespace dedup
