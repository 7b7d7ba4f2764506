// Lists of mounts inside the library.
#pragma once

#include <kel/os.h>

#include <cstdlib>
#include <memory>

namespace kel::internal {

inline constexpr char kMountedTable[] = "/etc/mtab";

template <class Mount>
struct FreeMounts {
  void operator()(Mount** list) const noexcept {
    for (Mount** mount = list; *mount != nullptr; ++mount) std::free(*mount);
    std::free(list);
  }
};

/// Owns a list; each record and its texts are one block.
template <class Mount>
using MountList = std::unique_ptr<Mount*, FreeMounts<Mount>>;

/// The entries of `table` that `flags` select, as OSGetMountInfoA() describes; null after a report.
MountList<OSMountA> read_mounts(const char* table, unsigned flags);

}  // namespace kel::internal
