#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <random>

#include "config/ini_fixture.h"

namespace {

using namespace kel::testing;
using ::testing::AnyOf;
using ::testing::StartsWith;
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
  const auto failed = [](const std::string& what) { return error(EIO, "inifileSave: " + what); };
  const auto unclosed = error(EIO, "__doSave: failed to close file " + path);
  const auto save_while = [&](auto&& fault) {
    EXPECT_EQ(InifileSaveA(file), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(fault.happened());
    return reports.take();
  };
  EXPECT_THAT(save_while(Fault<"open", int(const char*, int, mode_t)>(1, -1, EIO)),
              ElementsAre(failed("failed to open temporary file")));
  EXPECT_THAT(save_while(Fault<"fdopen", FILE*(int, const char*)>(1, nullptr, EIO)),
              ElementsAre(failed("failed to open temporary file")));
  EXPECT_THAT(save_while(Fault<"fflush", int(FILE*)>(1, EOF, EIO)),
              ElementsAre(unclosed, failed("failed to save temporary file")));
  EXPECT_THAT(save_while(Fault<"fsync", int(int)>(1, -1, EIO)),
              ElementsAre(unclosed, failed("failed to save temporary file")));
  EXPECT_THAT(save_while(Fault<"rename", int(const char*, const char*)>(1, -1, EIO)),
              ElementsAre(failed("failed to rename file")));
  EXPECT_EQ(on_disk(), "x=old\n");
  EXPECT_THAT(files(), ElementsAre("svc.conf"));
  EXPECT_EQ(open_descriptors(), open_before);

  EXPECT_THAT(save_while(Fault<"chmod", int(const char*, mode_t)>(1, -1, EIO)),
              ElementsAre(failed("failed to set permissions on " + path)));
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
  expect_refused(reports, {{EEXIST, "inifileSaveAs: file already exists",
                            [&] { return InifileSaveAsA(file, other.c_str(), 0) == -1; }},
                           {ENOSPC, "__doSave: failed to close file /dev/full",
                            [&] { return InifileSaveAsA(file, "/dev/full", 1) == -1; }},
                           {ENOTDIR, "inifileSaveAs: cannot open file " + below,
                            [&] { return InifileSaveAsA(file, below.c_str(), 1) == -1; }},
                           {ENOENT, "InifileSaveAsA: cannot find key",
                            [&] { return InifileSaveAsA(other.c_str(), file, 1) == 2; }},
                           {ENOENT, "InifileSaveA: cannot find key",
                            [&] { return InifileSaveA(other.c_str()) == 2; }}});
  EXPECT_EQ(InifileSaveA(""), 2);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(reports.take(), ElementsAre(error(EINVAL, "InifileSaveA: invalid NULL parameter")));
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
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENOENT, "inifileSave: failed to open temporary file")));
}

/// Kills `save` in a child process before and after each of its calls of `Name`.
template <Symbol Name, class R, class... Args>
void kill_at_each(const std::function<void()>& save, const std::function<void()>& check) {
  using Hook = Hooked<Name, R(Args...)>;
  static int countdown;
  int killed = 0;
  for (int moment = 1; moment <= 6; ++moment) {
    const pid_t child = ::fork();
    if (child == 0) {
      countdown = moment;
      const Hook hook([](Args... args) {
        if (--countdown == 0) ::raise(SIGKILL);
        const R result = Hook::real(args...);
        if (--countdown == 0) ::raise(SIGKILL);
        return result;
      });
      save();
      ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    killed += WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    check();
  }
  EXPECT_GE(killed, 2);
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

TEST_F(IniSave, KilledAtRandomMomentsLeavesAWholeFileAtEveryMoment) {
  constexpr int kKills = 200;
  const std::string big(20'000, 'b');
  ASSERT_EQ(InifileSaveValueA("S", "big", big.c_str(), file), 1);
  const std::string fresh = saved();
  std::mt19937 random(3);
  int seen_old = 0, seen_new = 0;
  double window_us = 1000;  // follows the speed of a save: both texts are met about as often
  for (int i = 0; i < kKills; ++i) {
    write_file(path, "x=old\n");
    const pid_t child = ::fork();
    if (child == 0) {
      for (;;) InifileSaveA(file);
    }
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::microseconds(random() % static_cast<unsigned long>(2 * window_us));
    while (std::chrono::steady_clock::now() < deadline) {
      const std::string seen = on_disk();
      ASSERT_TRUE(seen == "x=old\n" || seen == fresh) << seen.size() << " bytes";
    }
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    const std::string left = on_disk();
    ASSERT_TRUE(left == "x=old\n" || left == fresh) << left.size() << " bytes";
    ++(left == fresh ? seen_new : seen_old);
    window_us *= left == fresh ? 0.8 : 1.25;
    window_us = std::max(window_us, 1.0);
    for (const std::string& name : files())
      if (name.ends_with(".sav")) std::filesystem::remove(dir / name);
  }
  EXPECT_GT(seen_old, 0);
  EXPECT_GT(seen_new, 0);
}

}  // namespace
