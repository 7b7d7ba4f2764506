#include "walk.h"

#include <kel/dir.h>
#include <kel/path.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "descriptor.h"

namespace dedup {
namespace {

using UniqueWalk = std::unique_ptr<DDS, int (*)(DDS*)>;

constexpr int kOptions = DDS_PHYSICAL | DDS_NOSTAT | DDS_NOCHDIR;

/// Far below what a segment of a catalogue can hold.
constexpr size_t kLongestPath = size_t{1} << 20;

/// The order of PathCompareA(), too.
int by_name(const DDSENT** a, const DDSENT** b) {
  return std::strcmp((*a)->dds_name, (*b)->dds_name);
}

/// Whether `folder` is above `path`.
bool leads_to(const std::string& path, const std::string& folder) {
  return path != folder && (folder.empty() || path.starts_with(folder + '/'));
}

class Walk {
 public:
  Walk(const struct stat& excluded, WalkVisitor& visitor)
      : excluded_(excluded), visitor_(visitor) {}

  /// A folder that cannot be read to its end ends the library's walk; another one goes on behind
  /// it.
  bool run(const std::string& root) {
    const std::string top = root + "/.";  // a folder, or nothing
    for (;;) {
      const UniqueWalk walk(DirOpenA(top.c_str(), kOptions, by_name, 0), DirCloseA);
      if (walk == nullptr) return visitor_.problem(path_, errno);
      bool is_new = !broken_;
      while (DDSENT* const found = DirGetNextA(walk.get())) {
        path_ = found->dds_level == 0 ? "" : found->dds_path + top.size() + 1;
        is_new = is_new || PathCompareA(path_.c_str(), broken_->c_str(), '/') > 0;
        if (is_new ? !visit(found) : !pass(found)) return false;
      }
      if (errno == 0) return true;
      visitor_.problem(path_, errno);
      if (!is_new) return true;  // the way to where it would go on is broken now
      broken_ = path_;
    }
  }

 private:
  /// Goes by what was visited already.
  bool pass(DDSENT* found) {
    if (found->dds_info == DDS_D && leads_to(*broken_, path_))
      open_folder(found);
    else
      DirSetFlagsA(found, DDS_SKIP);
    return true;
  }

  bool visit(DDSENT* found) {
    if (found->dds_info == DDS_DP) return true;
    const bool is_excluded = found->dds_info == DDS_D && found->dds_ino == excluded_.st_ino &&
                             found->dds_dev == excluded_.st_dev;
    if (is_excluded || path_.size() > kLongestPath) {
      DirSetFlagsA(found, DDS_SKIP);
      return is_excluded || visitor_.problem(path_, ENAMETOOLONG);
    }
    switch (found->dds_info) {
      case DDS_D:
        return visit_folder(found);
      case DDS_DC:
        return visitor_.left_out(path_, "is a folder above it, mounted there");
      case DDS_NS:
      case DDS_DNR:
      case DDS_ERR:
        return visitor_.problem(path_, found->dds_errno);
      default:
        return visit_other(found);
    }
  }

  bool visit_folder(DDSENT* found) {
    struct stat status;
    if (!open_folder(found)) return true;
    if (::fstat(folders_.back().get(), &status) != 0) return visitor_.problem(path_, errno);
    return visitor_.folder(entry_of(path_, status));
  }

  /// The kinds are asked for here, not by the library: a file that is opened next is then at hand.
  bool visit_other(DDSENT* found) {
    struct stat status;
    const int folder = folder_of(found);
    if (::fstatat(folder, found->dds_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
      return visitor_.problem(path_, errno);
    if (S_ISDIR(status.st_mode)) return DirSetFlagsA(found, DDS_AGAIN) == 1;
    Entry entry = entry_of(path_, status);
    if (S_ISREG(status.st_mode)) return visitor_.file(entry, folder, found->dds_name);
    if (!S_ISLNK(status.st_mode))
      return visitor_.left_out(path_, "is neither file, folder nor link");
    entry.target.resize(PATH_MAX);
    const ssize_t length =
        ::readlinkat(folder, found->dds_name, entry.target.data(), entry.target.size());
    if (length < 0) return visitor_.problem(path_, errno);
    entry.target.resize(static_cast<size_t>(length));
    return visitor_.link(entry);
  }

  /// Opens a folder for what is in it, for which it needs no right to read it; the walk stays out
  /// of one that cannot be opened.
  bool open_folder(DDSENT* found) {
    const bool at_top = found->dds_level == 0;
    folders_.resize(static_cast<size_t>(found->dds_level));
    folders_.emplace_back(::openat(at_top ? AT_FDCWD : folder_of(found),
                                   at_top ? found->dds_path : found->dds_name,
                                   O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folders_.back()) return true;
    visitor_.problem(path_, errno);
    DirSetFlagsA(found, DDS_SKIP);
    return false;
  }

  int folder_of(const DDSENT* found) const {
    return folders_[static_cast<size_t>(found->dds_level - 1)].get();
  }

  const struct stat& excluded_;
  WalkVisitor& visitor_;
  std::vector<Descriptor> folders_;  ///< from the root down to where the walk is, or was deeper
  std::string path_;                 ///< of the last entry
  std::optional<std::string> broken_;
};

}  // namespace

Entry entry_of(std::string path, const struct stat& status) {
  Entry entry;
  entry.path = std::move(path);
  entry.mode = status.st_mode & 07777;
  entry.owner = status.st_uid;
  entry.group = status.st_gid;
  entry.seconds = status.st_mtim.tv_sec;
  entry.nanoseconds = static_cast<uint32_t>(status.st_mtim.tv_nsec);
  return entry;
}

bool walk(const std::string& root, const struct stat& excluded, WalkVisitor& visitor) {
  return Walk(excluded, visitor).run(root);
}

bool list_names(const std::string& folder, std::vector<std::string>& names) {
  const UniqueWalk walk(DirOpenA(folder.c_str(), DDS_COMFOLLOW | DDS_NOCHDIR, nullptr, 0),
                        DirCloseA);
  const DDSENT* const root = walk == nullptr ? nullptr : DirGetNextA(walk.get());
  if (root == nullptr) return false;
  errno = root->dds_info == DDS_NS ? root->dds_errno : ENOTDIR;
  if (root->dds_info != DDS_D) return false;
  const DDSENT* name = DirGetChildrenA(walk.get(), DDS_NAMEONLY);
  for (; name != nullptr; name = name->dds_link) names.emplace_back(name->dds_name);
  return !names.empty() || errno == 0;
}

}  // namespace dedup
