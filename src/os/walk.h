// The walk through a tree, one template over the character type. Paths and names are the client's
// text; the system is asked in bytes, relative to the directory being read wherever that is open.
// Parts: opening and closing (walk_open.cc), reading a directory (walk_read.cc), steps
// (walk_next.cc).
#pragma once

#include <kel/dir.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <utility>

#include "internal/handles.h"
#include "internal/text_traits.h"
#include "os/entry_pool.h"
#include "os/wide_path.h"

namespace kel::internal {

/// The narrow twin of WidePath.
class NarrowPath {
 public:
  NarrowPath(const char* path, const char*) noexcept : path_(path) {}
  explicit operator bool() const noexcept { return true; }
  const char* c_str() const noexcept { return path_; }

 private:
  const char* path_;
};

/// What differs between the two walks: types, and names in reports.
template <class Char>
struct WalkTraits;

template <>
struct WalkTraits<char> {
  using Handle = DDS;
  using Entry = DDSENT;
  using Path = NarrowPath;
  static constexpr char kOpen[] = "DirOpenExA";
  static constexpr char kNext[] = "DirGetNextA";
  static constexpr char kChildren[] = "DirGetChildrenA";
  static constexpr char kSetFlags[] = "DirSetFlagsA";
  static constexpr char kClose[] = "DirCloseA";
};

template <>
struct WalkTraits<wchar_t> {
  using Handle = DDSW;
  using Entry = DDSENTW;
  using Path = WidePath;
  static constexpr char kOpen[] = "DirOpenExW";
  static constexpr char kNext[] = "DirGetNextW";
  static constexpr char kChildren[] = "DirGetChildrenW";
  static constexpr char kSetFlags[] = "DirSetFlagsW";
  static constexpr char kClose[] = "DirCloseW";
};

/// A path of any length as a directory and a rest that the system takes.
class LongPath {
 public:
  LongPath(int dir, const char* path) noexcept;

  /// False when a directory on the way could not be opened; errno tells why.
  explicit operator bool() const noexcept { return rest_ != nullptr; }
  int dir() const noexcept { return reached_ ? reached_.get() : start_; }
  const char* rest() const noexcept { return rest_; }

 private:
  int start_;
  UniqueFd reached_;
  const char* rest_;
};

/// Reads an open directory in large pieces.
class DirectoryReader {
 public:
  static constexpr std::size_t kBufferSize = 64 << 10;

  DirectoryReader(UniqueFd fd, char* buffer) noexcept : fd_(std::move(fd)), buffer_(buffer) {}

  int fd() const noexcept { return fd_.get(); }
  /// The next entry; null at the end, then errno is 0, or when reading failed.
  const dirent64* next() noexcept;
  bool close() noexcept { return ::close(fd_.release()) == 0; }
  UniqueFd release() noexcept { return std::move(fd_); }

 private:
  UniqueFd fd_;
  char* buffer_;
  std::size_t at_ = 0;
  std::size_t end_ = 0;
};

/// Descriptors of directories that the walk is in: of the deepest ones, where it is deep.
class OpenLevels {
 public:
  /// -1 when it is not kept.
  int at(int level) const noexcept {
    if (level < 0) return -1;
    const Slot& slot = slots_[level % kMost];
    return slot.level == level ? slot.fd.get() : -1;
  }
  void keep(UniqueFd fd, int level) noexcept { slots_[level % kMost] = {std::move(fd), level}; }
  void drop(int level) noexcept {
    if (at(level) >= 0) slots_[level % kMost] = {};
  }
  /// Whether there were any.
  bool clear() noexcept {
    bool any = false;
    for (Slot& slot : slots_) any |= static_cast<bool>(std::exchange(slot, Slot{}).fd);
    return any;
  }

 private:
  static constexpr int kMost = 16;
  struct Slot {
    UniqueFd fd;
    int level = -1;
  };
  Slot slots_[kMost];
};

/// Tell in reports which change of the working directory failed: into a directory, or out of it.
inline constexpr unsigned kDescent = 1269;
inline constexpr unsigned kReturn = 1465;

/// What a directory is read for.
enum class Reading { kChildren, kNames, kEntering };

/// Each of the source files instantiates the members that it defines.
template <class Char>
class Walk : public WalkTraits<Char>::Handle {
 public:
  using Traits = WalkTraits<Char>;
  using Handle = typename Traits::Handle;
  using Entry = typename Traits::Entry;
  using Path = typename Traits::Path;
  using Compare = decltype(Handle::dds_compar);
  using Alloc = decltype(Handle::dds_alloc);
  using Release = decltype(Handle::dds_free);

  static Walk* open(const Char* path, int options, Compare compar, Alloc alloc, Release release,
                    unsigned int delay_ms);
  static int close(Handle* handle);
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;
  ~Walk();

  Entry* next();
  Entry* children(int instr);

 private:
  using Handle::dds_alloc;
  using Handle::dds_array;
  using Handle::dds_child;
  using Handle::dds_compar;
  using Handle::dds_cur;
  using Handle::dds_delay;
  using Handle::dds_dev;
  using Handle::dds_free;
  using Handle::dds_nitems;
  using Handle::dds_options;
  using Handle::dds_path;
  using Handle::dds_pathlen;
  using Handle::dds_rfd;

  /// The walk's own bit of dds_flags: a followed link under DDS_NOCHDIR.
  static constexpr unsigned short kFollowed = 4;

  /// Which of a directory's entries are examined.
  struct Budget {
    bool nothing;               ///< only names are wanted
    bool types_decide;          ///< not those that are known to be no directories
    unsigned long directories;  ///< how many are left at most, as the link count tells
    bool none() const { return nothing || (types_decide && directories == 0); }
  };
  /// A list under construction.
  struct List {
    Entry* head = nullptr;
    Entry* tail = nullptr;
    int count = 0;
    void append(Entry* p) {
      (tail == nullptr ? head : tail->dds_link) = p;
      tail = p;
      ++count;
    }
  };

  Walk() : Handle() { dds_rfd = -1; }

  bool is(int option) const { return (dds_options & option) != 0; }

  // Opening.
  bool begin(const Char* path);
  Entry* create(std::size_t length, Entry* parent, int level, unsigned short info);
  Entry* create(const Char* name, Entry* parent, int level, unsigned short info);
  bool admit(Entry* p);
  void drop(Entry* p);
  void drop_list(Entry* head);
  void drop_children();
  static void close_link(Entry* p);

  // Reading.
  Entry* read(Reading why);
  Entry* read_open(DirectoryReader& reader, Reading why);
  int change_into(int fd, Reading why, const Budget& budget);
  bool read_entries(DirectoryReader& reader, Budget budget, int refusal, List* list);
  Entry* make_entry(const dirent64& found, Entry* dir);
  Budget budget_for(Reading why, const Entry* dir) const;
  static bool wants_status(unsigned char type, const Budget& budget);
  Entry* give_up(const List& list);
  bool fit_path(Entry* p, Entry* list);
  Entry* sort(const List& list);
  UniqueFd open_directory(const Entry* p);
  UniqueFd try_directory(const Entry* p) const;
  void set_access(Entry* p, const Entry* dir) const;

  // Examining.
  unsigned short examine(Entry* p, bool follow);
  unsigned short examine_at(int dir, const char* name, Entry* p, bool follow);
  unsigned short kind_of(Entry* p, const struct stat& status);
  unsigned short not_examined(Entry* p, int error);

  // The way back.
  bool leave(const Entry* dir);
  bool return_by_path(const Entry* dir, const struct stat& strayed);

  // Steps.
  Entry* enter(Entry* p, unsigned short instr);
  void enter_listed(Entry* p);
  Entry* step_aside(Entry* p);
  Entry* step_up(Entry* p);
  void follow(Entry* p);
  Entry* load_root(Entry* root);
  Entry* load(Entry* p);
  /// The length of what stands before the '/' in the paths of the entries of `dir`.
  int prefix_length(const Entry* dir) const {
    const bool top = dir->dds_level == 0 && dir->dds_pathlen == 1 && dds_path[0] == '/';
    return top ? 0 : dir->dds_pathlen;
  }

  EntryPool pool_;
  MallocPtr<char> read_buffer_;
  OpenLevels levels_;
  Entry* at_ = nullptr;  // where the walk stands, also when dds_cur no longer tells
  int error_ = 0;        // why the walk was stopped
};

}  // namespace kel::internal
