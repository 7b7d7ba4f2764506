#include <kel/file.h>

#include <unistd.h>

#include "support/mount_space.h"
#include "support/test.h"

namespace {

namespace fs = std::filesystem;

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

using Rename = Hooked<"rename", int(const char*, const char*)>;
using Unlink = Hooked<"unlink", int(const char*)>;

/// Renames fail as they do between file systems.
int crosses(const char*, const char*) {
  errno = EXDEV;
  return -1;
}

class FileMoving : public Test {
 protected:
  FileMoving() { write_file(from, "data"); }

  int move() { return FileMove(from.c_str(), to.c_str(), 0600); }
  Report removing() const {
    return {KEL_LOG_INFO, EXDEV, "Destination file (" + to + ") exists,now try to remove it."};
  }

  TempDir dir;
  static inline std::string from, to;
  const bool named_ = (from = dir / "from", to = dir / "to", true);
  ReportCapture reports;
};

TEST_F(FileMoving, RenamesAndReplacesWhereThatIsPossible) {
  write_file(to, "old");
  EXPECT_EQ(move(), 1);
  EXPECT_EQ(read_file(to), "data");
  EXPECT_FALSE(fs::exists(from));
  EXPECT_EQ(acsrename(to.c_str(), from.c_str()), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
  write_file(to, "old");
  const Fault<"rename", int(const char*, const char*)> once(1, -1, EXDEV);
  EXPECT_EQ(move(), 1);
  EXPECT_EQ(read_file(to), "data");
  EXPECT_THAT(reports.take(),
              ElementsAre(removing(), Report{KEL_LOG_INFO, -1, "Second attempt rename succeed!"}));
}

TEST_F(FileMoving, CrossesFileSystemsByACopy) {
  MountSpace space;
  if (!space.allowed()) GTEST_SKIP() << "mounting is not allowed";
  space.memory(dir / "small", "64k");
  to = dir / "small/to";
  write_file(to, "old");
  EXPECT_EQ(move(), 1);
  EXPECT_EQ(read_file(to), "data");
  EXPECT_EQ(fs::status(to).permissions(), fs::perms(0600));
  EXPECT_FALSE(fs::exists(from));
  EXPECT_THAT(reports.take(), ElementsAre(removing()));

  write_file(from, std::string(100000, 'x'));
  fs::remove(to);
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(fs::exists(to));
  EXPECT_EQ(fs::file_size(from), 100000u);
  EXPECT_EQ(reports.take_texts().back(), "FileMove: copy failed");
}

TEST_F(FileMoving, TwoMountsOfOneFolderShowOneFileAndItStays) {
  MountSpace space;
  if (!space.allowed()) GTEST_SKIP() << "mounting is not allowed";
  fs::create_directory(dir / "home");
  space.bind(dir / "home", dir / "twin");
  from = dir / "home/file", to = dir / "twin/file";
  write_file(from, "data");
  EXPECT_EQ(move(), 1);
  EXPECT_EQ(read_file(to), "data");
  to = dir / "twin/other";
  EXPECT_EQ(move(), 1);
  EXPECT_EQ(read_file(to), "data");
  EXPECT_FALSE(fs::exists(from));
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(FileMoving, AFailureKeepsTheSourceAndSaysWhichStepItWas) {
  const Rename hook(crosses);
  fs::create_directories(to + "/full");
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_THAT(reports.take(),
              ElementsAre(removing(), error(EISDIR, "FileMove: remove file(" + to + ") failed!")));
  fs::remove_all(to);
  {
    const Unlink keeps_source([](const char* path) {
      if (path != from) return Unlink::real(path);
      errno = EPERM;
      return -1;
    });
    EXPECT_EQ(move(), 0);
    EXPECT_EQ(errno, EPERM);
  }
  EXPECT_THAT(reports.take(), ElementsAre(error(EPERM, "FileMove: remove failed")));
  EXPECT_TRUE(fs::exists(from));
  EXPECT_FALSE(fs::exists(to));

  // What is not there cannot be moved, and what is there in its place is kept.
  fs::rename(from, to);
  EXPECT_EQ(move(), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(read_file(to), "data");
  EXPECT_THAT(reports.take(),
              ElementsAre(warning(ENOENT, "__openReader: could not open file " + from),
                          error(ENOENT, "FileCopy: could not open reader source " + from),
                          error(ENOENT, "FileMove: copy failed")));
  EXPECT_EQ(FileMove(nullptr, to.c_str(), 0), 0);
  EXPECT_EQ(FileMoveWithRetry(from.c_str(), nullptr, 0), 0);
  EXPECT_EQ(errno, EINVAL);
}

int naps;

TEST_F(FileMoving, RetriesSixTimesASecondApart) {
  using Sleep = Hooked<"sleep", unsigned(unsigned)>;
  const Rename hook(crosses);
  fs::create_directory(to);
  naps = 0;
  const auto retry = [] { return FileMoveWithRetry(from.c_str(), to.c_str(), 0); };
  {
    const Sleep nap([](unsigned seconds) {
      EXPECT_EQ(seconds, 1u);
      return ++naps == 2 ? 1u : 0u;  // a signal woke it
    });
    EXPECT_EQ(retry(), 0);
  }
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(naps, 6);
  const std::string failed = "FileMoveWithRetry: remove file(" + to + ") failed!";
  const std::string retries = "FileMoveWithRetry: move " + from + " to " + to + " failed (" +
                              std::strerror(EISDIR) + "), retry in 1 second!";
  const auto seen = reports.take();
  ASSERT_EQ(seen.size(), 18u);
  for (size_t i = 0; i < seen.size(); i += 3) {
    EXPECT_EQ(seen[i], removing());
    EXPECT_EQ(seen[i + 1], error(EISDIR, failed));
    EXPECT_EQ(seen[i + 2], error(EISDIR, retries));
  }
  const Sleep clears([](unsigned) {
    fs::remove(to);
    return 0u;
  });
  EXPECT_EQ(retry(), 1);
  EXPECT_EQ(read_file(to), "data");
}

}  // namespace
