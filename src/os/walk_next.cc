// One step of a walk, and the list of a directory's entries ahead of it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "internal/report.h"
#include "os/walk.h"

namespace kel::internal {

/// Builds the path of `p`, which becomes current.
template <class Char>
auto Walk<Char>::load(Entry* p) -> Entry* {
  Char* const slash = dds_path + prefix_length(p->dds_parent);
  *slash = '/';
  std::copy_n(p->dds_name, p->dds_namelen + 1, slash + 1);
  return dds_cur = p;
}

template <class Char>
auto Walk<Char>::load_root(Entry* root) -> Entry* {
  if (!is(DDS_NOCHDIR) && ::fchdir(dds_rfd) != 0) {
    error_ = errno;
    dds_options |= DDS_STOP;
    dds_cur = nullptr;
    return fail<Entry*>(nullptr, error_, "%s: FCHDIR failed, errno=%d, set dds_cur to NULL",
                        Traits::kNext, error_);
  }
  std::copy_n(root->dds_name, root->dds_namelen + 1, dds_path);
  root->dds_pathlen = root->dds_namelen;
  root->dds_accpath = root->dds_path = dds_path;
  dds_dev = root->dds_dev;
  Char* const end = root->dds_name + root->dds_namelen;
  Char* last = end;
  while (last != root->dds_name && last[-1] != '/') --last;
  if (last != end) {
    std::copy(last, end + 1, root->dds_name);
    root->dds_namelen = static_cast<int>(end - last);
  }
  return dds_cur = root;
}

/// Examines what the link `p` leads to.
template <class Char>
void Walk<Char>::follow(Entry* p) {
  p->dds_info = examine(p, true);
  if (p->dds_info != DDS_D) return;
  if (is(DDS_NOCHDIR)) {
    p->dds_flags |= kFollowed;
    return;
  }
  close_link(p);
  p->dds_symfd = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (p->dds_symfd >= 0) {
    p->dds_flags |= DDS_SYMFOLLOW;
    return;
  }
  p->dds_errno = errno;
  p->dds_info = DDS_ERR;
  report_error(errno, "%s: could not open directory", Traits::kNext);
}

/// Enters a directory whose entries were read ahead.
template <class Char>
void Walk<Char>::enter_listed(Entry* p) {
  const bool barred_before = (p->dds_flags & DDS_DONTCHDIR) != 0;
  UniqueFd fd = open_directory(p);
  const bool barred = !fd || ::fchdir(fd.get()) != 0;
  if (barred) {
    p->dds_errno = errno;
    p->dds_flags |= DDS_DONTCHDIR;
    report_error(errno, "%s (%u): could not change directories", Traits::kNext, kDescent);
  } else {
    p->dds_flags = static_cast<unsigned short>(p->dds_flags & ~DDS_DONTCHDIR);
    levels_.keep(std::move(fd), p->dds_level);
  }
  if (barred == barred_before) return;
  for (Entry* child = dds_child; child != nullptr; child = child->dds_link) set_access(child, p);
}

/// Goes down into a directory that was returned before its contents, unless told otherwise.
template <class Char>
auto Walk<Char>::enter(Entry* p, unsigned short instr) -> Entry* {
  if (instr == DDS_SKIP || (is(DDS_XDEV) && p->dds_dev != dds_dev)) {
    close_link(p);
    drop_children();
    p->dds_info = DDS_DP;
    return p;
  }
  if (is(DDS_NAMEONLY)) {
    dds_options &= ~DDS_NAMEONLY;
    drop_children();
  }
  if (dds_child != nullptr) {
    if (!is(DDS_NOCHDIR)) enter_listed(p);
  } else {
    dds_child = read(Reading::kEntering);
    if (dds_child == nullptr && !is(DDS_STOP)) return p;
    if (dds_child == nullptr) {
      dds_cur = nullptr;
      report_error(-1, "%s: DDS_STOP 2, set dds_cur to NULL", Traits::kNext);
      return fail_quietly<Entry*>(nullptr, error_);
    }
  }
  at_ = std::exchange(dds_child, nullptr);
  return load(at_);
}

/// Leaves the entries of a directory for the directory itself.
template <class Char>
auto Walk<Char>::step_up(Entry* p) -> Entry* {
  Entry* const dir = p->dds_parent;
  at_ = dds_cur = dir;
  drop(p);
  if (dir->dds_level < 0) {
    drop(dir);
    at_ = dds_cur = nullptr;
    return fail_quietly<Entry*>(nullptr, 0);
  }
  dds_path[dir->dds_pathlen] = 0;
  const bool entered = dir->dds_level == 0 || (dir->dds_flags & DDS_DONTCHDIR) == 0;
  if (!is(DDS_NOCHDIR) && entered && !leave(dir)) {
    error_ = errno;
    dds_options |= DDS_STOP;
    return fail<Entry*>(nullptr, error_, "%s: %s failed, errno=%d, dds_cur=%p.", Traits::kNext,
                        dir->dds_level == 0 ? "FCHDIR" : "CHDIR", error_, static_cast<void*>(dir));
  }
  close_link(dir);
  levels_.drop(dir->dds_level);
  dir->dds_info = dir->dds_errno != 0 ? DDS_ERR : DDS_DP;
  return dir;
}

/// Goes on to the next sibling, or up when there is none.
template <class Char>
auto Walk<Char>::step_aside(Entry* p) -> Entry* {
  drop_children();
  for (;;) {
    Entry* const sibling = p->dds_link;
    if (sibling == nullptr) return step_up(p);
    at_ = dds_cur = sibling;
    drop(p);
    if (sibling->dds_level == 0) return load_root(sibling);
    if (sibling->dds_instr != DDS_SKIP) {
      load(sibling);
      if (sibling->dds_instr == DDS_FOLLOW) {
        sibling->dds_instr = DDS_NOINSTR;
        follow(sibling);
      }
      return sibling;
    }
    p = sibling;
  }
}

template <class Char>
auto Walk<Char>::next() -> Entry* {
  Entry* const p = dds_cur;
  if (p == nullptr) return fail_quietly<Entry*>(nullptr, error_);
  if (is(DDS_STOP)) {
    dds_cur = nullptr;
    report_error(-1, "%s: DDS_STOP 1, set dds_cur to NULL", Traits::kNext);
    return fail_quietly<Entry*>(nullptr, error_);
  }
  const unsigned short instr = std::exchange(p->dds_instr, DDS_NOINSTR);
  if (instr == DDS_AGAIN) {
    drop_children();
    p->dds_flags = static_cast<unsigned short>(p->dds_flags & ~kFollowed);
    p->dds_info = examine(p, is(DDS_LOGICAL));
    return p;
  }
  if (instr == DDS_FOLLOW && (p->dds_info == DDS_SL || p->dds_info == DDS_SLNONE)) {
    follow(p);
    return p;
  }
  return p->dds_info == DDS_D ? enter(p, instr) : step_aside(p);
}

/// The list of the current directory's entries, read now.
template <class Char>
auto Walk<Char>::children(int instr) -> Entry* {
  if (instr != 0 && instr != DDS_NAMEONLY)
    return fail<Entry*>(nullptr, EINVAL, "%s: no valid flag settings", Traits::kChildren);
  errno = 0;
  Entry* const p = dds_cur;
  if (is(DDS_STOP) || p == nullptr) return nullptr;
  if (p->dds_info == DDS_INIT) return p->dds_link;
  if (p->dds_info != DDS_D) return nullptr;
  drop_children();
  dds_options = instr == 0 ? dds_options & ~DDS_NAMEONLY : dds_options | DDS_NAMEONLY;
  const Reading why = instr == 0 ? Reading::kChildren : Reading::kNames;
  const bool absolute = dds_path[0] == '/' && dds_path[1] == 0;
  if (p->dds_level != 0 || absolute || is(DDS_NOCHDIR)) return dds_child = read(why);

  // The way back from the root leads to where the walk was opened, which the client may have left.
  const UniqueFd here(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!here) return nullptr;
  dds_child = read(why);
  const ErrnoGuard keep;
  if (::fchdir(here.get()) == 0) return dds_child;
  return nullptr;
}

template class Walk<char>;
template class Walk<wchar_t>;

namespace {

template <class Char, class Handle>
auto next_of(Handle* handle) -> typename Walk<Char>::Entry* {
  using Entry = typename Walk<Char>::Entry;
  if (handle == nullptr)
    return fail<Entry*>(nullptr, EINVAL, "%s: invalid NULL parameter", WalkTraits<Char>::kNext);
  return static_cast<Walk<Char>*>(handle)->next();
}

template <class Char, class Handle>
auto children_of(Handle* handle, int instr) -> typename Walk<Char>::Entry* {
  using Entry = typename Walk<Char>::Entry;
  if (handle == nullptr)
    return fail<Entry*>(nullptr, EINVAL, "%s: invalid NULL parameter", WalkTraits<Char>::kChildren);
  return static_cast<Walk<Char>*>(handle)->children(instr);
}

}  // namespace
}  // namespace kel::internal

using kel::internal::children_of;
using kel::internal::next_of;

DDSENT* DirGetNextA(DDS* walk) { return next_of<char>(walk); }
DDSENTW* DirGetNextW(DDSW* walk) { return next_of<wchar_t>(walk); }
DDSENT* DirGetChildrenA(DDS* walk, int instr) { return children_of<char>(walk, instr); }
DDSENTW* DirGetChildrenW(DDSW* walk, int instr) { return children_of<wchar_t>(walk, instr); }
