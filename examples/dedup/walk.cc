#include "walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <vector>

#include "descriptor.h"

namespace dedup {
namespace {

/// Far below what a segment of a catalogue can hold.
constexpr size_t kLongestPath = size_t{1} << 20;

/// The names in an open folder; false with errno when they cannot be read.
bool list_names(int folder, std::vector<std::string>& names) {
  Descriptor own(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> list(::fdopendir(own.get()), ::closedir);
  if (list == nullptr) return false;
  own.release();
  errno = 0;
  while (const dirent* found = ::readdir(list.get())) {
    const std::string name = found->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return errno == 0;
}

bool read_target(int folder, const std::string& name, std::string& target) {
  target.resize(PATH_MAX);
  const ssize_t length = ::readlinkat(folder, name.c_str(), target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return length >= 0;
}

class Walk {
 public:
  Walk(const struct stat& excluded, WalkVisitor& visitor)
      : excluded_(excluded), visitor_(visitor) {}

  bool run(const std::string& root) {
    if (!enter_folder(AT_FDCWD, root)) return false;
    while (!levels_.empty()) {
      Level& level = levels_.back();
      path_.resize(level.path_size);
      if (level.names.empty()) {
        levels_.pop_back();
        continue;
      }
      const std::string name = std::move(level.names.back());
      level.names.pop_back();
      if (!path_.empty()) path_ += '/';
      path_ += name;
      if (!enter(level.folder.get(), name)) return false;
    }
    return true;
  }

 private:
  struct Level {
    Descriptor folder;
    std::vector<std::string> names;  ///< still to be visited, the next one last
    size_t path_size;
  };

  bool enter(int folder, const std::string& name) {
    struct stat status;
    if (path_.size() > kLongestPath) return skip(ENAMETOOLONG);
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return skip(errno);
    if (S_ISDIR(status.st_mode)) return enter_folder(folder, name);
    Entry entry = entry_of(path_, status);
    if (S_ISREG(status.st_mode)) return visitor_.file(entry, folder, name);
    if (!S_ISLNK(status.st_mode)) return skip(0);
    return read_target(folder, name, entry.target) ? visitor_.link(entry) : skip(errno);
  }

  bool enter_folder(int parent, const std::string& name) {
    Level level{
        Descriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
        {},
        path_.size()};
    const int error = errno;
    struct stat status;
    // One that may not be opened is kept as an empty folder.
    if (level.folder ? ::fstat(level.folder.get(), &status) != 0
                     : ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
      return skip(errno);
    if (!S_ISDIR(status.st_mode)) return skip(error);
    if (status.st_dev == excluded_.st_dev && status.st_ino == excluded_.st_ino) return true;
    if (!visitor_.folder(entry_of(path_, status))) return false;
    if (!level.folder) return skip(error);
    if (!list_names(level.folder.get(), level.names)) skip(errno);
    std::reverse(level.names.begin(), level.names.end());
    levels_.push_back(std::move(level));
    return true;
  }

  bool skip(int error) {
    visitor_.problem(path_, error);
    return true;
  }

  const struct stat& excluded_;
  WalkVisitor& visitor_;
  std::vector<Level> levels_;
  std::string path_;
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

}  // namespace dedup
