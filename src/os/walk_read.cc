// Reading one directory of a walk into a list of entries.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "internal/report.h"
#include "internal/transfer.h"
#include "os/walk.h"

namespace kel::internal {
namespace {

constexpr char kBuild[] = "dirBuild";
constexpr char kSort[] = "dirSort";
constexpr char kPathAlloc[] = "pathAlloc";

constexpr int kPathStep = 256;  // characters beside the name that made the path buffer grow
constexpr int kArrayStep = 40;  // slots beside those that are needed

bool is_dot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

/// Turns the name of a directory entry into the client's text; its length, or -1.
int copy_name(char* to, const char* name, std::size_t length) {
  std::memcpy(to, name, length + 1);
  return static_cast<int>(length);
}
int copy_name(wchar_t* to, const char* name, std::size_t length) {
  std::mbstate_t state{};
  const std::size_t converted = std::mbsrtowcs(to, &name, length + 1, &state);
  if (converted == static_cast<std::size_t>(-1))
    return fail(-1, EILSEQ, "%s: could not convert directory", "wcsreaddir_r");
  return static_cast<int>(converted);
}

}  // namespace

LongPath::LongPath(int dir, const char* path) noexcept : start_(dir), rest_(path) {
  std::size_t length = std::strlen(path);
  while (length >= PATH_MAX) {
    char piece[PATH_MAX];
    const auto* cut = static_cast<const char*>(::memrchr(rest_, '/', PATH_MAX - 1));
    if (cut == nullptr || cut == rest_) return;  // a name too long for any system call
    const auto size = static_cast<std::size_t>(cut - rest_);
    std::memcpy(piece, rest_, size);
    piece[size] = '\0';
    UniqueFd next(::openat(this->dir(), piece, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!next) {
      rest_ = nullptr;
      return;
    }
    reached_ = std::move(next);
    while (*cut == '/') ++cut;
    length -= static_cast<std::size_t>(cut - rest_);
    rest_ = cut;
  }
}

const dirent64* DirectoryReader::next() noexcept {
  if (at_ == end_) {
    const ssize_t got =
        retry_interrupted([&] { return ::getdents64(fd_.get(), buffer_, kBufferSize); });
    if (got <= 0) {
      if (got == 0 || errno == ENOENT) errno = 0;  // ENOENT: it was removed while open
      return nullptr;
    }
    at_ = 0;
    end_ = static_cast<std::size_t>(got);
  }
  const auto* found = reinterpret_cast<const dirent64*>(buffer_ + at_);
  at_ += found->d_reclen;
  return found;
}

template <class Char>
UniqueFd Walk<Char>::try_directory(const Entry* p) const {
  // What was no link when it was examined is not followed when it has become one.
  const bool follow = is(DDS_LOGICAL) || (p->dds_flags & (DDS_SYMFOLLOW | kFollowed)) != 0 ||
                      (p->dds_level == 0 && is(DDS_COMFOLLOW));
  const int flags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW);
  const int above = levels_.at(p->dds_level - 1);
  const Path path(above >= 0 ? p->dds_name : p->dds_accpath, nullptr);
  if (!path) return UniqueFd();
  const LongPath reach(above >= 0 ? above : AT_FDCWD, path.c_str());
  if (!reach) return UniqueFd();
  return UniqueFd(retry_interrupted([&] { return ::openat(reach.dir(), reach.rest(), flags); }));
}

template <class Char>
UniqueFd Walk<Char>::open_directory(const Entry* p) {
  UniqueFd fd = try_directory(p);
  if (fd || (errno != EMFILE && errno != ENFILE) || !levels_.clear()) return fd;
  return try_directory(p);
}

template <class Char>
auto Walk<Char>::budget_for(Reading why, const Entry* dir) const -> Budget {
  if (why == Reading::kNames) return {true, false, 0};
  if (!is(DDS_NOSTAT) || !is(DDS_PHYSICAL)) return {false, false, 0};
  // Every directory has a link to it from its parent and from itself, and one from each
  // subdirectory; file systems that do not count give less.
  if (dir->dds_nlink < 2) return {false, true, ULONG_MAX};
  return {false, true, dir->dds_nlink - (is(DDS_SEEDOT) ? 0 : 2)};
}

template <class Char>
bool Walk<Char>::wants_status(unsigned char type, const Budget& budget) {
  if (budget.nothing) return false;
  if (!budget.types_decide || type == DT_DIR) return true;
  return type == DT_UNKNOWN && budget.directories > 0;
}

/// Sets the path by which the client reaches `p` in `dir`.
template <class Char>
void Walk<Char>::set_access(Entry* p, const Entry* dir) const {
  if (is(DDS_NOCHDIR))
    p->dds_accpath = dds_path;
  else if ((dir->dds_flags & DDS_DONTCHDIR) != 0)
    p->dds_accpath = dir->dds_accpath;
  else
    p->dds_accpath = p->dds_name;
}

/// Sees to it that the path of `p` will fit; `list` is what was read so far, with `p`.
template <class Char>
bool Walk<Char>::fit_path(Entry* p, Entry* list) {
  const int prefix = prefix_length(p->dds_parent);
  if (prefix > INT_MAX - kPathStep - p->dds_namelen - 2)
    return fail(false, ENAMETOOLONG, "%s: path name too long", kPathAlloc);
  p->dds_pathlen = prefix + 1 + p->dds_namelen;
  if (p->dds_pathlen < dds_pathlen) return true;
  const int step = p->dds_namelen + kPathStep;
  if (dds_pathlen > INT_MAX - step)
    return fail(false, ENAMETOOLONG, "%s: path name too long", kPathAlloc);
  const std::size_t capacity = static_cast<std::size_t>(dds_pathlen) + step;
  auto* const larger = static_cast<Char*>(std::malloc(capacity * sizeof(Char)));
  if (larger == nullptr) return fail(false, ENOMEM, "%s: failed to reallocate memory", kPathAlloc);
  std::copy_n(dds_path, dds_pathlen, larger);
  const auto move = [&](Entry* entry) {
    if (entry->dds_accpath == dds_path) entry->dds_accpath = larger;
    entry->dds_path = larger;
  };
  for (Entry* entry = list; entry != nullptr; entry = entry->dds_link) move(entry);
  for (Entry* entry = at_; entry != nullptr;
       entry = entry->dds_link != nullptr ? entry->dds_link : entry->dds_parent)
    move(entry);
  std::free(dds_path);
  dds_path = larger;
  dds_pathlen = static_cast<int>(capacity);
  return true;
}

template <class Char>
auto Walk<Char>::make_entry(const dirent64& found, Entry* dir) -> Entry* {
  const std::size_t length = std::strlen(found.d_name);
  Entry* const p = create(length, dir, dir->dds_level + 1, DDS_NSOK);
  if (p == nullptr) return fail_allocation<Entry*>(nullptr, length, kBuild);
  p->dds_namelen = copy_name(p->dds_name, found.d_name, length);
  if (p->dds_namelen < 0) {
    pool_.give_back(p);
    return fail<Entry*>(nullptr, EILSEQ, "%s: could not read directory", kBuild);
  }
  set_access(p, dir);
  return admit(p) ? p : nullptr;
}

/// With a `refusal`, the error of entering the directory, nothing in it can be examined.
template <class Char>
bool Walk<Char>::read_entries(DirectoryReader& reader, Budget budget, int refusal, List* list) {
  const bool leaf = budget.none();
  while (const dirent64* found = reader.next()) {
    if (is_dot(found->d_name) && !is(DDS_SEEDOT)) continue;
    Entry* const p = make_entry(*found, dds_cur);
    if (p == nullptr) return false;
    list->append(p);
    if (!fit_path(p, list->head)) return false;
    if (refusal != 0) {
      if (leaf) continue;
      p->dds_info = DDS_NS;
      p->dds_errno = refusal;
    } else if (wants_status(found->d_type, budget)) {
      p->dds_info = examine_at(reader.fd(), found->d_name, p, is(DDS_LOGICAL));
      const bool directory =
          p->dds_info == DDS_D || p->dds_info == DDS_DC || p->dds_info == DDS_DOT;
      if (directory && budget.directories > 0) --budget.directories;
    }
  }
  if (errno == 0) return true;
  return fail(false, errno, "%s: could not read directory", kBuild);
}

template <class Char>
auto Walk<Char>::give_up(const List& list) -> Entry* {
  error_ = errno;
  drop_list(list.head);
  dds_cur->dds_info = DDS_ERR;
  dds_cur->dds_errno = error_;
  dds_options |= DDS_STOP;
  return fail_quietly<Entry*>(nullptr, error_);
}

template <class Char>
auto Walk<Char>::sort(const List& list) -> Entry* {
  if (list.count > dds_nitems) {
    const int slots = list.count + kArrayStep;
    void* const larger = std::realloc(dds_array, static_cast<std::size_t>(slots) * sizeof(Entry*));
    if (larger == nullptr) {
      report_error(ENOMEM, "%s: could not reallocate memory", kSort);
      return fail<Entry*>(nullptr, ENOMEM, "%s: could not sort directories", kBuild);
    }
    dds_array = static_cast<Entry**>(larger);
    dds_nitems = slots;
  }
  Entry** end = dds_array;
  for (Entry* p = list.head; p != nullptr; p = p->dds_link) *end++ = p;
  std::qsort(dds_array, static_cast<std::size_t>(list.count), sizeof(Entry*),
             reinterpret_cast<int (*)(const void*, const void*)>(dds_compar));
  for (Entry** slot = dds_array; slot + 1 < end; ++slot) slot[0]->dds_link = slot[1];
  end[-1]->dds_link = nullptr;
  return *dds_array;
}

/// Enters the current directory; 0, or the error, which its entries will carry.
template <class Char>
int Walk<Char>::change_into(int fd, Reading why, const Budget& budget) {
  Entry* const dir = dds_cur;
  if (::fchdir(fd) == 0) {
    dir->dds_flags = static_cast<unsigned short>(dir->dds_flags & ~DDS_DONTCHDIR);
    return 0;
  }
  const int refusal = errno;
  dir->dds_flags |= DDS_DONTCHDIR;
  if (why == Reading::kEntering && !budget.none()) dir->dds_errno = refusal;
  report_error(refusal, "%s (%u): could not change directories", kBuild, kDescent);
  return refusal;
}

template <class Char>
auto Walk<Char>::read_open(DirectoryReader& reader, Reading why) -> Entry* {
  Entry* const dir = dds_cur;
  const Budget budget = budget_for(why, dir);
  const bool entering = !is(DDS_NOCHDIR) && (why == Reading::kEntering || !budget.none());
  const int refusal = entering ? change_into(reader.fd(), why, budget) : 0;
  List list;
  if (!read_entries(reader, budget, refusal, &list)) return give_up(list);
  const bool staying = why == Reading::kEntering && list.head != nullptr;
  if (staying) {
    levels_.keep(reader.release(), dir->dds_level);
  } else if (!reader.close()) {
    report_error(errno, "%s: could not close directory", kBuild);
    return give_up(list);
  }
  if (entering && refusal == 0 && !staying && !leave(dir)) {
    report_error(errno, "%s (%u): could not change directories", kBuild, kReturn);
    return give_up(list);
  }
  if (list.head == nullptr) {
    if (why == Reading::kEntering) dir->dds_info = DDS_DP;
    return fail_quietly<Entry*>(nullptr, 0);
  }
  if (dds_compar == nullptr || list.count < 2) return list.head;
  Entry* const sorted = sort(list);
  return sorted != nullptr ? sorted : give_up(list);
}

/// Reads the current directory. Null with errno 0 when it is empty, else null after a report.
template <class Char>
auto Walk<Char>::read(Reading why) -> Entry* {
  Entry* const dir = dds_cur;
  if (read_buffer_ == nullptr) {
    read_buffer_.reset(static_cast<char*>(std::malloc(DirectoryReader::kBufferSize)));
    if (read_buffer_ == nullptr) {
      fail_allocation(0, DirectoryReader::kBufferSize, kBuild);
      return give_up({});
    }
  }
  UniqueFd fd;
  if (dir->dds_level < SHRT_MAX)
    fd = open_directory(dir);
  else
    errno = ENAMETOOLONG;  // levels are counted in a short
  if (!fd) {
    if (why == Reading::kEntering) {
      dir->dds_info = DDS_DNR;
      dir->dds_errno = errno;
    }
    return fail<Entry*>(nullptr, errno, "%s: could not open directory", kBuild);
  }
  DirectoryReader reader(std::move(fd), read_buffer_.get());
  return read_open(reader, why);
}

template class Walk<char>;
template class Walk<wchar_t>;

}  // namespace kel::internal
