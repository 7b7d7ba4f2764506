#include <kel/path.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <thread>

#include "support/test.h"

namespace {

namespace fs = std::filesystem;

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

using Openat = Hooked<"openat", int(int, const char*, int, mode_t)>;
using Unlinkat = Hooked<"unlinkat", int(int, const char*, int)>;
using Getdents = Hooked<"getdents64", ssize_t(int, void*, size_t)>;

mode_t mode_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

std::wstring widen(const std::string& text) { return {text.begin(), text.end()}; }

std::string refused(const std::string& path, int code) {
  return "DeleteTreeA: Could not delete " + path + " (" + std::strerror(code) + ")";
}

class Tree : public Test {
 protected:
  Tree() {
    fs::create_directories(outside);
    write_file(outside + "/kept", "");
  }
  ~Tree() override { EXPECT_TRUE(fs::exists(outside + "/kept")); }

  /// Directories three deep with files, links to files and directories outside, and a pipe.
  void plant() {
    for (const char* folder : {"/", "/a/", "/a/b/", "/a/b/c/", "/empty/", "/z/"}) {
      const std::string here = root + folder;
      fs::create_directories(here);
      for (int i = 0; i < 5; ++i) write_file(here + std::to_string(i), "x");
    }
    fs::remove(root + "/empty/0");
    fs::create_symlink(outside, root + "/a/link");
    fs::create_symlink(outside + "/kept", root + "/a/b/file_link");
    fs::create_symlink(root, root + "/a/b/c/up");
    ASSERT_EQ(::mkfifo((root + "/z/pipe").c_str(), 0600), 0);
  }

  /// A chain of `depth` directories, some with a file, far beyond the longest path.
  void plant_chain(int depth) {
    const std::string name(200, 'd');
    int at = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth; ++i) {
      const char* child = i == 0 ? "root" : name.c_str();
      ASSERT_EQ(::mkdirat(at, child, 0700), 0);
      const int below = ::openat(at, child, O_RDONLY | O_DIRECTORY);
      ::close(std::exchange(at, below));
      if (i % 10 == 0) ::close(::openat(at, "file", O_CREAT | O_WRONLY, 0600));
    }
    ::close(at);
  }

  /// Fails each call of one function in turn: the removal gets by, or fails with that error, tells
  /// so in one report, and a later one finishes it.
  template <Symbol Name, class Signature, class R, class Plant>
  long survive_each(R failure, int code, Plant plant_one) {
    const size_t open_before = open_descriptors();
    return fail_each<Name, Signature>(failure, code, [&] {
      plant_one();
      const int result = DeleteTreeA(root.c_str());
      const int error_code = errno;
      EXPECT_EQ(open_descriptors(), open_before);
      if (result == 1) {
        EXPECT_FALSE(fs::exists(root));
        EXPECT_THAT(reports.take(), IsEmpty());
        return;
      }
      EXPECT_EQ(error_code, code);
      EXPECT_THAT(reports.take(), ElementsAre(error(code, refused(root, code))));
      EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
    });
  }

  TempDir dir;
  static inline std::string root, outside;
  const bool named_ = (root = dir / "root", outside = dir / "outside", true);
  ReportCapture reports;
};

TEST_F(Tree, MakesWhatIsMissingWithTheModeLessTheUmask) {
  const mode_t before = ::umask(027);
  fs::create_directory(root);
  EXPECT_EQ(CreateTreeA((root + "/a//b/c").c_str(), 0), 1);
  EXPECT_EQ(mode_of(root + "/a"), 0750u);
  EXPECT_EQ(mode_of(root + "/a/b/c"), 0750u);
  EXPECT_EQ(CreateTreeA((root + "/a/b/c").c_str(), 0700), 1);
  EXPECT_EQ(CreateTreeW(widen(root + "/w/./x/../y/").c_str(), 0711), 1);
  EXPECT_EQ(mode_of(root + "/w/y"), 0710u);
  EXPECT_TRUE(fs::exists(root + "/w/x"));
  EXPECT_EQ(CreateDirA((root + "/w").c_str(), 0700), 1);
  EXPECT_EQ(CreateDirW(widen(root + "/v").c_str(), 0500), 1);
  EXPECT_EQ(mode_of(root + "/v"), 0500u);
  EXPECT_EQ(CreateDirLoggingOptionalA((root + "/u/t").c_str(), 0700), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(DeleteDirA((root + "/v").c_str()), 1);
  EXPECT_EQ(DeleteDirW(widen(root + "/v").c_str()), 1);
  EXPECT_EQ(DeleteDirA(root.c_str()), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_THAT(reports.take(), IsEmpty());
  ::umask(before);
}

TEST_F(Tree, WhatCannotBeMadeIsReportedUnlessNotWanted) {
  const struct {
    std::string path;
    int code;
    std::string text;
  } rows[] = {
      {outside + "/kept/under/it", ENOTDIR, "could not create directory"},
      {std::string(300, 'n'), ENAMETOOLONG, "could not create directory"},
      {std::string(4096, 'n'), ENAMETOOLONG, "source path too long"},
      {"", ENOENT, "could not create directory"},
  };
  for (const auto& [path, code, text] : rows) {
    EXPECT_EQ(CreateTreeLoggingOptionalA(path.c_str(), 0, false), 0);
    EXPECT_EQ(CreateTreeLoggingOptionalW(widen(path).c_str(), 0, false), 0);
    EXPECT_EQ(errno, code);
    EXPECT_THAT(reports.take(), IsEmpty());
    EXPECT_EQ(CreateTreeA(path.c_str(), 0), 0);
    EXPECT_EQ(CreateTreeW(widen(path).c_str(), 0), 0);
    EXPECT_THAT(reports.take(), ElementsAre(error(code, "CreateTreeLoggingOptionalA: " + text),
                                            error(code, "CreateTreeLoggingOptionalW: " + text)));
  }
  EXPECT_EQ(CreateTreeA(nullptr, 0), 0);
  EXPECT_EQ(CreateDirA(nullptr, 0), 0);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EINVAL, "CreateTreeLoggingOptionalA: invalid NULL path")));
  std::string longest = dir / "new";
  while (longest.size() < 4095) longest += "/" + std::string(200, 'n');
  EXPECT_EQ(CreateTreeA(longest.substr(0, 4095).c_str(), 0), 0);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(error(ENAMETOOLONG, "CreateTreeLoggingOptionalA: path too long with slash")));
  EXPECT_EQ(DeleteTreeA((dir / "new").c_str()), 1);
}

TEST_F(Tree, WidePathsTakeTheLocalesForm) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  EXPECT_EQ(CreateTreeW((widen(root) + L"/\u20ac/\u00e9").c_str(), 0), 1);
  EXPECT_TRUE(fs::is_directory(root + "/\xe2\x82\xac/\xc3\xa9"));
  EXPECT_EQ(DeleteTreeW((widen(root) + L"/\u20ac").c_str()), 1);
  // More than the stack holds, and memory for it that cannot be had.
  const std::wstring long_path(4095, L'\u20ac');
  const long failed = fail_each_malloc([&] {
    EXPECT_EQ(CreateDirW(long_path.c_str(), 0700), 0);
    EXPECT_THAT(errno, AnyOf(ENOMEM, ENAMETOOLONG));
  });
  EXPECT_EQ(failed, 1);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENOMEM, "__tomb: could not allocate memory"),
                          error(ENOMEM, "CreateDirW: could not convert to multi-byte")));
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(DeleteTreeW(L"\u20ac"), 0);
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_EQ(CreateTreeLoggingOptionalW((std::wstring(5000, L'n') + L'\u20ac').c_str(), 0, true), 0);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(error(EILSEQ, "DeleteTreeW: could not convert to multi-byte"),
                  error(EILSEQ, "__tomb: could not determine number of bytes to convert"),
                  error(EILSEQ, "CreateTreeLoggingOptionalW: could not convert to multi-byte")));
}

TEST_F(Tree, RemovesDirectoriesFilesAndLinksButNothingBehindALink) {
  plant();
  EXPECT_EQ(DeleteTreeA((root + "//").c_str()), 1);
  plant();
  EXPECT_EQ(DeleteTreeW(widen(root).c_str()), 1);
  EXPECT_FALSE(fs::exists(root));
  fs::create_directory_symlink(outside, root);
  EXPECT_EQ(DeleteTreeA((root + "/").c_str()), 0);  // asks for a directory and finds a link
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENOTDIR, "DeleteTreeA: unable to open directory: " + root + "/")));
  EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
  fs::create_symlink("nowhere", root);
  EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
  write_file(root, "");
  EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
  EXPECT_EQ(DeleteTreeA(root.c_str()), 0);  // nothing there: no error worth a message
  EXPECT_EQ(errno, ENOENT);
  const fs::path before = fs::current_path();
  fs::current_path(dir.path());
  fs::create_directories("root/b");
  EXPECT_EQ(DeleteTreeA("root\\b"), 1);
  EXPECT_EQ(DeleteTreeA("root"), 1);
  fs::current_path(before);
  EXPECT_FALSE(fs::exists(fs::symlink_status(root)));
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Tree, RefusesPathsThatNameNothing) {
  EXPECT_EQ(DeleteTreeA(nullptr), 0);
  EXPECT_EQ(DeleteTreeW(L""), 0);
  EXPECT_EQ(errno, ENOENT);
  const std::string too_long = "/" + std::string(1000, 'n');
  EXPECT_EQ(DeleteTreeA((root + too_long + too_long + too_long + too_long + too_long).c_str()), 0);
  EXPECT_EQ(DeleteTreeA((dir.path().string() + too_long).c_str()), 0);
  EXPECT_EQ(errno, ENAMETOOLONG);
  const auto seen = reports.take_texts();
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0], "DeleteTreeA: invalid NULL parameter");
  EXPECT_EQ(seen[1], "DeleteTreeW: invalid NULL parameter");
  EXPECT_THAT(seen[2], StartsWith("DeleteTreeA: Could not delete " + root));
  EXPECT_THAT(seen[3], StartsWith("DeleteTreeA: unable to open directory: "));
}

TEST_F(Tree, DepthCostsNoDescriptorsAndNoPath) {
  for (const rlim_t few : {rlim_t{200}, rlim_t{24}}) {
    plant_chain(150);
    struct rlimit before;
    ::getrlimit(RLIMIT_NOFILE, &before);
    const size_t open_before = open_descriptors();
    const struct rlimit limited = {few, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &limited);
    EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(open_descriptors(), open_before);
    EXPECT_FALSE(fs::exists(root));
  }
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Tree, ADirectoryMovedAwayEndsTheRemovalOnceTheWayBackIsLost) {
  plant_chain(80);
  const Openat hook([](int fd, const char* name, int flags, mode_t mode) {
    if (std::strcmp(name, "..") == 0) {
      const std::string self = "/proc/self/fd/" + std::to_string(fd);
      fs::rename(fs::read_symlink(self), outside + "/moved");
    }
    return Openat::real(fd, name, flags, mode);
  });
  EXPECT_EQ(DeleteTreeA(root.c_str()), 0);
  EXPECT_EQ(errno, ESTALE);
  EXPECT_THAT(reports.take(), ElementsAre(error(ESTALE, refused(root, ESTALE))));
  EXPECT_TRUE(fs::is_directory(outside + "/moved"));
}

TEST_F(Tree, ALinkPutInThePlaceOfADirectoryIsRemovedInstead) {
  plant();
  {
    const Openat hook([](int fd, const char* name, int flags, mode_t mode) {
      if (std::strcmp(name, "b") == 0) {
        fs::rename(root + "/a/b", outside + "/b");
        fs::create_directory_symlink(outside, root + "/a/b");
      }
      return Openat::real(fd, name, flags, mode);
    });
    EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
    EXPECT_TRUE(fs::exists(outside + "/b/c/4"));
  }
  fs::remove_all(outside + "/b");
  plant();
  const Unlinkat hook([](int fd, const char* name, int flags) {
    if (std::strcmp(name, "b") == 0 && fs::is_directory(fs::symlink_status(root + "/a/b"))) {
      fs::rename(root + "/a/b", outside + "/b");
      fs::create_directory_symlink(outside, root + "/a/b");
    }
    return Unlinkat::real(fd, name, flags);
  });
  EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
  EXPECT_TRUE(fs::exists(outside + "/b"));
  EXPECT_THAT(reports.take(), IsEmpty());
}

// What the swapped tree is left with differs from run to run; the tree behind the link must not.
TEST_F(Tree, SurvivesAProcessThatSwapsDirectoriesAndLinksAllTheTime) {
  for (int i = 0; i < 100; ++i) write_file(outside + "/" + std::to_string(i), "");
  std::atomic<bool> done = false;
  std::thread swapper([&] {
    const std::string link = dir / "link", victim = root + "/a/b";
    fs::create_directory_symlink(outside, link);
    while (!done) ::renameat2(AT_FDCWD, link.c_str(), AT_FDCWD, victim.c_str(), RENAME_EXCHANGE);
  });
  for (int i = 0; i < 50; ++i) {
    fs::create_directories(root + "/a/b");
    for (const char* name : {"/a/b/x", "/a/y", "/z"}) ::close(::creat((root + name).c_str(), 0600));
    while (DeleteTreeA(root.c_str()) == 0 && fs::exists(root)) {
    }
  }
  done = true;
  swapper.join();
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(fs::exists(outside + "/" + std::to_string(i)));
}

TEST_F(Tree, TwoRemovalsOfOneTreeTakeEachOthersWorkAsDone) {
  for (int round = 0; round < 5; ++round) {
    for (int i = 0; i < 100; ++i) {
      fs::create_directories(root + "/" + std::to_string(i % 10) + "/x");
      write_file(root + "/" + std::to_string(i % 10) + "/x/" + std::to_string(i), "");
    }
    std::atomic<int> failures = 0;
    const auto remove = [&] { failures += DeleteTreeA(root.c_str()) == 0 && errno != ENOENT; };
    std::thread other(remove);
    remove();
    other.join();
    EXPECT_EQ(failures, 0);
    EXPECT_FALSE(fs::exists(root));
  }
  EXPECT_THAT(reports.take(), IsEmpty());
}

std::atomic<int> lists_cut;

TEST_F(Tree, ListsThatComeInPiecesOrEndTooSoonAreReadToTheEnd) {
  plant();
  {
    const Getdents pieces([](int fd, void* buf, size_t size) {
      return Getdents::real(fd, buf, std::min<size_t>(size, 64));
    });
    EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
  }
  plant();
  lists_cut = 3;
  const Getdents cut([](int fd, void* buf, size_t size) {
    return lists_cut-- > 0   ? Getdents::real(fd, buf, 100)
           : lists_cut == -1 ? 0
                             : Getdents::real(fd, buf, size);
  });
  EXPECT_EQ(DeleteTreeA(root.c_str()), 1);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Tree, EveryFailingCallIsToldAndLeavesTheRestOfTheWorkDone) {
  const auto tree = [this] { plant(); };
  const auto chain = [this] { plant_chain(70); };
  EXPECT_GT((survive_each<"openat", int(int, const char*, int, mode_t)>(-1, EACCES, tree)), 5);
  EXPECT_GT((survive_each<"openat", int(int, const char*, int, mode_t)>(-1, EMFILE, tree)), 5);
  EXPECT_GT((survive_each<"unlinkat", int(int, const char*, int)>(-1, EPERM, tree)), 30);
  EXPECT_GT((survive_each<"getdents64", ssize_t(int, void*, size_t)>(-1, EIO, tree)), 5);
  EXPECT_GT((survive_each<"realloc", void*(void*, size_t)>(nullptr, ENOMEM, chain)), 3);
  EXPECT_GT((survive_each<"fstat", int(int, struct stat*)>(-1, EIO, chain)), 5);
}

}  // namespace
