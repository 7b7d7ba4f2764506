#include "walk.h"

#include <kel/logging.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <vector>

#include "text.h"

namespace dedup {
namespace {

/// The names in a folder; false with errno when it cannot be read.
bool list_names(const std::string& folder, std::vector<std::string>& names) {
  std::error_code error;
  std::filesystem::directory_iterator at(folder, error);
  for (; !error && at != std::filesystem::directory_iterator(); at.increment(error))
    names.push_back(at->path().filename().string());
  std::sort(names.begin(), names.end());
  errno = error.value();
  return !error;
}

bool read_target(const std::string& path, std::string& target) {
  target.resize(PATH_MAX);
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return length >= 0;
}

class Walk {
 public:
  Walk(const std::string& root, const struct stat& excluded, WalkVisitor& visitor)
      : root_(root), excluded_(excluded), visitor_(visitor) {}

  bool enter(const std::string& path) {
    const std::string full = path.empty() ? root_ : root_ + "/" + path;
    struct stat status;
    if (::lstat(full.c_str(), &status) != 0) return skip(full);
    Entry entry = entry_of(path, status);
    if (S_ISREG(status.st_mode)) return visitor_.file(entry, full);
    if (S_ISLNK(status.st_mode))
      return read_target(full, entry.target) ? visitor_.link(entry) : skip(full);
    if (S_ISDIR(status.st_mode)) {
      const bool is_excluded =
          status.st_dev == excluded_.st_dev && status.st_ino == excluded_.st_ino;
      return is_excluded || enter_folder(entry, full);
    }
    WarningA(-1, "%s is neither file, folder nor link: not stored", path_text(full).c_str());
    return true;
  }

 private:
  bool enter_folder(const Entry& entry, const std::string& full) {
    if (!visitor_.folder(entry)) return false;
    std::vector<std::string> names;
    if (!list_names(full, names)) return skip(full);
    for (const std::string& name : names)
      if (!enter(entry.path.empty() ? name : entry.path + "/" + name)) return false;
    return true;
  }

  /// Reports what cannot be read, and lets the walk go on.
  bool skip(const std::string& full) {
    ErrorA(errno, "could not read %s: %s", path_text(full).c_str(), std::strerror(errno));
    visitor_.problem();
    return true;
  }

  const std::string& root_;
  const struct stat& excluded_;
  WalkVisitor& visitor_;
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
  return Walk(root, excluded, visitor).enter("");
}

}  // namespace dedup
