#include <kel/dir.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <map>
#include <string_view>

#include "support/mount_space.h"
#include "support/test.h"

namespace {

namespace fs = std::filesystem;

using namespace kel::testing;
using namespace testing;

using Fstatat = int(int, const char*, struct stat*, int);
using Openat = int(int, const char*, int);
using Getdents = ssize_t(int, void*, size_t);

// The kinds in the order of their numbers.
constexpr const char* kKinds[] = {"",    "D", "DC",   "DEFAULT", "DNR",  "DOT", "DP",
                                  "ERR", "F", "INIT", "NS",      "NSOK", "SL",  "SLNONE"};

class Walk : public Test {
 protected:
  Walk() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  ~Walk() override {
    close();
    EXPECT_EQ(open_descriptors(), descriptors) << "left open";
    EXPECT_EQ(fs::current_path(), home) << "changed";
    std::setlocale(LC_CTYPE, "C");
  }

  /// Makes files, and directories where the name ends in '/'.
  void make(std::initializer_list<const char*> names) {
    for (const std::string name : names) {
      fs::create_directories(fs::path(dir / name).parent_path());
      if (name.back() != '/') write_file(dir / name, "");
    }
  }

  /// Opens the walk at `below` the folder ("/name"), and closes the one before.
  DDS* open(int options, DDSCompareFn compar = nullptr, const char* below = "") {
    close();
    return walk = DirOpenA((dir.path().string() + below).c_str(), options, compar, 0);
  }
  void close() { EXPECT_EQ(walk == nullptr ? 0 : DirCloseA(std::exchange(walk, nullptr)), 0); }
  /// "KIND NAME", the root's name being "."; null as "end" and the error.
  static std::string say(const DDSENT* p) {
    if (p == nullptr) return "end " + std::to_string(errno);
    return std::string(kKinds[p->dds_info]) + " " + (p->dds_level == 0 ? "." : p->dds_name);
  }
  std::string next() { return say(DirGetNextA(walk)); }
  /// The next step under an instruction about the current entry.
  std::string next(int instr) {
    EXPECT_EQ(DirSetFlagsA(walk->dds_cur, instr), 1);
    return next();
  }
  std::vector<std::string> steps(size_t most = 1000) {
    std::vector<std::string> said;
    do said.push_back(next());
    while (!said.back().starts_with("end") && said.size() < most);
    return said;
  }

  kel::testing::TempDir dir;
  DDS* walk = nullptr;
  size_t descriptors = open_descriptors();
  fs::path home = fs::current_path();
  ReportCapture reports;
};

template <class Entry>
int by_name(const Entry** a, const Entry** b) {
  return std::basic_string_view((*a)->dds_name).compare((*b)->dds_name);
}
int backwards(const DDSENT** a, const DDSENT** b) { return by_name(b, a); }

void plant(const fs::path& folder, int depth, std::mt19937& random) {
  fs::create_directory(folder);
  for (int i = 0; i < 12; ++i) {
    const fs::path at = folder / ("ä-" + std::string(random() % 40, 'x') + std::to_string(i));
    const auto kind = random() % 6;
    if (kind < 2 && depth > 0)
      plant(at, depth - 1, random);
    else if (kind == 2)
      fs::create_symlink(random() % 2 == 0 ? "." : "nowhere", at);
    else if (kind == 3)
      ::mkfifo(at.c_str(), 0600);
    else
      write_file(at, std::string(random() % 99, 'c'));
    if (kind > 3) ::chmod(at.c_str(), random() & 07777u);
  }
}

std::vector<std::string> lines_of(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> in(::popen(command.c_str(), "r"), ::pclose);
  std::vector<std::string> lines;
  for (char line[4096]; std::fgets(line, sizeof line, in.get()) != nullptr;)
    lines.emplace_back(line, std::strlen(line) - 1);
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::string bytes_of(const char* text) { return text; }
std::string bytes_of(const wchar_t* text) {
  char bytes[8192];
  EXPECT_LT(std::wcstombs(bytes, text, sizeof bytes), sizeof bytes);
  return bytes;
}

/// What find -printf '%p %i %n %s %M ' says of the same tree, checking on the way that directories
/// nest, that the order is the comparison's, and that access paths lead to the object.
template <class Handle, class Entry>
std::vector<std::string> list_as_find(Handle* walk, Entry* (*next)(Handle*)) {
  std::vector<std::string> lines;
  std::vector<ino_t> open;
  std::map<const Entry*, std::string> last;
  while (const Entry* p = next(walk)) {
    const std::string path = bytes_of(p->dds_path);
    struct stat reached = {};
    EXPECT_EQ(::lstat(bytes_of(p->dds_accpath).c_str(), &reached), 0) << path;
    if (p->dds_info == DDS_DP) {
      EXPECT_EQ(open.back(), p->dds_ino);
      open.pop_back();
      continue;
    }
    EXPECT_EQ(static_cast<int>(open.size()), p->dds_level);
    EXPECT_LT(last[p->dds_parent], path);
    last[p->dds_parent] = path;
    if (p->dds_info == DDS_D) open.push_back(reached.st_ino);
    EXPECT_EQ(p->dds_info == DDS_D, S_ISDIR(reached.st_mode));
    const struct stat& status = p->dds_statp != nullptr ? *p->dds_statp : reached;
    lines.push_back(path + " " + std::to_string(status.st_ino) + " " +
                    std::to_string(status.st_nlink) + " " + std::to_string(status.st_size) + " " +
                    GetModeStringA(status.st_mode));
    EXPECT_EQ(bytes_of(GetModeStringW(status.st_mode)), GetModeStringA(status.st_mode));
  }
  EXPECT_EQ(errno, 0);
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST_F(Walk, FindsWhatFindFindsInEveryMode) {
  std::mt19937 random(7);
  plant(dir.path(), 3, random);
  const std::string root = dir.path().string();
  const auto expected = lines_of("find " + root + " -printf '%p %i %n %s %M \\n'");
  ASSERT_GT(expected.size(), 50u);
  for (const int options : {0, DDS_NOCHDIR, DDS_PHYSICAL | DDS_NOSTAT, DDS_XDEV | DDS_COMFOLLOW,
                            DDS_PHYSICAL | DDS_NOSTAT | DDS_NOCHDIR, DDS_NOSTAT}) {
    EXPECT_EQ(list_as_find(open(options, by_name), DirGetNextA), expected) << options;
    DDSW* other = DirOpenW(dir.path().wstring().c_str(), options, by_name<DDSENTW>, 0);
    EXPECT_EQ(list_as_find(other, DirGetNextW), expected) << options;
    EXPECT_EQ(DirCloseW(other), 0);
  }
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Walk, InstructionsSteerIt) {
  make({"a", "b/c", "b/d", "e/f/", "g"});
  open(DDS_PHYSICAL, backwards);
  EXPECT_EQ(say(DirGetChildrenA(walk, 0)), "D .");
  DirGetNextA(walk);
  EXPECT_EQ(say(DirGetChildrenA(walk, DDS_NAMEONLY)), "NSOK g");
  EXPECT_EQ(fs::current_path(), home);
  DDSENT* first = DirGetChildrenA(walk, 0);
  EXPECT_EQ(DirSetFlagsA(first->dds_link, DDS_SKIP), 1);  // e
  EXPECT_THAT(steps(2), ElementsAre("F g", "D b"));
  EXPECT_EQ(next(DDS_AGAIN), "D b");
  EXPECT_EQ(say(DirGetChildrenA(walk, 0)), "F d");
  EXPECT_EQ(fs::current_path(), dir.path());
  EXPECT_EQ(next(), "F d");
  EXPECT_EQ(fs::current_path(), dir.path() / "b");
  EXPECT_EQ(DirGetChildrenA(walk, 0), nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_THAT(steps(2), ElementsAre("F c", "DP b"));
  EXPECT_EQ(next(DDS_AGAIN), "D b");
  DirGetChildrenA(walk, 0);
  DirSetFlagsA(walk->dds_cur, DDS_SKIP);
  EXPECT_THAT(steps(), ElementsAre("DP b", "F a", "DP .", "end 0"));

  open(DDS_SEEDOT | DDS_NOSTAT | DDS_PHYSICAL, by_name, "/e");
  EXPECT_THAT(steps(), ElementsAre("D .", "DOT .", "DOT ..", "D f", "DOT .", "DOT ..", "DP f",
                                   "DP .", "end 0"));
}

TEST_F(Walk, AFollowedLinkLeadsBackToTheDirectoryThatHoldsIt) {
  make({"tree/in/z", "other/place/x", "other/place/empty/", "other/stray"});
  fs::create_directory_symlink(dir / "other/place", dir / "tree/in/link");
  fs::create_directory_symlink("../..", dir / "tree/in/loop");
  fs::create_symlink("nowhere", dir / "tree/in/no");
  for (const int options : {DDS_PHYSICAL, DDS_PHYSICAL | DDS_NOCHDIR}) {
    for (const bool ahead : {false, true}) {
      open(options, by_name, "/tree");
      EXPECT_THAT(steps(3), ElementsAre("D .", "D in", "SL link"));
      EXPECT_EQ(next(DDS_FOLLOW), "D link");
      if (ahead) DirGetChildrenA(walk, 0);
      EXPECT_THAT(steps(5), ElementsAre("D empty", "DP empty", "F x", "DP link", "SL loop"));
      struct stat status;
      EXPECT_EQ(::lstat(walk->dds_cur->dds_accpath, &status), 0);
      EXPECT_EQ(next(), "SL no");
      DirSetFlagsA(walk->dds_cur, DDS_FOLLOW);
      EXPECT_THAT(steps(), ElementsAre("SLNONE no", "F z", "DP in", "DP .", "end 0"));
    }
  }
  open(DDS_LOGICAL, by_name, "/tree/in");
  while (DirGetNextA(walk)->dds_info != DDS_DC) {
  }
  EXPECT_EQ(walk->dds_cur->dds_cycle->dds_level, 0);
  EXPECT_EQ(bytes_of(walk->dds_cur->dds_path), dir / "tree/in/loop/tree/in");
}

int stats = 0;
nlink_t told_links = 0;  // what directories claim, when not 0
int count_stat(int fd, const char* name, struct stat* status, int flags) {
  stats += flags == AT_SYMLINK_NOFOLLOW;
  const int result = Hooked<"fstatat", Fstatat>::real(fd, name, status, flags);
  if (S_ISDIR(status->st_mode) && told_links != 0) status->st_nlink = told_links;
  return result;
}
ssize_t hide_types(int fd, void* buf, size_t size) {
  const ssize_t got = Hooked<"getdents64", Getdents>::real(fd, buf, size);
  for (ssize_t at = 0; at < got;) {
    auto* entry = reinterpret_cast<dirent64*>(static_cast<char*>(buf) + at);
    entry->d_type = DT_UNKNOWN;
    at += entry->d_reclen;
  }
  return got;
}

TEST_F(Walk, AsksForNoMoreStatusThanItNeeds) {
  make({"s/1", "s/2", "s/3", "t/4", "t/u/5", "6", "7"});
  const Hooked<"fstatat", Fstatat> counting(count_stat);
  const auto count = [&](int options) {
    stats = 0;
    open(options);
    int directories = 0;
    while (const DDSENT* p = DirGetNextA(walk)) directories += p->dds_info == DDS_DP;
    EXPECT_EQ(directories, 4) << options << " " << told_links;
    return stats;
  };
  constexpr int kSparing = DDS_PHYSICAL | DDS_NOSTAT;
  for (const nlink_t links : {0, 1, 2}) {
    told_links = links;
    EXPECT_EQ(count(DDS_PHYSICAL), 11);
    EXPECT_EQ(count(kSparing), 4);
    EXPECT_EQ(count(kSparing | DDS_NOCHDIR), 4);
  }
  const Hooked<"getdents64", Getdents> hidden(hide_types);
  told_links = 1;
  EXPECT_EQ(count(kSparing), 11);
  if (fs::hard_link_count(dir.path()) != 4) GTEST_SKIP() << "links of directories are not counted";
  told_links = 0;
  EXPECT_LE(count(kSparing), 11 - 3);  // nothing in s and u, which have no directories
}

TEST_F(Walk, ObjectsThatFailDoNotStopIt) {
  make({"a/1", "b/2", "c/"});
  open(DDS_PHYSICAL, by_name);
  EXPECT_THAT(steps(2), ElementsAre("D .", "D a"));
  EXPECT_EQ((Fault<"openat", Openat>(1, -1, EACCES), next()), "DNR a");
  EXPECT_STREQ(DirGetStrerrorA(walk->dds_cur), std::strerror(EACCES));
  EXPECT_EQ(next(), "D b");
  EXPECT_EQ((Fault<"fchdir", int(int)>(1, -1, EACCES), next()), "NS 2");
  EXPECT_STREQ(walk->dds_cur->dds_accpath, "b");
  EXPECT_THAT(steps(2), ElementsAre("ERR b", "D c"));
  fs::remove(dir / "c");
  EXPECT_EQ(next(), "DNR c");
  // What was a directory is a link out of the tree now.
  make({"d/x"});
  fs::create_directory_symlink(dir / "d", dir / "c");
  DirSetFlagsA(walk->dds_cur, DDS_AGAIN);
  EXPECT_THAT(steps(), ElementsAre("SL c", "DP .", "end 0"));
  const Fault<"fstatat", Fstatat> gone(3, -1, ENOENT);
  open(DDS_PHYSICAL | DDS_NOCHDIR);
  EXPECT_THAT(steps(), Contains(StartsWith("NS ")).Times(1));
  const std::string somewhere = "fastStat: stat failed for path: " + dir.path().string() + "/";
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("dirBuild: could not open directory",
                          "dirBuild (1269): could not change directories",
                          "dirBuild: could not open directory", StartsWith(somewhere)));
}

TEST_F(Walk, GoesDeeperThanAnyPathAndComesBack) {
  constexpr int kDepth = 60;
  const std::string name(120, 'n');
  fs::current_path(dir.path());
  for (int i = 0; i < kDepth; ++i) {
    ::mkdir(name.c_str(), 0755);
    ASSERT_EQ(::chdir(name.c_str()), 0);
  }
  write_file("deepest", "");
  fs::current_path(home);
  for (const int options : {0, DDS_NOCHDIR, DDS_LOGICAL}) {
    open(options);
    const auto said = steps();
    EXPECT_EQ(std::count(said.begin(), said.end(), "DP " + name), kDepth) << options;
    EXPECT_EQ(std::count(said.begin(), said.end(), "F deepest"), 1) << options;
    EXPECT_EQ(said.back(), "end 0");
  }
  EXPECT_THAT(reports.take(), IsEmpty());
  const Fault<"chdir", int(const char*)> barred(1, -1, EIO);
  open(0);
  EXPECT_EQ(steps().back(), "end " + std::to_string(EIO));
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(StartsWith("DirGetNextA: CHDIR failed, errno=5, dds_cur=0x")));
}

TEST_F(Walk, ADirectoryThatMovesAwayDoesNotTakeItElsewhere) {
  make({"in/a/b/c", "in/z", "out/"});
  open(DDS_PHYSICAL, by_name, "/in");
  EXPECT_THAT(steps(4), ElementsAre("D .", "D a", "D b", "F c"));
  fs::rename(dir / "in/a/b", dir / "out/b");
  EXPECT_THAT(steps(), ElementsAre("DP b", "DP a", "F z", "DP .", "end 0"));
  // So deep that the walk keeps no descriptor of what is above.
  std::string deep = dir / "in/1";
  for (int i = 0; i < 20; ++i) deep += "/1";
  fs::create_directories(deep);
  for (const bool lost : {false, true}) {
    open(DDS_PHYSICAL, backwards, "/in");
    EXPECT_THAT(steps(2), ElementsAre("D .", "F z"));
    EXPECT_EQ(steps(21).back(), "D 1");
    fs::rename(dir / "in/1/1/1", dir / "out/1");
    if (lost) {
      fs::rename(dir / "in/1/1", dir / "out/2");
      make({"in/1/1/"});
    }
    const std::string end = lost ? "end " + std::to_string(ESTALE) : "end 0";
    EXPECT_EQ(steps().back(), end);
    EXPECT_EQ(steps(), std::vector{end});
    if (!lost) fs::rename(dir / "out/1", dir / "in/1/1/1");
  }
}

TEST_F(Walk, StaysOnTheDeviceOfTheRoot) {
  MountSpace mounts;
  if (!mounts.allowed()) GTEST_SKIP() << "may not mount";
  make({"a/", "b"});
  mounts.memory(dir / "m", "64k");
  make({"m/x"});
  mounts.bind(dir.path().string(), dir / "n");
  open(DDS_XDEV, by_name);
  EXPECT_THAT(steps(),
              ElementsAre("D .", "D a", "DP a", "F b", "D m", "DP m", "DC n", "DP .", "end 0"));
}

long living = 0;
long refuse_at = 0;
bool count_in(DDSENT* p) {
  ++living;
  p->dds_userdata = p;
  return --refuse_at != 0;
}
void count_out(DDSENT*) { --living; }

TEST_F(Walk, EveryFailingCallEndsOrderlyAndLosesNothing) {
  make({"a/1", "a/2", "b/c/3", "d/"});
  make({"e/some-name-that-is-long-enough-to-need-room-of-its-own"});
  fs::create_directory_symlink("a", dir / "link");
  size_t entries = 0;
  const auto run = [&](int options) {
    walk = DirOpenExA(dir.path().c_str(), options, by_name, count_in, count_out, 0);
    if (walk == nullptr) {
      EXPECT_NE(errno, 0);
      EXPECT_EQ(living, 0);
      return;
    }
    entries = 0;
    while (DDSENT* p = DirGetNextA(walk)) {
      ++entries;
      if (p->dds_info == DDS_SL) DirSetFlagsA(p, DDS_FOLLOW);
      if (p->dds_info == DDS_D && p->dds_level == 1) DirGetChildrenA(walk, 0);
    }
    EXPECT_EQ(errno != 0, (walk->dds_options & DDS_STOP) != 0);
    EXPECT_EQ(DirGetNextA(walk), nullptr);
    DirCloseA(std::exchange(walk, nullptr));
    EXPECT_EQ(::chdir(home.c_str()), 0);
    EXPECT_EQ(living, 0);
    EXPECT_EQ(open_descriptors(), descriptors);
  };
  for (const int options : {DDS_PHYSICAL, DDS_PHYSICAL | DDS_NOCHDIR | DDS_NOSTAT}) {
    const auto whole = [&] { run(options); };
    EXPECT_GT((fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, whole)), 2);
    EXPECT_GT((fail_each<"realloc", void*(void*, size_t)>(nullptr, ENOMEM, whole)), 0);
    EXPECT_GT((fail_each<"fstatat", Fstatat>(-1, EIO, whole)), 5);
    EXPECT_GT((fail_each<"openat", Openat>(-1, EMFILE, whole)), 5);
    EXPECT_GT((fail_each<"getdents64", Getdents>(-1, EIO, whole)), 5);
    if ((options & DDS_NOCHDIR) == 0) {
      EXPECT_GT((fail_each<"open", int(const char*, int)>(-1, EMFILE, whole)), 1);
      EXPECT_GT((fail_each<"fchdir", int(int)>(-1, EIO, whole)), 5);
    }
    long refusals = 0;
    do {
      refuse_at = ++refusals;
      whole();
    } while (refuse_at <= 0);
    EXPECT_GT(refusals, 12);
    refuse_at = 0;
    EXPECT_EQ(entries, (options & DDS_NOSTAT) != 0 ? 17u : 21u);  // nothing happened to the last
  }
}

TEST_F(Walk, RefusesWhatMakesNoSense) {
  EXPECT_EQ(open(0x800), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(DirOpenA((dir / "none").c_str(), 0, nullptr, 0), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(DirOpenW(L"", 0, nullptr, 0), nullptr);
  EXPECT_EQ(DirOpenA(std::string(5000, 'x').c_str(), 0, nullptr, 0), nullptr);
  open(DDS_NOCHDIR | 0x400);
  EXPECT_EQ(DirGetChildrenA(walk, 1), nullptr);
  EXPECT_EQ(DirSetFlagsA(walk->dds_cur, 5), 0);
  EXPECT_EQ(DirCloseW(nullptr), 0);
  make({"b\xff"});
  DDSW* wide = DirOpenW(dir.path().wstring().c_str(), 0, nullptr, 0);
  EXPECT_NE(DirGetNextW(wide), nullptr);
  EXPECT_EQ(DirGetNextW(wide), nullptr);
  EXPECT_EQ(errno, EILSEQ);
  DirCloseW(wide);
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("DirOpenExA: invalid options", "DirOpenExW: invalid NULL parameter",
                  "DirOpenExA: cannot access path.", "DirGetChildrenA: no valid flag settings",
                  "DirSetFlagsA: no valid flag settings", "DirCloseW: invalid NULL parameter",
                  "wcsreaddir_r: could not convert directory", "dirBuild: could not read directory",
                  "DirGetNextW: DDS_STOP 2, set dds_cur to NULL"));
}

}  // namespace
