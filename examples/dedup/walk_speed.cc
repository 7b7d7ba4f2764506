// Times kel-dedup's walk beside the one that it had before the library had any, in turns.
// Usage: kel-dedup-walk-speed DIR...
#include <kel/library.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>
#include <memory>

#include "descriptor.h"
#include "walk.h"

namespace {

using namespace dedup;

/// The walk of before: names are read, sorted and examined one after the other.
class FormerWalk {
 public:
  FormerWalk(const struct stat& excluded, WalkVisitor& visitor)
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

  static bool list(int folder, std::vector<std::string>& names) {
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

  bool enter(int folder, const std::string& name) {
    struct stat status;
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
      return visitor_.problem(path_, errno);
    if (S_ISDIR(status.st_mode)) return enter_folder(folder, name);
    Entry entry = entry_of(path_, status);
    if (S_ISREG(status.st_mode)) return visitor_.file(entry, folder, name);
    if (!S_ISLNK(status.st_mode)) return visitor_.left_out(path_, "is neither");
    entry.target.resize(PATH_MAX);
    const ssize_t length =
        ::readlinkat(folder, name.c_str(), entry.target.data(), entry.target.size());
    if (length < 0) return visitor_.problem(path_, errno);
    entry.target.resize(static_cast<size_t>(length));
    return visitor_.link(entry);
  }

  bool enter_folder(int parent, const std::string& name) {
    Level level{
        Descriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
        {},
        path_.size()};
    struct stat status;
    if (!level.folder || ::fstat(level.folder.get(), &status) != 0)
      return visitor_.problem(path_, errno);
    if (status.st_dev == excluded_.st_dev && status.st_ino == excluded_.st_ino) return true;
    if (!visitor_.folder(entry_of(path_, status))) return false;
    if (!list(level.folder.get(), level.names)) visitor_.problem(path_, errno);
    std::reverse(level.names.begin(), level.names.end());
    levels_.push_back(std::move(level));
    return true;
  }

  const struct stat& excluded_;
  WalkVisitor& visitor_;
  std::vector<Level> levels_;
  std::string path_;
};

/// Counts what is found, and sums up what both walks must tell alike.
struct Tally final : WalkVisitor {
  bool add(const Entry& entry) {
    ++entries;
    sum = sum * 31 + entry.path.size() + entry.target.size() + entry.mode + entry.nanoseconds;
    return true;
  }
  bool folder(const Entry& entry) override { return add(entry); }
  bool link(const Entry& entry) override { return add(entry); }
  bool file(const Entry& entry, int, const std::string&) override { return add(entry); }
  bool problem(const std::string&, int) override { return ++problems != 0; }
  bool left_out(const std::string&, const char*) override { return true; }

  uint64_t entries = 0;
  uint64_t problems = 0;
  uint64_t sum = 0;
};

double cpu_seconds() {
  timespec now;
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// CPU time of one walk.
template <class Walk>
double time_of(Walk walk, Tally& tally) {
  const double start = cpu_seconds();
  walk(tally);
  return cpu_seconds() - start;
}

bool compare(const char* root) {
  constexpr size_t kRounds = 15;
  const struct stat nothing {};
  const auto former = [&](Tally& tally) { FormerWalk(nothing, tally).run(root); };
  const auto now = [&](Tally& tally) { walk(root, nothing, tally); };
  double before[kRounds], after[kRounds];
  Tally expected;
  former(expected);  // and what is on disk comes into memory
  for (size_t round = 0; round < kRounds; ++round) {
    Tally tally, other;
    before[round] = time_of(former, tally);
    after[round] = time_of(now, other);
    if (tally.sum != other.sum || tally.entries != other.entries) {
      std::fprintf(stderr, "the walks of %s differ\n", root);
      return false;
    }
  }
  for (double* times : {before, after}) std::sort(times, times + kRounds);
  const double old_time = before[kRounds / 2], new_time = after[kRounds / 2];
  std::printf("%s: %lu entries, CPU time of a walk %.1f ms before, %.1f ms now: ratio %.2f\n", root,
              static_cast<unsigned long>(expected.entries), old_time * 1e3, new_time * 1e3,
              old_time / new_time);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const tqutil::LibAutoInit library("kel-dedup-walk-speed");
  bool same = argc > 1;
  for (int i = 1; i < argc; ++i) same = compare(argv[i]) && same;
  return same ? 0 : 1;
}
