// A copy of a repository in a folder on a server: everything but the key. Files get there in an
// order in which none is missing what it needs, and the manifest names them when all are there.
#pragma once

#include "options.h"
#include "repository.h"

namespace dedup {

/// Writes what the remote does not have, and prints how much that was; false after a report.
/// `repository` is opened for storing. Without a remote in the options there is nothing to do.
bool push(const Repository& repository, const Options& options);

enum class Fetched {
  kAll,
  kNotAll,  ///< what is missing was reported; the rest is there
  kFailed,  ///< after a report
};

/// Fetches what the folder `path` is missing of the repository, of which it needs to hold no more
/// than the key. Waits for a store that runs there. Without a remote there is nothing to do.
Fetched fetch(const std::string& path, const Options& options);

}  // namespace dedup
