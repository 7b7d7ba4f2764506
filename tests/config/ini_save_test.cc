#include <sys/stat.h>

#include <filesystem>

#include "config/ini_fixture.h"
#include "support/kill.h"

namespace {

using namespace kel::testing;
using ::testing::UnorderedElementsAre;

class IniSave : public IniFixture {
 protected:
  void SetUp() override {
    given("x=old\n");
    ASSERT_EQ(InifileSaveValueA(INIFILE_TOP_SECTION, "x", "new", file), 1);
  }
  std::vector<std::string> files() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
      found.push_back(entry.path().filename());
    return found;
  }

  const std::string backup = path + ".bak";
};

TEST_F(IniSave, KeepsTheTextBeforeAndSetsTheMode) {
  write_file(backup, "older");
  EXPECT_EQ(InifileSaveA(file), 0);
  EXPECT_EQ(on_disk(), "x=new\n");
  EXPECT_EQ(read_file(backup), "x=old\n");
  struct stat status = {};
  ASSERT_EQ(::stat(file, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_THAT(files(), UnorderedElementsAre("svc.conf", "svc.conf.bak"));

  // Saving twice within a second, over a left-over temporary file, disturbs nobody.
  const std::string left_over = path + "-" + std::to_string(::time(nullptr)) + ".sav";
  write_file(left_over, "left over");
  EXPECT_EQ(InifileSaveNewA(file), 0);
  EXPECT_EQ(InifileSaveA(file), 0);
  EXPECT_EQ(read_file(left_over), "left over");
  EXPECT_EQ(read_file(backup), "x=new\n");

  // Where there was no text, the backup is the only copy.
  std::filesystem::remove(path);
  EXPECT_EQ(InifileSaveNewA(file), 0);
  EXPECT_EQ(on_disk(), "x=new\n");
  EXPECT_EQ(read_file(backup), "x=new\n");
}

TEST_F(IniSave, EveryStepThatFailsLeavesTheOldTextAndIsReported) {
  const size_t open_before = open_descriptors();
  const auto save_while = [&](auto&& fault) {
    EXPECT_EQ(InifileSaveA(file), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(fault.happened());
    EXPECT_EQ(reports.take().back().code, EIO);
  };
  save_while(Fault<"open", int(const char*, int, mode_t)>(1, -1, EIO));
  save_while(Fault<"fdopen", FILE*(int, const char*)>(1, nullptr, EIO));
  save_while(Fault<"fflush", int(FILE*)>(1, EOF, EIO));
  save_while(Fault<"fsync", int(int)>(1, -1, EIO));
  save_while(Fault<"rename", int(const char*, const char*)>(1, -1, EIO));
  EXPECT_EQ(on_disk(), "x=old\n");
  EXPECT_THAT(files(), ElementsAre("svc.conf"));
  EXPECT_EQ(open_descriptors(), open_before);

  save_while(Fault<"chmod", int(const char*, mode_t)>(1, -1, EIO));
  EXPECT_EQ(on_disk(), "x=new\n");
}

TEST_F(IniSave, CopiesTheBackupWhereThereAreNoHardLinks) {
  using Link = Hooked<"link", int(const char*, const char*)>;
  const Link none([](const char*, const char*) {
    errno = EPERM;
    return -1;
  });
  given("# " + std::string(100'000, 'c') + "\nx=old\n");
  const std::string before = on_disk();
  ASSERT_EQ(InifileSaveNewA(file), 2);  // not loaded
  ASSERT_EQ(InifileSaveValueA(INIFILE_TOP_SECTION, "x", "new", file), 1);
  write_file(backup, "older");
  static std::string watched, last_text;
  static std::vector<std::string> flushed;
  watched = path;
  using Fsync = Hooked<"fsync", int(int)>;
  const Fsync noting([](int fd) {
    flushed.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    last_text = read_file(watched);
    return Fsync::real(fd);
  });
  EXPECT_EQ(InifileSaveA(file), 0);
  EXPECT_EQ(read_file(backup), before);
  // The new text, the backup, and once it has its name the directory.
  EXPECT_THAT(flushed, ElementsAre(StartsWith(path + "-"), backup, dir.path()));
  EXPECT_TRUE(last_text.ends_with("x=new\n")) << "flushed before the rename";
}

TEST_F(IniSave, WritesToAnotherPlaceWhatIsLoaded) {
  const std::string other = dir / "other", below = other + "/below";
  EXPECT_EQ(InifileSaveAsA(file, other.c_str(), 0), 0);
  EXPECT_EQ(read_file(other), "x=new\n");
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(InifileSaveAsA(file, nullptr, 0), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "x=new\n");
  const auto save_as = [&](const std::string& to, int replace) {
    return InifileSaveAsA(file, to.c_str(), replace) == -1;
  };
  expect_refused(reports, EEXIST, {[&] { return save_as(other, 0); }});
  expect_refused(reports, ENOSPC, {[&] { return save_as("/dev/full", 1); }});
  expect_refused(reports, ENOTDIR, {[&] { return save_as(below, 1); }});
  expect_refused(reports, ENOENT,
                 {[&] { return InifileSaveAsA(other.c_str(), file, 1) == 2; },
                  [&] { return InifileSaveA(other.c_str()) == 2; }});
  EXPECT_EQ(InifileSaveA(""), 2);
  EXPECT_EQ(on_disk(), "x=old\n");
}

TEST_F(IniSave, FlushesWhatWasChangedAndReportsEachFailure) {
  const std::string unchanged = dir / "unchanged", nowhere = dir / "none/x", made = dir / "made";
  write_file(unchanged, " x = 1\n");
  char buf[8];
  EXPECT_EQ(InifileGetValueA(INIFILE_TOP_SECTION, "y", buf, 8, "1", unchanged.c_str()), -2);
  EXPECT_EQ(InifileGetValueA("New", "y", buf, 8, "1", nowhere.c_str()), -2);
  EXPECT_EQ(InifileGetValueA("New", "y", buf, 8, "1", made.c_str()), -2);
  reports.take();
  EXPECT_EQ(InifileFlushAll(), 0);
  EXPECT_EQ(on_disk(), "x=new\n");
  EXPECT_EQ(read_file(unchanged), " x = 1\n");
  EXPECT_EQ(read_file(made), "[New]\ny=1\n\n");  // an absent file counts as an empty line
  EXPECT_THAT(reports.take(), ElementsAre(Field(&Report::code, ENOENT)));
}

TEST_F(IniSave, KilledAtAnyStepLeavesTheOldOrTheNewText) {
  const std::string big(100'000, 'b');
  ASSERT_EQ(InifileSaveValueA("S", "big", big.c_str(), file), 1);
  const std::string fresh = saved();
  write_file(backup, "older");
  const auto save = [&] { InifileSaveA(file); };
  const auto check = [&] {
    ASSERT_THAT(on_disk(), AnyOf("x=old\n", fresh));
    write_file(path, "x=old\n");
  };
  kill_at_each<"open", int, const char*, int, mode_t>(save, check);
  kill_at_each<"fwrite_unlocked", size_t, const void*, size_t, size_t, FILE*>(save, check);
  kill_at_each<"fsync", int, int>(save, check);
  kill_at_each<"fclose", int, FILE*>(save, check);
  kill_at_each<"link", int, const char*, const char*>(save, check);
  kill_at_each<"unlink", int, const char*>(save, check);
  kill_at_each<"rename", int, const char*, const char*>(save, check);
  kill_at_each<"chmod", int, const char*, mode_t>(save, check);
}

}  // namespace
