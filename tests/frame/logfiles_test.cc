#include <kel/logfiles.h>
#include <kel/logging.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <map>
#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace kel::util;

constexpr int kFlags = KEL_LOG_LONG | KEL_LOG_TRACE | KEL_LOG_SILENT;

/// The library's clock stands still unless a test moves it, or moves by itself every so many looks.
class Clock {
 public:
  static inline std::atomic<time_t> now;
  static inline std::atomic<long> looks;
  static inline std::atomic<long> looks_per_second;

  Clock() : hook_(look) {
    now = 1'688'515'653;  // 2023-07-05 00:07:33 UTC
    looks_per_second = 0;
  }

 private:
  static time_t look(time_t*) {
    if (looks_per_second != 0 && ++looks % looks_per_second == 0) ++now;
    return now;
  }
  Hooked<"time", time_t(time_t*)> hook_;
};

class LogFiles : public ::testing::Test {
 protected:
  LogFiles() {
    setenv("TZ", "UTC", 1);
    tzset();
    kelLogSet(path.c_str(), kFlags, 0);
  }
  ~LogFiles() override {
    logFileFlushStreams();
    logFileSetMaxSize(0);
    kelLogDestroy();
  }

  std::string text() const {
    logFileFlushStreams();
    return read_file(path);
  }
  /// Each line of each file in the folder, and how often it is there.
  std::map<std::string, int> all_lines() const {
    logFileFlushStreams();
    std::map<std::string, int> lines;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
      std::ifstream in(entry.path());
      for (std::string line; std::getline(in, line);) ++lines[line];
    }
    return lines;
  }

  TempDir dir;
  std::string path = dir / "a.log";
  LogManager& manager = *LogManager::getInstance();
};

TEST_F(LogFiles, AreMovedAsideWhenTheyHaveReachedTheirSize) {
  const Clock clock;
  const std::string line = std::string(99, 'x') + "\n";
  logFileSetMaxSize(1000);
  for (int i = 0; i < 10; ++i) manager.writeToLog(line, path);
  EXPECT_EQ(read_file(path).size(), 1000u);
  manager.writeToLog("next\n", path);
  EXPECT_EQ(read_file(path), "next\n");
  EXPECT_EQ(read_file(path + ".20230705000733").size(), 1000u);

  // Text that went around the file's own count, through a stream that was given away, counts too.
  const auto file = manager.getLogFile(path);
  **file->getLogStream() << line << line;
  file->writeToLog("behind\n");
  EXPECT_EQ(read_file(path), "next\n" + line + line + "behind\n");
  **file->getLogStream() << std::string(1000, 'y') << "\n";
  clock.now++;
  manager.writeToLog("fresh\n", path);
  EXPECT_EQ(read_file(path + ".20230705000734").size(), 1213u);

  logFileSetMaxSize(0);
  for (int i = 0; i < 100; ++i) manager.writeToLog(line, path);
  EXPECT_EQ(text().size(), 10'006u) << "without a limit";
}

TEST_F(LogFiles, GoOnWhenTheyCannotBeMovedOrStartedAnew) {
  const Clock clock;
  logFileSetMaxSize(50);
  {
    Fault<"rename", int(const char*, const char*)> refused(1, -1, EACCES);
    for (int i = 0; i < 10; ++i) InfoA(-1, "line %d of this user", i);
    EXPECT_EQ(refused.calls(), 1) << "tried once a second";
  }
  EXPECT_THAT(text(), EndsWith("line 9 of this user\n"));
  EXPECT_EQ(all_lines().size(), 10u);
  clock.now++;
  for (int i = 0; i < 3; ++i) InfoA(-1, "fills it again up to %d", i);
  clock.now++;
  {
    const Fault<"open", int(const char*, int, mode_t)> refused(1, -1, EACCES);
    InfoA(-1, "goes to the moved file");
  }
  EXPECT_EQ(all_lines()["INFO: goes to the moved file"], 1);
}

TEST_F(LogFiles, KeepTheNewestLinesOfTheTimeBeforeAPathWasKnown) {
  std::string expected;
  for (int i = 0; i < 58; ++i) {
    const std::string line = "early " + std::to_string(i) + "\n";
    logFileWriteA(line.c_str(), i % 2 == 0 ? "" : nullptr);
    if (i >= 10) expected += line;
  }
  logFileWriteW(L"wide \u20ac\n", "");
  manager.getLogFile("")->writeToLog(std::wstring(L"wide\n"));
  EXPECT_THROW(manager.getLogFile("/dev/null/x/a.log"), BadPathException);
  EXPECT_THROW(manager.writeToLog("x", "/dev/null/a.log"), BadPathException);
  InfoA(-1, "first");
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  logFileWriteW(L"\u20ac \U0001F600 \xD800\n", path.c_str());
  EXPECT_EQ(text(), expected + "wide \\u20AC\nwide\nINFO: first\n\u20ac \U0001F600 \\uD800\n");
}

TEST_F(LogFiles, MakeTheirDirectoriesAndTellWhyTheyCannot) {
  const mode_t before = umask(0);
  const std::string deep = dir / "x/y/z.log";
  manager.writeToLog("line\n", deep);
  umask(before);
  struct stat status;
  for (const auto& [name, mode] : {std::pair{"x/y", 0755u}, {"x/y/z.log", 0644u}}) {
    ASSERT_EQ(stat((dir / name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode);
  }

  const auto message_of = [&](const std::string& bad) {
    try {
      manager.writeToLog("x\n", bad);
    } catch (const BadPathException& e) {
      return std::string(e.what());
    }
    return std::string();
  };
  EXPECT_THAT(message_of(deep + "/under/a.log"), EndsWith("to create path " + deep + "/under"));
  EXPECT_THAT(message_of(dir / "x"), EndsWith("to write to file " + (dir / "x")));
  const std::string told = console_of([&] {
    errno = 7;
    for (int i = 0; i < 3; ++i) logFileWriteA("dropped\n", (dir / "x").c_str());
    EXPECT_EQ(errno, 7);
  });
  EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;

  LogFile file(path);
  file.writeToLog("one\n");
  file.setPath(dir / "new/b.log");
  file.writeToLog("two\n");
  EXPECT_EQ(text(), "one\nLogFile: Changing path to " + (dir / "new/b.log") + "\n");
  EXPECT_EQ(read_file(file.getPath()), "two\n");
}

TEST_F(LogFiles, AreClosedWhenIdleAndOpenedAgain) {
  const Clock clock;
  const size_t before = open_descriptors();
  InfoA(-1, "one");
  const auto file = manager.getLogFile(path);
  EXPECT_EQ(file->getLastUsed(), clock.now);
  clock.now += 60;
  logFileWriteA("x", (dir / "other").c_str());
  EXPECT_EQ(open_descriptors(), before + 2);
  clock.now += 1;
  logFileWriteA("x", (dir / "other").c_str());
  EXPECT_EQ(open_descriptors(), before + 1);
  InfoA(-1, "two");
  file->writeToLog("three\n");
  EXPECT_EQ(read_file(path), "INFO: one\nINFO: two\nthree\n") << "few lines go out at once";
}

TEST_F(LogFiles, AreStartedAgainWhenTheyOrTheirDirectoryAreDeleted) {
  const Clock clock;
  const std::string deep = dir / "x/y/z.log";
  for (int second = 0; second < 3; ++second) {
    for (int i = 0; i < 150; ++i) logFileWriteA("gathered\n", deep.c_str());
    std::filesystem::remove_all(dir / (second == 1 ? "x/y/z.log" : "x"));
    clock.now++;
    logFileWriteA("line\n", deep.c_str());
    logFileFlushStreams();
    std::string rest;  // what had not reached the deleted file
    for (int i = 0; i < 50; ++i) rest += "gathered\n";
    EXPECT_EQ(read_file(deep), rest + "line\n");
  }
}

template <class Body>
std::vector<std::thread> start(int count, Body body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  return threads;
}

TEST_F(LogFiles, LoseDoubleAndCutNoLineWhateverHappensToThem) {
  // 16 threads write to 4 files, which are rotated, moved, closed when idle and flushed meanwhile.
  constexpr int kThreads = 16, kLines = 3000;
  const Clock clock;
  Clock::looks_per_second = 600;
  logFileSetMaxSize(120'000);  // more than a second's worth, should all write to one file
  std::atomic<int> running = kThreads;
  auto threads = start(kThreads, [&](int t) {
    kelLogSet((dir / ("f" + std::to_string(t % 4))).c_str(), 0, 0);
    for (int i = 0; i < kLines; ++i)
      kelLog(-1, i % 64 == 0 ? KEL_LOG_AUTH : KEL_LOG_INFO, "thread %d line %d %s", t, i,
             std::string(i % 300, '.').c_str());
    --running;
  });
  std::mt19937 random(1);
  for (int round = 0; running != 0; ++round) {
    const std::string file = dir / ("f" + std::to_string(random() % 4));
    if (round % 2 == 0)
      logFileFlushStreams();
    else
      std::rename(file.c_str(), (file + ".moved" + std::to_string(round)).c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  for (auto& thread : threads) thread.join();
  const auto lines = all_lines();
  EXPECT_EQ(lines.size(), size_t{kThreads * kLines});
  for (const auto& [line, count] : lines) {
    int t, i, end;
    ASSERT_EQ(std::sscanf(line.c_str(), "%*[A-Z]: thread %d line %d %n", &t, &i, &end), 2) << line;
    ASSERT_EQ(line.substr(static_cast<size_t>(end)), std::string(i % 300, '.'));
    ASSERT_EQ(count, 1) << line;
  }
  const std::filesystem::directory_iterator files(dir.path());
  EXPECT_GT(std::distance(begin(files), end(files)), 8) << "rotated now and then";
}

/// Bytes that the full disk still takes; every write takes at most a part.
size_t space = 0;
ssize_t write_to_full_disk(int fd, const void* data, size_t size) {
  using Write = Hooked<"write", ssize_t(int, const void*, size_t)>;
  const size_t part = std::min(size, space);
  if (part == 0) {
    errno = ENOSPC;
    return -1;
  }
  space -= part;
  return Write::real(fd, data, part);
}

TEST_F(LogFiles, DropWholeLinesOnAFullDisk) {
  const std::string told = console_of([&] {
    const Hooked<"write", ssize_t(int, const void*, size_t)> disk(write_to_full_disk);
    std::mt19937 random(2);
    space = 5000;
    for (int i = 0; i < 5000; ++i) {
      const std::string filler(random() % (i % 100 == 0 ? 2000 : 60), '.');
      random() % 8 == 0 ? ErrorA(i, "%s;", filler.c_str()) : InfoA(i + 1, "%s;", filler.c_str());
      if (i == 2000) logFileWriteA((std::string(20'000, 'l') + ";\n").c_str(), path.c_str());
      if (i == 3000) logFileFlushStreams();
      if (i < 4000 && random() % 4 == 0) space += random() % 50;
      if (i == 4500) space = 1'000'000;
    }
    logFileFlushStreams();
  });
  EXPECT_THAT(told, StartsWith("Warning: libkel: lines for the log file " + path +
                               " cannot be written: No space left on device\n"));
  EXPECT_LT(std::count(told.begin(), told.end(), '\n'), 5000 / 50);
  int last = -1, lines = 0;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line); ++lines) {
    if (line[0] == 'l') continue;
    ASSERT_THAT(line, EndsWith(";")) << "cut";
    const int number = std::atoi(line.c_str() + line.find(": ") + 2);
    ASSERT_LE(last, number) << "twice, or out of order";
    last = number;
  }
  EXPECT_GE(last, 4999) << "written again once there is room";
  EXPECT_GT(lines, 600);
}

TEST_F(LogFiles, LiveWithEveryFailureOfTheSystem) {
  const Clock clock;
  int round = 0;
  const auto scenario = [&] {
    logFileSetMaxSize(30);
    const std::string file = dir / ("round" + std::to_string(++round) + "/f");
    for (int i = 0; i < 4; ++i, ++clock.now) logFileWriteA("some twenty letters\n", file.c_str());
    logFileFlushStreams();
    logFileSetMaxSize(0);
    for (int i = 0; i < 2; ++i) logFileWriteA("last\n", file.c_str());
    logFileFlushStreams();
    EXPECT_THAT(read_file(file), EndsWith("last\n"));
  };
  const size_t descriptors = open_descriptors();
  const std::string told = console_of([&] {
    EXPECT_GE((fail_each<"open", int(const char*, int, mode_t)>(-1, EMFILE, scenario)), 3);
    EXPECT_GE((fail_each<"mkdir", int(const char*, mode_t)>(-1, EROFS, scenario)), 1);
    EXPECT_GE((fail_each<"rename", int(const char*, const char*)>(-1, EACCES, scenario)), 1);
    EXPECT_GE((fail_each<"fstat", int(int, struct stat*)>(-1, EIO, scenario)), 3);
    EXPECT_GE((fail_each<"stat", int(const char*, struct stat*)>(-1, EACCES, scenario)), 3);
    EXPECT_GE((fail_each<"fchmod", int(int, mode_t)>(-1, EPERM, scenario)), 3);
    EXPECT_GE(fail_each_new(scenario), 4);
  });
  EXPECT_THAT(told, HasSubstr("bad_alloc"));
  EXPECT_EQ(open_descriptors(), descriptors);
}

template <class Body>
int status_of_child(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(30);
    body();
    _exit(0);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

TEST_F(LogFiles, ChildrenLogWhileOtherThreadsOfTheParentHoldTheLocks) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's allocator does not survive a fork beside other threads";
#endif
  constexpr int kThreads = 4, kChildren = 60;
  const Clock clock;
  Clock::looks_per_second = 50;  // so that the date is made again all the time
  kelLogSetFlags(kFlags | KEL_LOG_DATE, 0);
  std::atomic<bool> stop = false;
  std::atomic<int> written = 0;
  auto threads = start(kThreads, [&](int t) {
    kelLogSet(t % 2 == 0 ? path.c_str() : (dir / "b.log").c_str(), 0, 0);
    for (int i = 0; !stop; ++i, ++written) {
      InfoA(-1, "parent %d %d", t, i);
      if (i % 500 == 0) logFileFlushStreams();
    }
  });
  for (int i = 0; i < kChildren; ++i) {
    const auto log = [i] {
      if (kellog_reset_for_fork() != 0) _exit(1);
      for (int k = 0; k < 200; ++k) InfoA(-1, "child %d %d", i, k);
      logFileFlushStreams();
    };
    ASSERT_EQ(status_of_child(log), 0);
  }
  stop = true;
  for (auto& thread : threads) thread.join();
  const auto lines = all_lines();
  EXPECT_EQ(lines.size(), static_cast<size_t>(written + kChildren * 200));
  for (const auto& [line, count] : lines) ASSERT_EQ(count, 1) << line;
}

TEST_F(LogFiles, LinesOutliveTheEndOfTheProcessAsPromised) {
  const auto lines_after = [&](auto end) {
    std::filesystem::remove(path);
    logFileFlushStreams();
    status_of_child([&] {
      kellog_reset_for_fork();
      for (int i = 0; i < 300; ++i) InfoA(-1, "line");
      end();
    });
    const std::string all = read_file(path);
    return std::count(all.begin(), all.end(), '\n');
  };
  EXPECT_EQ(lines_after([] { ErrorA(1, "crash follows"), raise(SIGKILL); }), 301);
  EXPECT_EQ(lines_after([] { KEL_ASSERT(getpid() == 0); }), 300);
  EXPECT_EQ(lines_after([] { std::exit(0); }), 300);
  EXPECT_GE(lines_after([] { raise(SIGKILL); }), 100);
  // A parent that ends without a word leaves nothing behind that it had gathered, and a child that
  // never logs does not write it again.
  EXPECT_EQ(lines_after([] { fork() == 0 ? std::exit(0) : (wait(nullptr), _exit(0)); }), 300);
}

TEST_F(LogFiles, ScopesAreTracedWhenTracingIsOn) {
  for (const int flags : {kFlags, kFlags & ~KEL_LOG_TRACE}) {
    kelLogSetFlags(flags, 0);
    const AutoTrace trace("scope");
    const AutoDebug debug(1, "nothing");
    InfoA(-1, "inside");
  }
  EXPECT_EQ(text(), "TRACE: scope: enter\nINFO: inside\nTRACE: scope: exit\nINFO: inside\n");
}

}  // namespace
