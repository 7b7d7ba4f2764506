#include <kel/safeio.h>

#include <unistd.h>

#include "support/refusals.h"
#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

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
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENOENT, "dirfsync: Could not open directory '" + nowhere +
                                            "': " + std::strerror(ENOENT))));
}

TEST_F(Durable, WhatFailsIsReportedUnlessQuiet) {
  const size_t open_before = open_descriptors();
  using Close = Hooked<"close", int(int)>;
  const auto failing_close = [](int fd) {
    Close::real(fd);
    errno = EIO;
    return -1;
  };
  const auto flush = [&](bool quiet) { return dirfsync(home.c_str(), quiet) == -1; };
  for (const bool quiet : {false, true}) {
    const auto text = [&](const std::string& told, int code) {
      return quiet ? std::string() : told + ": " + std::strerror(code);
    };
    expect_refused(
        reports,
        {{ENOENT,
          text("rename_dirfsync: Could not rename '" + nowhere + "' to '" + to + "'", ENOENT),
          [&] { return rename_dirfsync(nowhere.c_str(), to.c_str(), home.c_str(), quiet) == -1; }},
         {ENOENT, text("unlink_dirfsync: Could not unlink '" + nowhere + "'", ENOENT),
          [&] { return unlink_dirfsync(nowhere.c_str(), home.c_str(), quiet) == -1; }},
         {ENOTDIR, text("dirfsync: Could not open directory '" + from + "'", ENOTDIR),
          [&] { return dirfsync(from.c_str(), quiet) == -1; }},
         {EIO, text("dirfsync: Could not fsync directory '" + home + "'", EIO),
          [&] { return Fault<"fsync", int(int)>(1, -1, EIO), flush(quiet); }},
         {EIO,
          text("dirfsync: Close after fsync of directory '" + home + "' returned an error", EIO),
          [&] { return Close(failing_close), flush(quiet); }}});
  }
  EXPECT_EQ(open_descriptors(), open_before);
}

TEST_F(Durable, SafeRenameNamesThePathThatIsMissing) {
  const auto fails = [](const char* src, const char* dst) {
    return [=] { return safe_rename(src, dst) == -1; };
  };
  const std::string invalid = "safe_rename: invalid argument for ";
  expect_refused(reports, {{EINVAL, invalid + "src_path NULL pointer", fails(nullptr, "b")},
                           {EINVAL, invalid + "src_path <empty>", fails("", nullptr)},
                           {EINVAL, invalid + "dst_path NULL pointer", fails("a", nullptr)},
                           {EINVAL, invalid + "dst_path <empty>", fails("a", "")},
                           {ENOENT, "", fails(nowhere.c_str(), to.c_str())}});
  EXPECT_EQ(safe_rename(from.c_str(), to.c_str()), 0);
  EXPECT_EQ(read_file(to), "data");
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
