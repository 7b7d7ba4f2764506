// Opening a file whose contents are wanted.
#pragma once

#include <sys/stat.h>

#include "internal/handles.h"

namespace kel::internal {

/// Opens `path` for reading and fills `status`. No descriptor after a report, with errno set:
/// EISDIR for a directory, EINVAL for a null path.
UniqueFd open_reader(const char* path, struct stat& status);
UniqueFd open_reader(const char* path);

}  // namespace kel::internal
