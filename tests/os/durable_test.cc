#include <kel/safeio.h>

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "support/import_hook.h"
#include "support/reports.h"
#include "support/temp_dir.h"

namespace {

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

std::string because(int code) { return std::string(": ") + std::strerror(code); }

class Durable : public Test {
 protected:
  Durable() { write_file(from, "data"); }

  TempDir dir;
  std::string home = dir.path().string();
  std::string from = dir / "from";
  std::string to = dir / "to";
  std::string nowhere = dir / "nowhere";
  ReportCapture reports;
};

TEST_F(Durable, RenamesAndRemovesAndFlushesTheDirectory) {
  Fault<"fsync", int(int)> interrupted(1, -1, EINTR);
  EXPECT_EQ(rename_dirfsync(from.c_str(), to.c_str(), home.c_str(), false), 0);
  EXPECT_EQ(read_file(to), "data");
  EXPECT_EQ(interrupted.calls(), 2);
  EXPECT_EQ(unlink_dirfsync(to.c_str(), home.c_str(), false), 0);
  EXPECT_FALSE(std::filesystem::exists(to));
  EXPECT_EQ(interrupted.calls(), 3);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Durable, TheChangeStandsWhenOnlyTheFlushFails) {
  EXPECT_EQ(rename_dirfsync(from.c_str(), to.c_str(), nowhere.c_str(), false), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(std::filesystem::exists(to));
  EXPECT_EQ(unlink_dirfsync(to.c_str(), to.c_str(), true), -1);
  EXPECT_FALSE(std::filesystem::exists(to));
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOENT, "dirfsync: Could not open directory '" +
                                                            nowhere + "'" + because(ENOENT))));
}

TEST_F(Durable, FailedChangesAreReportedUnlessQuiet) {
  for (const bool quiet : {false, true}) {
    errno = 0;
    EXPECT_EQ(rename_dirfsync(nowhere.c_str(), to.c_str(), home.c_str(), quiet), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(unlink_dirfsync(nowhere.c_str(), home.c_str(), quiet), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(dirfsync(from.c_str(), quiet), -1);
    EXPECT_EQ(errno, ENOTDIR);
  }
  EXPECT_THAT(
      reports.take(),
      ElementsAre(
          error(ENOENT, "rename_dirfsync: Could not rename '" + nowhere + "' to '" + to + "'" +
                            because(ENOENT)),
          error(ENOENT, "unlink_dirfsync: Could not unlink '" + nowhere + "'" + because(ENOENT)),
          error(ENOTDIR, "dirfsync: Could not open directory '" + from + "'" + because(ENOTDIR))));
}

TEST_F(Durable, EveryStepOfAFlushCanFailAndLeaksNothing) {
  const size_t open_before = open_descriptors();
  for (const bool quiet : {false, true}) {
    Fault<"fsync", int(int)> fault(1, -1, EIO);
    EXPECT_EQ(dirfsync(home.c_str(), quiet), -1);
    EXPECT_EQ(errno, EIO);
  }
  EXPECT_EQ(open_descriptors(), open_before);
  EXPECT_THAT(reports.take(), ElementsAre(error(EIO, "dirfsync: Could not fsync directory '" +
                                                         home + "'" + because(EIO))));
  static int left_open;
  using Close = Hooked<"close", int(int)>;
  const auto failing_close = [](int fd) {
    left_open = fd;
    errno = EIO;
    return -1;
  };
  for (const bool quiet : {false, true}) {
    const Close hook(failing_close);
    EXPECT_EQ(dirfsync(home.c_str(), quiet), -1);
    EXPECT_EQ(errno, EIO);
    Close::real(left_open);
  }
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EIO, "dirfsync: Close after fsync of directory '" + home +
                                         "' returned an error" + because(EIO))));
}

TEST_F(Durable, SafeRenameNamesThePathThatIsMissing) {
  struct Row {
    const char *src, *dst, *text;
  };
  for (const Row& row :
       {Row{nullptr, "b", "safe_rename: invalid argument for src_path NULL pointer"},
        Row{"", nullptr, "safe_rename: invalid argument for src_path <empty>"},
        Row{"a", nullptr, "safe_rename: invalid argument for dst_path NULL pointer"},
        Row{"a", "", "safe_rename: invalid argument for dst_path <empty>"}}) {
    errno = 0;
    EXPECT_EQ(safe_rename(row.src, row.dst), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(), ElementsAre(error(EINVAL, row.text)));
  }
  EXPECT_EQ(safe_rename(nowhere.c_str(), to.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(safe_rename(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(read_file(to), "data");
  EXPECT_THAT(reports.take(), IsEmpty());
}

std::string opened_with;

TEST_F(Durable, FopenExDropsTheLettersThatTheCLibraryDoesNotKnow) {
  const Hooked<"fopen", FILE*(const char*, const char*)> hook(
      [](const char*, const char* mode) -> FILE* {
        opened_with = mode;
        return nullptr;
      });
  for (const auto& [mode, kept] : {std::pair{"rbi", "rb"},
                                   {"wi-b", "wb"},
                                   {"r+bx", "r+b"},
                                   {"ri-", "r"},
                                   {"iiri-i-+i", "r+"},
                                   {"r+bi-x", "r+b"},
                                   {"", ""}}) {
    EXPECT_EQ(kel_fopenEx("x", mode), nullptr);
    EXPECT_EQ(opened_with, kept);
  }
  EXPECT_EQ(kel_fopen("x", "rbi"), nullptr);
  EXPECT_EQ(opened_with, "rbi");
}

TEST_F(Durable, ThinWrappersDoWhatTheyAreNamedFor) {
  struct stat status;
  EXPECT_EQ(kel_stat(from.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 4);
  EXPECT_EQ(kel_access(from.c_str(), R_OK), 0);
  EXPECT_EQ(kel_unlink(from.c_str()), 0);
  EXPECT_EQ(kel_access(from.c_str(), F_OK), -1);
  std::filesystem::create_directory(to);
  EXPECT_EQ(kel_unlink(to.c_str()), -1);
  EXPECT_EQ(kel_rmdir(to.c_str()), 0);
  EXPECT_EQ(kel_strtoi(" -9000000000x"), -9000000000);
  EXPECT_EQ(kel_atoi("12"), 12);
  char* end;
  EXPECT_EQ(kel_strtol("ffz", &end, 16), 255);
  EXPECT_STREQ(end, "z");
}

}  // namespace
