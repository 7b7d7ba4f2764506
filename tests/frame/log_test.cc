#include <kel/logging.h>

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;

/// What the library hands to syslog(3), instead of the host's system log.
class SyslogCapture {
 public:
  struct Line {
    int priority;
    std::string text;
    bool operator==(const Line&) const = default;
  };

  SyslogCapture()
      : syslog_("syslog", reinterpret_cast<void*>(&record)),
        openlog_("openlog", reinterpret_cast<void*>(&open)),
        closelog_("closelog", reinterpret_cast<void*>(&close)) {
    lines.clear();
    opened = closed = 0;
    block = false;
  }

  static inline std::vector<Line> lines;
  static inline int opened = 0;
  static inline int closed = 0;
  static inline bool block = false;

 private:
  static void record(int priority, const char* format, ...) {
    // syslog(3) answers a broken first attempt with a second one, which blocks like the first.
    for (int attempt = 0; block && attempt < 2; ++attempt) pause();
    char text[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    lines.push_back({priority, text});
  }
  static void open(const char*, int options, int facility) {
    opened += options == (LOG_PID | LOG_NDELAY) && facility == LOG_LOCAL4;
  }
  static void close() { ++closed; }

  ImportHook syslog_, openlog_, closelog_;
};

std::ostream& operator<<(std::ostream& out, const SyslogCapture::Line& line) {
  return out << line.priority << ' ' << line.text;
}

class Log : public ::testing::Test {
 protected:
  void TearDown() override {
    kelLogSet(nullptr, 0x87, 0);
    kelLogSetBaseCode(0);
    kelLogDestroy();
  }
};

TEST_F(Log, CodePrefixFollowsLevelAndCode) {
  kelLogSet(nullptr, KEL_LOG_VERBOSE | KEL_LOG_TRACE, 0);
  const auto line = [](int code, int level) {
    return console_of([&] { kelLog(code, level, "x"); });
  };
  EXPECT_EQ(line(-1, KEL_LOG_ERR), "Error: -1: x\n");
  EXPECT_EQ(line(0, KEL_LOG_ERR), "Error: 0: x\n");
  EXPECT_EQ(line(22, KEL_LOG_WARN), "Warning: 22: x\n");
  EXPECT_EQ(line(-1, KEL_LOG_INFO), "Info: x\n");
  EXPECT_EQ(line(0, KEL_LOG_INFO), "Info: x\n");
  EXPECT_EQ(line(5, KEL_LOG_INFO), "Info: 5: x\n");
  EXPECT_EQ(line(3, KEL_LOG_BUG), "BUG: 3: x\n");
  EXPECT_EQ(line(-1, KEL_LOG_CRIT), "Fatal Error: -1: x\n");
  EXPECT_EQ(line(4, 0x30), "Info: 4: x\n");
  EXPECT_EQ(console_of([] { NoticeA(-2, "x\n"); }), "Notice: x\n");
  EXPECT_EQ(console_of([] { AuthA(1, "x"); }), "Auth: 1: x\n");
  EXPECT_EQ(console_of([] { __Trace("x %d", 1); }), "Trace: x 1\n");
  EXPECT_EQ(console_of([] { ErrorA(-1, "%s", ""); }), "Error: -1: \n");

  EXPECT_EQ(kelLogSetBaseCode(1000), 0);
  EXPECT_EQ(line(22, KEL_LOG_ERR), "Error: 1022: x\n");
  EXPECT_EQ(line(-1, KEL_LOG_ERR), "Error: -1: x\n");
  EXPECT_EQ(kelLogSetBaseCode(0), 1000);
}

TEST_F(Log, ConsoleLevelsChooseWhoIsHeard) {
  const std::pair<int, const char*> rows[] = {
      {KEL_LOG_LONG | KEL_LOG_NO_OUTPUT, ""},
      {KEL_LOG_LONG | KEL_LOG_SILENT, ""},
      {KEL_LOG_LONG | KEL_LOG_SEVERE_CONSOLE, "Error: 1: e\n"},
      {KEL_LOG_LONG, "Error: 1: e\nInfo: i\n"},
      {0x87 | KEL_LOG_DATE, "Error: 1: e\n"}};
  for (const auto& [flags, heard] : rows) {
    kelLogSet(nullptr, flags, 0);
    EXPECT_EQ(console_of([] {
                ErrorA(1, "e");
                InfoA(-1, "i");
              }),
              heard);
  }
  EXPECT_STREQ(kelLogLastErrorA(), "i\n") << "a disabled line is still the last message";
  kelLogSet(nullptr, 0x87 | KEL_LOG_DATE | KEL_LOG_CONSOLE_DATE, 0);
  EXPECT_THAT(console_of([] { ErrorA(1, "x"); }), MatchesRegex("[A-Z][a-z]+ .*Error: 1: x\n"));
}

TEST_F(Log, FileLinesCarryDateTagAndThreadAsAsked) {
  TempDir dir;
  const std::string path = dir / "a.log";
  const auto line_with = [&](int flags, const char* tag, const std::function<void()>& call) {
    std::filesystem::remove(path);
    kelLogSetEx(path.c_str(), flags | KEL_LOG_SILENT, 0, nullptr, tag);
    call();
    logFileFlushStreams();
    return read_file(path);
  };
  const auto fail = [] { ErrorA(EINVAL, "%s: invalid NULL parameter", "FileCopy"); };
  EXPECT_EQ(line_with(0x87, nullptr, fail), "ERR: 22: FileCopy: invalid NULL parameter\n");
  EXPECT_THAT(line_with(0x87 | KEL_LOG_DATE, nullptr, fail),
              MatchesRegex("[A-Z][a-z]+ [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} "
                           "ERR: 22: FileCopy: invalid NULL parameter\n"));
  const std::string self = std::to_string(pthread_self());
  EXPECT_THAT(line_with(0x87 | KEL_LOG_DATE | KEL_LOG_TIME_ONLY | KEL_LOG_THREAD, " svc", fail),
              MatchesRegex("[0-9:]{8} ERR svc \\[" + self + "\\]: 22: FileCopy: .*\n"));
  EXPECT_THAT(line_with(0x87 | KEL_LOG_TIMING, nullptr, fail),
              MatchesRegex("\\[[0-9]{16}\\] ERR: 22: .*\n"));

  const auto extended = [] { kelLog(-1, KEL_LOG_YARL_INFO, "y"); };
  EXPECT_EQ(line_with(0x87, nullptr, extended), "") << "enabled by the information bit";
  EXPECT_THAT(line_with(KEL_LOG_INFO | KEL_LOG_DATE, nullptr, extended),
              MatchesRegex("[0-9-]{10} [0-9:]{8}\\.[0-9]{3} YARL INFO: y\n"));
  EXPECT_THAT(line_with(KEL_LOG_INFO | KEL_LOG_THREAD, nullptr, extended),
              MatchesRegex("YARL INFO \\[" + std::to_string(getpid()) + ":" + self + "\\]: y\n"));
}

TEST_F(Log, FileThatCannotBeWrittenLosesOnlyItsLines) {
  kelLogSet("/dev/null/missing/a.log", 0x87, 0);
  errno = 9;
  EXPECT_THAT(
      console_of([] { ErrorA(1, "still on the console"); }),
      StartsWith("Error: 1: still on the console\nWarning: libkel: lines for the log file "));
  EXPECT_EQ(errno, 9);
}

TEST_F(Log, LongMessagesAreCutAndNeverRefused) {
  const std::string text(5000, 'a'), fits = text.substr(0, 2045) + "\n";
  TempDir dir;
  const std::string path = dir / "long.log";
  kelLogSet(path.c_str(), KEL_LOG_VERBOSE, 0);
  EXPECT_EQ(console_of([&] { InfoA(-1, "%s", text.c_str()); }),
            "Info: " + text.substr(0, 2046) + "\n");
  EXPECT_EQ(read_file(path), "INFO: " + text.substr(0, 2046) + "\n");
  EXPECT_EQ(console_of([&] { ErrorA(22, "%s", text.c_str()); }),
            "Error: 22: " + text.substr(0, 2042) + "\n");
  EXPECT_EQ(console_of([&] { InfoA(-1, "%s", fits.c_str()); }), "Info: " + fits);
}

TEST_F(Log, LastMessageDropsPrefixAndNewlineAndIgnoresTraces) {
  kelLogSet(nullptr, KEL_LOG_TRACE | KEL_LOG_SILENT, 0);
  errno = 7;
  ErrorA(22, "%s: failed", "F");
  __Trace("not kept");
  InfoA(-1, "%s", "");
  EXPECT_EQ(errno, 7);
  EXPECT_STREQ(kelLogLastErrorA(), "22: F: failed\n");
  EXPECT_STREQ(kelLogLastMessageA(), "F: failed");
  EXPECT_STREQ(kelLogLastErrorA(), "22: F: failed");
  for (const char* text : {"text", "-dash: kept", "7 files"}) {
    InfoA(-1, "%s", text);
    EXPECT_STREQ(kelLogLastMessageA(), text);
  }
  InfoA(-1, "7:");
  EXPECT_STREQ(kelLogLastMessageA(), "") << "never past the terminator";
}

TEST_F(Log, RedirectorSeesEnabledMessagesWithTheCallersCode) {
  ReportCapture reports(KEL_LOG_ERR | KEL_LOG_INFO);
  kelLogSetBaseCode(1000);
  ErrorA(22, "a\n");
  WarningA(1, "disabled");
  kelLog(-1, KEL_LOG_YARL_WARNING, "b");
  InfoA(-1, "%s", "");
  EXPECT_THAT(reports.take(), ElementsAre(error(22, "a"), Report{KEL_LOG_INFO, -1, "b"}));
}

TEST_F(Log, FirstThreadOwnsTheFlagsAndPassesItsSettingsOn) {
  TempDir dir;
  const std::string path = dir / "own.log";
  kelLogSetEx(path.c_str(), KEL_LOG_SHORT | KEL_LOG_SILENT, 0, nullptr, " tag");
  kelLogSetBaseCode(100);
  kelLogSetEx(path.c_str(), KEL_LOG_SHORT | KEL_LOG_SILENT, 0, nullptr, " tag");
  std::thread([&] {
    EXPECT_EQ(kelLogGetCtx(), nullptr);
    ErrorA(1, "inherited");
    EXPECT_STREQ(kelLogPathA(), path.c_str());
    EXPECT_EQ(num_lc, 2);
    kelLogSet(nullptr, KEL_LOG_NONE, 0);
    EXPECT_STREQ(kelLogPathA(), "(null)");
  }).join();
  int flags = 0;
  kelLogGetFlags(&flags, nullptr);
  EXPECT_EQ(flags, KEL_LOG_SHORT | KEL_LOG_SILENT) << "another thread must not replace them";
  EXPECT_EQ(num_lc, 1);
  EXPECT_EQ(read_file(path), "ERR: 101: inherited\n") << "path and base code, but no line tag";
  kelLogClose();
  kelLogGetFlags(&flags, nullptr);
  EXPECT_EQ(flags, 0) << "the owner's calls replace them, with 0 too";
}

TEST_F(Log, PathsWithBackslashesOnlyAreTurned) {
  kelLogSet("C:\\logs\\a.log", 0, 0);
  EXPECT_STREQ(kelLogPathA(), "C:/logs/a.log");
  kelLogSet("/srv/a\\b", 0, 0);
  EXPECT_STREQ(kelLogPathA(), "/srv/a\\b");
  kelLogSet(std::string(5000, 'p').c_str(), 0, 0);
  EXPECT_EQ(std::string(kelLogPathA()), std::string(4095, 'p'));
}

TEST_F(Log, SystemLogTakesMaskedLevelsAndNeverCritOrTrace) {
  SyslogCapture log;
  kelLogDestroy();
  kelLogSet(nullptr, KEL_LOG_NONE, KEL_LOG_ERR | KEL_LOG_CRIT | KEL_LOG_TRACE | KEL_LOG_INFO);
  EXPECT_EQ(log.opened, 1);
  EXPECT_THAT(log.lines, ElementsAre(SyslogCapture::Line{LOG_DEBUG, "DEBUG : syslog opened"}));
  log.lines.clear();
  ErrorA(22, "%s: invalid NULL parameter", "FileCopy");
  kelLog(1, KEL_LOG_CRIT, "c");
  __Trace("t");
  WarningA(1, "not masked");
  kelLog(-1, KEL_LOG_YARL_DEBUG, "y");
  EXPECT_THAT(
      log.lines,
      ElementsAre(SyslogCapture::Line{LOG_ERR, "ERR: 22: FileCopy: invalid NULL parameter\n"},
                  SyslogCapture::Line{LOG_DEBUG, "YARL DEBUG: y\n"}));
  kelLogSet(nullptr, KEL_LOG_NONE, 0);
  kelLogSet(nullptr, KEL_LOG_NONE, KEL_LOG_ERR);
  EXPECT_EQ(log.opened, 1) << "opened at most once";
  kelLogDestroy();
  EXPECT_EQ(log.closed, 1);
}

TEST_F(Log, BlockedOrUnwantedSystemLogStaysClosed) {
  SyslogCapture log;
  kelLogDestroy();
  log.block = true;
  kelLogSet(nullptr, KEL_LOG_SILENT, KEL_LOG_ERR);
  log.block = false;
  EXPECT_EQ(log.closed, 1);
  log.lines.clear();
  ErrorA(1, "x");
  kelLogDestroy();
  kelLogSet(nullptr, KEL_LOG_SILENT, KEL_LOG_ERR | KEL_LOG_SILENT);
  ErrorA(1, "x");
  EXPECT_THAT(log.lines, IsEmpty());
  EXPECT_EQ(log.opened, 1);
}

TEST_F(Log, DirectSystemLogLines) {
  SyslogCapture log;
  errno = 5;
  kelSyslog(-1, 6, "x\n");
  kelSyslog(7, 3, "x");
  kelSyslog(7, 99, "x");
  kelSyslog(-1, 0, "%s", std::string(3000, 'l').c_str());
  EXPECT_EQ(errno, 5);
  using Line = SyslogCapture::Line;
  EXPECT_THAT(log.lines, ElementsAre(Line{6, "INFO: x"}, Line{3, "ERR: 7: x"}, Line{99, ": 7: x"},
                                     Line{0, "EMERG: " + std::string(2040, 'l')}));
}

TEST_F(Log, ThreadWithoutMemoryForAContextUsesTheDefaultOne) {
  kelLogSet(nullptr, 0x87, 0);
  const auto console = console_of(
      [] { fail_each_calloc([] { std::thread([] { ErrorA(1, "still heard"); }).join(); }); });
  EXPECT_THAT(console, HasSubstr("default logging context instead.\nError: 1: still heard\n"));
  EXPECT_EQ(num_lc, 1);
}

TEST_F(Log, ContextsCanBeMovedAndDropped) {
  kelLogPathA();
  void* mine = kelLogGetCtx();
  ASSERT_NE(mine, nullptr);
  std::thread([] {
    NoticeA(0, "makes a context");
    kelLogCtxDestroy(kelLogGetCtx());
    EXPECT_EQ(kelLogGetCtx(), nullptr);
    EXPECT_EQ(num_lc, 1);
    EXPECT_EQ(kelLogSetCtx(nullptr), 0);
  }).join();
  kelLogCtxDestroy(nullptr);
  EXPECT_EQ(num_lc, 1);
  EXPECT_EQ(kelLogGetCtx(), mine);
}

TEST_F(Log, ManyThreadsReportWhileTheirSettingsChange) {
  TempDir dir;
  const std::string path = dir / "all.log";
  kelLogSet(path.c_str(), KEL_LOG_FULL | KEL_LOG_SILENT, 0);
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t, &path] {
      for (int i = 0; i < 200; ++i) {
        errno = i;
        ErrorA(t, "line %d of %d", i, t);
        EXPECT_EQ(errno, i);
        if (i % 50 == 0) kelLogSetFlags(KEL_LOG_FULL | KEL_LOG_SILENT, 0);
        if (i % 50 == 25) kelLogSetEx(path.c_str(), KEL_LOG_FULL, 0, nullptr, " tag");
        EXPECT_EQ(kelLogLastMessageA(), "line " + std::to_string(i) + " of " + std::to_string(t));
      }
    });
  // Meanwhile the owner sets everything again, and short-lived threads take it over.
  for (int i = 0; i < 100; ++i) {
    kelLogSet(path.c_str(), KEL_LOG_FULL | KEL_LOG_SILENT, 0);
    std::thread([&path] { EXPECT_EQ(kelLogPathA(), path); }).join();
  }
  for (auto& thread : threads) thread.join();
  const std::string all = read_file(path);
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 8 * 200);
}

TEST_F(Log, FatalReportsEndTheProcess) {
  EXPECT_EXIT(ErrorExitA(22, "%s: gone", "main"), ::testing::ExitedWithCode(1),
              "Fatal Error: 22: main: gone");
  EXPECT_EXIT(KEL_ASSERT(1 + 1 == 3), ::testing::KilledBySignal(SIGABRT),
              "Assertion failed\n\nTested expression: 1 \\+ 1 == 3\nFunction: TestBody\n");
  EXPECT_THAT(console_of([] { kelLogBacktrace(); }), HasSubstr("\nProgram backtrace:\n"));
  EXPECT_EQ(kelLogFile(), stderr);
  char id[8];
  EXPECT_STREQ(pthread2str(id, sizeof id, 1234567), "1234567");
  EXPECT_EQ(pthread2str(id, sizeof id, 12345678), nullptr);
}

}  // namespace
