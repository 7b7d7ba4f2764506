#include "walk.h"

#include <cerrno>

namespace dedup {

bool list_names(const std::string& folder, std::vector<std::string>& names) {
  const UniqueWalk walk(DirOpenA(folder.c_str(), DDS_COMFOLLOW | DDS_NOCHDIR, nullptr, 0));
  const DDSENT* const root = walk == nullptr ? nullptr : DirGetNextA(walk.get());
  if (root == nullptr) return false;
  errno = root->dds_info == DDS_NS ? root->dds_errno : ENOTDIR;
  if (root->dds_info != DDS_D) return false;
  const DDSENT* name = DirGetChildrenA(walk.get(), DDS_NAMEONLY);
  for (; name != nullptr; name = name->dds_link) names.emplace_back(name->dds_name);
  return !names.empty() || errno == 0;
}

}  // namespace dedup
