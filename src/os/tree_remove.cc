// Removing whole trees. Every step is taken from an open directory and never through a link, so
// that a directory that another process swaps for a link cannot lead out of the tree; names are
// never joined to paths, so that no depth is too great.
#include <kel/path.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "internal/handles.h"
#include "internal/report.h"
#include "internal/transfer.h"
#include "os/wide_path.h"

namespace {

using kel::internal::ErrnoGuard;
using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::MallocPtr;
using kel::internal::retry_interrupted;
using kel::internal::UniqueFd;
using kel::internal::WidePath;

/// A growing array of plain values that says so when memory is out.
template <class T>
class Pile {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  size_t size() const { return size_; }
  T* data() { return values_.get(); }
  T& operator[](size_t i) { return values_.get()[i]; }
  T& top() { return values_.get()[size_ - 1]; }
  void cut(size_t size) { size_ = size; }

  [[nodiscard]] bool append(const T* values, size_t count) {
    if (size_ + count > capacity_ && !grow(size_ + count)) return false;
    std::copy_n(values, count, values_.get() + size_);
    size_ += count;
    return true;
  }

 private:
  bool grow(size_t least) {
    const size_t capacity = std::max<size_t>({least, 2 * capacity_, 64});
    void* moved = std::realloc(values_.get(), capacity * sizeof(T));
    if (moved == nullptr) return false;
    values_.release();
    values_.reset(static_cast<T*>(moved));
    capacity_ = capacity;
    return true;
  }

  MallocPtr<T> values_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

class TreeRemover {
 public:
  TreeRemover() = default;
  TreeRemover(const TreeRemover&) = delete;
  TreeRemover& operator=(const TreeRemover&) = delete;
  ~TreeRemover() {
    const ErrnoGuard keep;
    while (levels_.size() > 0) drop_level();
  }

  /// Removes `name` of the directory `base`, with all that is below; the first error, or 0.
  int remove(UniqueFd base, const char* name) {
    if (!push_level(base) || !push_name(name)) return errno;
    while (!lost_) {
      if (names_.size() > levels_.top().names)
        enter();
      else if (levels_.size() > 1)
        leave();
      else
        break;
    }
    return error_;
  }

 private:
  /// A directory on the way from the base to where the removal stands.
  struct Level {
    int fd = -1;       ///< -1 while put aside
    dev_t device = 0;  ///< with `inode`: which directory it is, known once it was put aside
    ino_t inode = 0;
    size_t names = 0;       ///< where the names of its directories that are left begin
    bool complete = false;  ///< all its entries were listed
    bool removed = false;   ///< something in it was removed since it was opened or rewound
    bool failed = false;    ///< something in it could not be removed
    int rewinds = 0;
  };

  static constexpr size_t kOpenLevels = 62;  // descriptors held for a tree of any depth
  static constexpr int kRewinds = 3;         // for directories whose lists shift under removals
  static constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

  [[nodiscard]] bool push_level(UniqueFd& fd) {
    Level level;
    level.fd = fd.get();
    level.names = names_.size();
    if (!levels_.append(&level, 1)) return false;
    fd.release();
    return true;
  }

  void drop_level() {
    if (levels_.top().fd >= 0) ::close(levels_.top().fd);
    levels_.cut(levels_.size() - 1);
  }

  [[nodiscard]] bool push_name(const char* name) {
    return names_.append(name, std::strlen(name) + 1);
  }

  /// Where the last of the names left begins.
  size_t last_name() {
    const std::string_view before(names_.data(), names_.size() - 1);
    return before.rfind('\0') + 1;  // npos + 1 is 0
  }

  void note(int error) {
    levels_.top().failed = true;
    if (error_ == 0) error_ = error;
  }

  /// Opens the last directory left of the deepest level and removes what it holds but directories.
  void enter() {
    const size_t at = last_name();
    UniqueFd fd = open_directory(&names_[at]);
    if (!fd) {
      remove_unopened(&names_[at], errno);
      names_.cut(at);
    } else if (!push_level(fd)) {
      note(errno);
      names_.cut(at);
    } else {
      if (levels_.size() - first_open_ > kOpenLevels) put_aside();
      empty();
    }
  }

  UniqueFd open_directory(const char* name) {
    for (;;) {
      UniqueFd fd(retry_interrupted([&] { return ::openat(levels_.top().fd, name, kDirectory); }));
      if (fd || (errno != EMFILE && errno != ENFILE) || first_open_ + 1 >= levels_.size() ||
          !put_aside())
        return fd;
    }
  }

  /// Closes the uppermost open level but the base; leave() finds the way back to it.
  bool put_aside() {
    Level& level = levels_[first_open_];
    struct stat status;
    if (::fstat(level.fd, &status) != 0) return false;
    level.device = status.st_dev;
    level.inode = status.st_ino;
    ::close(std::exchange(level.fd, -1));
    ++first_open_;
    return true;
  }

  /// Opens the level above the deepest again, unless that has been moved elsewhere.
  bool take_up(Level& level) {
    UniqueFd fd(::openat(levels_.top().fd, "..", kDirectory));
    struct stat status;
    if (!fd || ::fstat(fd.get(), &status) != 0) return false;
    if (status.st_dev != level.device || status.st_ino != level.inode)
      return fail_quietly(false, ESTALE);
    level.fd = fd.release();
    --first_open_;
    return true;
  }

  /// Removes what did not open as a directory for the reason `error`: no directory, or one that may
  /// not be read but is perhaps empty.
  void remove_unopened(const char* name, int error) {
    Level& level = levels_.top();
    const bool directory = error != ENOTDIR && error != ELOOP;
    if (error == ENOENT) return;
    if (::unlinkat(level.fd, name, directory ? AT_REMOVEDIR : 0) == 0)
      level.removed = true;
    else if (errno != ENOENT)
      note(directory ? error : errno);
  }

  /// Removes what the deepest level holds but its directories, whose names it keeps.
  void empty() {
    Level& level = levels_.top();
    while (!level.complete) {
      const ssize_t filled =
          retry_interrupted([&] { return ::getdents64(level.fd, entries_, sizeof entries_); });
      if (filled <= 0) {
        if (filled < 0 && errno != ENOENT) note(errno);
        level.complete = true;
        return;
      }
      empty_listed(level, static_cast<size_t>(filled));
      // The rest of a list that has room for more is empty, or leave() finds out: that spares the
      // call that only tells so.
      if (sizeof entries_ - static_cast<size_t>(filled) > sizeof(dirent64) &&
          names_.size() == level.names)
        return;
    }
  }

  void empty_listed(Level& level, size_t filled) {
    for (size_t at = 0; at < filled;) {
      const auto* entry = reinterpret_cast<const dirent64*>(entries_ + at);
      at += entry->d_reclen;
      const char* name = entry->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      int error = EISDIR;
      if (entry->d_type != DT_DIR) error = ::unlinkat(level.fd, name, 0) == 0 ? 0 : errno;
      if (error == EISDIR) error = push_name(name) ? ENOENT : ENOMEM;
      if (error == 0)
        level.removed = true;
      else if (error != ENOENT)
        note(error);
    }
  }

  /// Removes the deepest level itself, or goes on with what is still in it.
  void leave() {
    Level& level = levels_.top();
    Level& parent = levels_[levels_.size() - 2];
    if (parent.fd < 0 && !take_up(parent)) {
      note(errno);
      lost_ = true;
      return;
    }
    const size_t at = last_name();
    const char* name = &names_[at];
    int error = ::unlinkat(parent.fd, name, AT_REMOVEDIR) == 0 ? 0 : errno;
    if (error == ENOTDIR) error = ::unlinkat(parent.fd, name, 0) == 0 ? 0 : errno;
    if ((error == ENOTEMPTY || error == EEXIST) && goes_on(level)) return empty();
    const bool failed = level.failed;
    drop_level();
    names_.cut(at);
    if (error == 0)
      parent.removed = true;
    else if (failed || error != ENOENT)
      note(error);
  }

  /// Whether there may be more to find in a level that turned out not to be empty.
  static bool goes_on(Level& level) {
    if (!level.complete) return true;
    if (level.failed || !level.removed || level.rewinds == kRewinds) return false;
    if (::lseek(level.fd, 0, SEEK_SET) != 0) return false;
    ++level.rewinds;
    level.complete = level.removed = false;
    return true;
  }

  Pile<Level> levels_;     // the base first; it and the root below it ...
  size_t first_open_ = 1;  // ... open from here on, besides the base
  Pile<char> names_;       // of directories left, each with its terminator, level after level
  int error_ = 0;          // the first
  bool lost_ = false;      // there is no way back up
  alignas(dirent64) char entries_[32768];
};

/// A path cut into the directory that holds the root of a tree and the root's name in it.
class RootPath {
 public:
  static constexpr size_t kCapacity = 4096;

  /// `path` has `length` characters, more than 0 and fewer than kCapacity.
  RootPath(const char* path, size_t length) {
    std::memcpy(text_, path, length + 1);
    PathToNativePathA(text_);
    while (length > 1 && text_[length - 1] == '/') text_[--length] = '\0';
    asks_for_directory_ = path[length] != '\0';
    char* slash = std::strrchr(text_, '/');
    if (slash == nullptr) {
      name_ = text_;
    } else if (slash[1] == '\0') {
      parent_ = "/";
    } else {
      name_ = slash + 1;
      parent_ = slash == text_ ? "/" : text_;
      *slash = '\0';
    }
  }

  const char* parent() const { return parent_; }
  const char* name() const { return name_; }
  bool asks_for_directory() const { return asks_for_directory_; }

 private:
  char text_[kCapacity];
  const char* parent_ = ".";
  const char* name_ = ".";
  bool asks_for_directory_;
};

/// The directory that holds an existing root; else none, and errno tells why.
UniqueFd open_parent(const RootPath& root) {
  UniqueFd base(::open(root.parent(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat status;
  if (!base || ::fstatat(base.get(), root.name(), &status, AT_SYMLINK_NOFOLLOW) != 0) return {};
  if (root.asks_for_directory() && !S_ISDIR(status.st_mode))
    return fail_quietly(UniqueFd(), ENOTDIR);
  return base;
}

int remove_tree(const char* path, const char* function) {
  if (path == nullptr || *path == '\0')
    return fail(0, ENOENT, "%s: invalid NULL parameter", function);
  const size_t length = ::strnlen(path, RootPath::kCapacity);
  int error = ENAMETOOLONG;
  if (length < RootPath::kCapacity) {
    const RootPath root(path, length);
    UniqueFd base = open_parent(root);
    if (!base && errno == ENOENT) return 0;
    if (!base) return fail(0, errno, "%s: unable to open directory: %s", function, path);
    error = TreeRemover().remove(std::move(base), root.name());
  }
  if (error == 0) return 1;
  return fail(0, error, "%s: Could not delete %s (%s)", function, path, std::strerror(error));
}

}  // namespace

int DeleteTreeA(const char* path) { return remove_tree(path, __func__); }

int DeleteTreeW(const wchar_t* path) {
  const WidePath converted(path, __func__);
  return converted ? remove_tree(converted.c_str(), __func__) : 0;
}
