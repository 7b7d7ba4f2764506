// What an entry is, and the way back out of a directory.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "internal/report.h"
#include "os/walk.h"

namespace kel::internal {
namespace {

constexpr char kStat[] = "fastStat";

void pause_for(unsigned int milliseconds) {
  timespec left = {static_cast<time_t>(milliseconds / 1000),
                   static_cast<long>(milliseconds % 1000) * 1'000'000};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

template <class Char>
bool is_dot(const Char* name) {
  return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

}  // namespace

/// The entry's kind once its status could not be had; its path is there for the report only.
template <class Char>
unsigned short Walk<Char>::not_examined(Entry* p, int error) {
  p->dds_errno = error;
  if (p->dds_statp != nullptr) *p->dds_statp = {};
  // While a directory is being read, the path buffer ends with the directory.
  const Entry* const dir = p->dds_parent;
  const bool in_list = p->dds_accpath == dds_path && dir == at_ && dir->dds_level >= 0;
  Char* const end = dds_path + dir->dds_pathlen;
  if (in_list) {
    Char* const slash = dds_path + prefix_length(dir);
    *slash = '/';
    std::copy_n(p->dds_name, p->dds_namelen + 1, slash + 1);
  }
  const Path path(p->dds_accpath, nullptr);
  report_error(error, "%s: stat failed for path: %s", kStat, path ? path.c_str() : "?");
  if (in_list) *end = 0;
  errno = error;
  return DDS_NS;
}

template <class Char>
unsigned short Walk<Char>::kind_of(Entry* p, const struct stat& status) {
  if (S_ISREG(status.st_mode)) return DDS_F;
  if (S_ISLNK(status.st_mode)) return DDS_SL;
  if (!S_ISDIR(status.st_mode)) return DDS_DEFAULT;
  p->dds_dev = status.st_dev;
  p->dds_ino = status.st_ino;
  p->dds_nlink = status.st_nlink;
  if (p->dds_level > 0 && is_dot(p->dds_name)) return DDS_DOT;
  for (Entry* above = p->dds_parent; above->dds_level >= 0; above = above->dds_parent) {
    if (above->dds_ino != p->dds_ino || above->dds_dev != p->dds_dev) continue;
    p->dds_cycle = above;
    return DDS_DC;
  }
  return DDS_D;
}

/// Examines `name`, of the directory `dir`, as the entry's object.
template <class Char>
unsigned short Walk<Char>::examine_at(int dir, const char* name, Entry* p, bool follow) {
  if (dds_delay != 0) pause_for(dds_delay);
  struct stat scratch;
  struct stat* const status = p->dds_statp != nullptr ? p->dds_statp : &scratch;
  p->dds_errno = 0;
  p->dds_cycle = nullptr;
  if (::fstatat(dir, name, status, follow ? 0 : AT_SYMLINK_NOFOLLOW) == 0)
    return kind_of(p, *status);
  const int error = errno;
  if (!follow || ::fstatat(dir, name, status, AT_SYMLINK_NOFOLLOW) != 0)
    return not_examined(p, error);
  errno = 0;
  return DDS_SLNONE;
}

template <class Char>
unsigned short Walk<Char>::examine(Entry* p, bool follow) {
  const Path path(p->dds_accpath, nullptr);
  if (!path) return not_examined(p, errno);
  const LongPath reach(AT_FDCWD, path.c_str());
  if (!reach) return not_examined(p, errno);
  return examine_at(reach.dir(), reach.rest(), p, follow);
}

namespace {

template <class Entry>
bool is_directory(const Entry* p, const struct stat& status) {
  return p->dds_ino == status.st_ino && p->dds_dev == status.st_dev;
}

}  // namespace

/// Goes by its path to `dir`, which ".." of a directory below it did not lead to. What ".." led to
/// is right as well when the path leads there too: something was mounted on `dir` meanwhile.
template <class Char>
bool Walk<Char>::return_by_path(const Entry* dir, const struct stat& strayed) {
  Char* const end = dds_path + dir->dds_pathlen;
  const Char kept = std::exchange(*end, Char{0});
  const bool found = [&] {
    const Path path(dds_path, nullptr);
    if (!path) return false;
    const LongPath reach(dds_rfd, path.c_str());
    if (!reach) return false;
    const UniqueFd fd(::openat(reach.dir(), reach.rest(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat there;
    if (!fd || ::fstatat(fd.get(), "", &there, AT_EMPTY_PATH) != 0) return false;
    const bool same_as_strayed = there.st_ino == strayed.st_ino && there.st_dev == strayed.st_dev;
    if (!is_directory(dir, there) && !same_as_strayed) return fail_quietly(false, ESTALE);
    return ::fchdir(fd.get()) == 0;
  }();
  *end = kept;
  return found;
}

/// Goes from `dir`, where the walk is, back to the directory that holds it.
template <class Char>
bool Walk<Char>::leave(const Entry* dir) {
  if (dir->dds_level == 0) return ::fchdir(dds_rfd) == 0;
  if ((dir->dds_flags & DDS_SYMFOLLOW) != 0) return ::fchdir(dir->dds_symfd) == 0;
  const int above = levels_.at(dir->dds_level - 1);
  if (above >= 0) return ::fchdir(above) == 0;
  struct stat reached;
  if (::chdir("..") != 0 || ::fstatat(AT_FDCWD, ".", &reached, 0) != 0) return false;
  return is_directory(dir->dds_parent, reached) || return_by_path(dir->dds_parent, reached);
}

template class Walk<char>;
template class Walk<wchar_t>;

}  // namespace kel::internal
