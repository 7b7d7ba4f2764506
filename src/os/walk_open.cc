// Opening and closing a walk, and the life of its entries.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "internal/report.h"
#include "os/walk.h"

namespace kel::internal {
namespace {

using Status = struct stat;

constexpr int kAcceptedOptions = 0x4FF;
constexpr std::size_t kPathCapacity = 4096;

}  // namespace

template <class Char>
auto Walk<Char>::create(std::size_t length, Entry* parent, int level, unsigned short info)
    -> Entry* {
  constexpr std::size_t kAlign = alignof(Status);
  const std::size_t fixed = offsetof(Entry, dds_name);
  const std::size_t named =
      std::max(fixed + (length + 1) * sizeof(Char), sizeof(Entry)) + kAlign - 1;
  const std::size_t before_status = named / kAlign * kAlign;
  const std::size_t size = before_status + (is(DDS_NOSTAT) ? 0 : sizeof(Status));
  void* const block = pool_.take(size);
  if (block == nullptr) return nullptr;
  auto* const p = new (block) Entry{};
  if (!is(DDS_NOSTAT)) p->dds_statp = new (static_cast<char*>(block) + before_status) Status{};
  p->dds_parent = parent;
  p->dds_level = static_cast<short>(level);
  p->dds_info = info;
  p->dds_instr = DDS_NOINSTR;
  p->dds_symfd = -1;
  p->dds_path = dds_path;
  p->dds_namelen = static_cast<int>(length);
  return p;
}

template <class Char>
auto Walk<Char>::create(const Char* name, Entry* parent, int level, unsigned short info) -> Entry* {
  const std::size_t length = TextTraits<Char>::length(name);
  Entry* const p = create(length, parent, level, info);
  if (p == nullptr) return fail_allocation<Entry*>(nullptr, length, Traits::kOpen);
  std::copy_n(name, length + 1, p->dds_name);
  return admit(p) ? p : nullptr;
}

template <class Char>
bool Walk<Char>::admit(Entry* p) {
  if (dds_alloc == nullptr || dds_alloc(p)) return true;
  drop(p);
  return fail_quietly(false, ENOMEM);
}

template <class Char>
void Walk<Char>::drop(Entry* p) {
  if (p->dds_userdata != nullptr && dds_free != nullptr) dds_free(p);
  close_link(p);
  pool_.give_back(p);
}

template <class Char>
void Walk<Char>::drop_list(Entry* head) {
  while (head != nullptr) {
    Entry* const next = head->dds_link;
    drop(head);
    head = next;
  }
}

template <class Char>
void Walk<Char>::drop_children() {
  drop_list(std::exchange(dds_child, nullptr));
}

template <class Char>
void Walk<Char>::close_link(Entry* p) {
  if ((p->dds_flags & DDS_SYMFOLLOW) == 0) return;
  const UniqueFd closing(p->dds_symfd);
  p->dds_symfd = -1;
  p->dds_flags = static_cast<unsigned short>(p->dds_flags & ~DDS_SYMFOLLOW);
}

template <class Char>
bool Walk<Char>::begin(const Char* path) {
  const std::size_t capacity = std::max(TextTraits<Char>::length(path) + 1, kPathCapacity);
  dds_path = static_cast<Char*>(std::malloc(capacity * sizeof(Char)));
  if (dds_path == nullptr) return fail_allocation(false, capacity * sizeof(Char), Traits::kOpen);
  dds_pathlen = static_cast<int>(capacity);

  constexpr Char kNone[] = {0};
  Entry* const above = create(kNone, nullptr, -1, 0);
  if (above == nullptr) return false;
  at_ = above;
  Entry* const root = create(path, above, 0, 0);
  if (root == nullptr) return false;
  at_ = root;
  root->dds_accpath = root->dds_name;
  root->dds_info = examine(root, is(DDS_COMFOLLOW | DDS_LOGICAL));
  Entry* const before = create(kNone, above, 0, DDS_INIT);
  if (before == nullptr) return false;
  before->dds_link = root;
  at_ = dds_cur = before;

  if (!is(DDS_NOCHDIR)) {
    dds_rfd = ::open(".", O_RDONLY | O_CLOEXEC);
    if (dds_rfd < 0) dds_options |= DDS_NOCHDIR;
  }
  return true;
}

template <class Char>
auto Walk<Char>::open(const Char* path, int options, Compare compar, Alloc alloc, Release release,
                      unsigned int delay_ms) -> Walk* {
  if (path == nullptr || *path == 0)
    return fail<Walk*>(nullptr, ENOENT, "%s: invalid NULL parameter", Traits::kOpen);
  {
    const Path converted(path, Traits::kOpen);
    if (!converted) return nullptr;
    if (::access(converted.c_str(), F_OK) != 0)
      return errno == ENOENT
                 ? nullptr
                 : fail<Walk*>(nullptr, errno, "%s: cannot access path.", Traits::kOpen);
  }
  if ((options & ~kAcceptedOptions) != 0)
    return fail<Walk*>(nullptr, EINVAL, "%s: invalid options", Traits::kOpen);
  std::unique_ptr<Walk> walk(new (std::nothrow) Walk);
  if (walk == nullptr) return fail_allocation<Walk*>(nullptr, sizeof(Walk), Traits::kOpen);
  walk->dds_compar = compar;
  walk->dds_alloc = alloc;
  walk->dds_free = release;
  walk->dds_delay = delay_ms;
  walk->dds_options = (options & DDS_LOGICAL) != 0 ? options | DDS_NOCHDIR : options;
  return walk->begin(path) ? walk.release() : nullptr;
}

template <class Char>
Walk<Char>::~Walk() {
  const ErrnoGuard keep;
  // Siblings that are left, then the directory above them, and so on, to the root's parent.
  while (at_ != nullptr) {
    Entry* const next = at_->dds_link != nullptr ? at_->dds_link : at_->dds_parent;
    drop(at_);
    at_ = next;
  }
  drop_children();
  std::free(dds_array);
  std::free(dds_path);
  if (dds_rfd >= 0) ::close(dds_rfd);
}

template <class Char>
int Walk<Char>::close(Handle* handle) {
  if (handle == nullptr) return fail(0, EINVAL, "%s: invalid NULL parameter", Traits::kClose);
  const std::unique_ptr<Walk> walk(static_cast<Walk*>(handle));
  if (walk->is(DDS_NOCHDIR) || ::fchdir(walk->dds_rfd) == 0) return 0;
  return fail(-1, errno, "%s: failed to change directories", Traits::kClose);
}

template class Walk<char>;
template class Walk<wchar_t>;

namespace {

template <class Char>
int set_instruction(typename WalkTraits<Char>::Entry* entry, int instr) {
  if (entry == nullptr || instr < 0 || instr > DDS_SKIP)
    return fail(0, EINVAL, "%s: no valid flag settings", WalkTraits<Char>::kSetFlags);
  entry->dds_instr = static_cast<unsigned short>(instr);
  return 1;
}

template <class Entry>
int error_of(const Entry* entry) {
  return entry == nullptr ? EINVAL : entry->dds_errno;
}

}  // namespace
}  // namespace kel::internal

using kel::internal::error_of;
using kel::internal::set_instruction;
using NarrowWalk = kel::internal::Walk<char>;
using WideWalk = kel::internal::Walk<wchar_t>;

DDS* DirOpenExA(const char* path, int options, DDSCompareFn compar, DDSAllocFn alloc,
                DDSFreeFn free, unsigned int delay_ms) {
  return NarrowWalk::open(path, options, compar, alloc, free, delay_ms);
}
DDSW* DirOpenExW(const wchar_t* path, int options, DDSWCompareFn compar, DDSWAllocFn alloc,
                 DDSWFreeFn free, unsigned int delay_ms) {
  return WideWalk::open(path, options, compar, alloc, free, delay_ms);
}
DDS* DirOpenA(const char* path, int options, DDSCompareFn compar, unsigned int delay_ms) {
  return NarrowWalk::open(path, options, compar, nullptr, nullptr, delay_ms);
}
DDSW* DirOpenW(const wchar_t* path, int options, DDSWCompareFn compar, unsigned int delay_ms) {
  return WideWalk::open(path, options, compar, nullptr, nullptr, delay_ms);
}

int DirCloseA(DDS* walk) { return NarrowWalk::close(walk); }
int DirCloseW(DDSW* walk) { return WideWalk::close(walk); }

int DirSetFlagsA(DDSENT* entry, int instr) { return set_instruction<char>(entry, instr); }
int DirSetFlagsW(DDSENTW* entry, int instr) { return set_instruction<wchar_t>(entry, instr); }

int DirGetErrnoA(const DDSENT* entry) { return error_of(entry); }
int DirGetErrnoW(const DDSENTW* entry) { return error_of(entry); }
const char* DirGetStrerrorA(const DDSENT* entry) { return std::strerror(error_of(entry)); }
const char* DirGetStrerrorW(const DDSENTW* entry) { return std::strerror(error_of(entry)); }

int CheckDirContentIndexingA(const void* /*path*/) { return 0; }
int CheckDirContentIndexingW(const void* /*path*/) { return 0; }
int DisableDirContentIndexingA(const void* /*path*/) { return 1; }
int DisableDirContentIndexingW(const void* /*path*/) { return 1; }
