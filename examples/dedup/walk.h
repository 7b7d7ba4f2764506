// Walks through folders by the library's family, closed at the end of their scope.
#pragma once

#include <kel/dir.h>

#include <memory>
#include <string>
#include <vector>

namespace dedup {

struct CloseWalk {
  void operator()(DDS* walk) const { DirCloseA(walk); }
};
using UniqueWalk = std::unique_ptr<DDS, CloseWalk>;

/// The names in a folder; false with errno when they cannot be read.
bool list_names(const std::string& folder, std::vector<std::string>& names);

}  // namespace dedup
