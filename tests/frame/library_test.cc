#include <kel/library.h>
#include <kel/logging.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/import_hook.h"
#include "support/reports.h"
#include "support/temp_dir.h"

namespace {

using kel::testing::error;
using kel::testing::Fault;
using kel::testing::Hooked;
using kel::testing::read_file;
using kel::testing::ReportCapture;
using kel::testing::TempDir;
using kel::testing::warning;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr char kProduct[] = "17.0101.0023.0704";

/// How a process ended, and what it wrote.
struct Outcome {
  int status;  // of exit(); -1 when it was killed
  std::string out;
  std::string err;
};

/// Runs `act` in a child; a child that does not end in it ends with status 0.
Outcome run(const std::function<void()>& act) {
  const TempDir dir;
  const std::string out = dir / "out";
  const std::string err = dir / "err";
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
    kellog_reset_for_fork();
    act();
    std::fflush(nullptr);
    _exit(0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
}

/// A command line that may be changed in place.
class Arguments {
 public:
  explicit Arguments(std::vector<std::string> texts) : texts_(std::move(texts)) {
    for (std::string& text : texts_) argv.push_back(text.data());
    argv.push_back(nullptr);
    argc = static_cast<int>(texts_.size());
  }
  std::vector<std::string> left() const { return {argv.data(), argv.data() + argc}; }

  int argc;
  std::vector<char*> argv;

 private:
  std::vector<std::string> texts_;
};

void usage(const char* name) { std::printf("usage: %s [FILE]\n", name); }

void check(Arguments& arguments, const char* version = kProduct) {
  _checkCommonArgs(&arguments.argc, arguments.argv.data(), usage, version, "May 1", "12:00",
                   "Beta");
}

Outcome run_tool(std::vector<std::string> texts, const char* version = kProduct) {
  return run([&] {
    Arguments arguments(std::move(texts));
    check(arguments, version);
  });
}

std::string os_summary() {
  const TempDir dir;
  FILE* out = std::fopen((dir / "os").c_str(), "w");
  OSTest(out);
  std::fclose(out);
  return read_file(dir / "os");
}

std::string started_with(const char* version) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(_KelLibInit("test", version), 1);
  return ::testing::internal::GetCapturedStderr();
}

std::string mismatch(const std::string& version) {
  return "Warning: libkel: version mismatch: this application was compiled using version " +
         version + " but is linked against version 6.0.0.0 instead.\n";
}

TEST(Library, StartsOnceUntilItIsStopped) {
  EXPECT_EQ(started_with("6.1"), "");
  EXPECT_EQ(started_with("7.0.0.0"), "") << "started already";
  KelLibDestroy();
  EXPECT_EQ(started_with("7.0.0.0"), mismatch("7.0.0.0"));
  KelLibDestroy();
  EXPECT_EQ(started_with(nullptr), mismatch("(unknown)"));
  KelLibDestroy();
  {
    const tqutil::LibAutoInit library("test");
    EXPECT_EQ(started_with("7.0.0.0"), "");
    kelLogSet("/tmp/x.log", KEL_LOG_SHORT | KEL_LOG_TRACE, 0);
  }
  EXPECT_STREQ(kelLogPathA(), "(null)") << "stopping ends file logging";
  int flags = 0;
  kelLogGetFlags(&flags, nullptr);
  EXPECT_EQ(flags, 0x87);
  EXPECT_EQ(started_with(""), mismatch(""));
  KelLibDestroy();
}

TEST(Library, LooksForThePerformanceMarkerWhenToldTo) {
  {
    Hooked<"access", int(const char*, int)> marker([](const char* path, int mode) {
      return std::string(path) == "/usr/quorv/tolq/pelk-perf" && mode == F_OK ? 0 : -1;
    });
    RefreshMarkerFiles();
  }
  EXPECT_TRUE(PerfEnabled());
  Fault<"access", int(const char*, int)> no_marker(1, -1, ENOENT);
  RefreshMarkerFiles();
  EXPECT_FALSE(PerfEnabled());
}

TEST(Library, ComparesVersionsUpToTheSecondDot) {
  EXPECT_STREQ(KelGetVersion(), "6.0.0.0");
  EXPECT_STREQ(GetKELVersion(), kProduct);
  EXPECT_THAT(KelGetVersionString(), AllOf(HasSubstr("6.0.0.0"), HasSubstr("July 7, 2004")));
  for (const char* good : {kProduct, "17.0101.9999.0001", "17.0101.", "17.0101.x"})
    EXPECT_TRUE(CheckKELVersion(good)) << good;
  for (const char* bad :
       {"17.0102.0023.0704", "17", "17.0101", "17.01010.0", "", "..", "18.0101.0"})
    EXPECT_FALSE(CheckKELVersion(bad)) << bad;
  EXPECT_FALSE(CheckKELVersion(nullptr));
}

TEST(CommonArgs, EachOptionPrintsItsTextAndEndsWithStatusOne) {
  const Outcome version = run_tool({"/opt/x/tool", "--version"}, "1.2");
  EXPECT_EQ(version.out, "This is tool, Version 1.2\n");
  EXPECT_EQ(version.err,
            "Warning: 22: _checkCommonArgs: Version mismatch: tool is version 1.2 while libkel is "
            "version 17.0101.0023.0704\n");

  const Outcome copyrights = run_tool({"tool", "other", "--copyrights", "--version"});
  EXPECT_EQ(std::count(copyrights.out.begin(), copyrights.out.end(), '\n'), 2);

  const Outcome help = run_tool({"/tool", "--help"});
  EXPECT_EQ(help.out,
            "This is tool, Version 17.0101.0023.0704\n\n" + copyrights.out +
                "\nusage: tool [FILE]\n\n\nCommon Options:\n"
                "\t--copyrights     : display applicable copyrights and exit\n"
                "\t--features       : display features and settings\n"
                "\t--os-test        : display OS summary\n"
                "\t--version        : display program version number and exit\n"
                "\t--help           : display this help and exit\n"
                "\t--noversioncheck : Disable verification that this application is linked against "
                "the right version of the KEL library.\n\n");

  const Outcome features = run_tool({"tool", "--features", "--help"});
  EXPECT_THAT(features.out,
              MatchesRegex("Version          : 17.0101.0023.0704-Beta\n"
                           "Build Date       : May 1, 12:00\n"
                           "libkel Version   : 17.0101.0023.0704-Release\n"
                           "libkel Build Date: [^\n]+, [0-9:]{8}\n"
                           "Compiler         : (GCC|Clang) [0-9]+\\.[0-9]+\n"
                           "Large Files      : Supported \\(64bit OS\\)\n"
                           "Zlib             : version [0-9.]+, compile flags [0-9a-f]{8} "
                           "\\(FASTEST (not )?enabled\\)\n"));
  EXPECT_THAT(features.out, HasSubstr(std::string("version ") + zlibVersion() + ","));

  const Outcome os = run_tool({"tool", "--os-test"});
  EXPECT_THAT(os.out, StartsWith("Target OS    : Linux-x86_64\n"));
  for (const Outcome& outcome : {version, copyrights, help, features, os})
    EXPECT_EQ(outcome.status, 1);
  for (const Outcome& outcome : {copyrights, help, features, os}) EXPECT_EQ(outcome.err, "");

  Arguments tool({"/x/tool"});
  const Outcome direct[] = {run([&] { ShowUsage(tool.argv.data(), usage); }),
                            run([] { _showFeatures(kProduct, "May 1", "12:00", "Beta"); }),
                            run([] { _showVersion("tool", "1.2"); })};
  EXPECT_EQ(direct[0].out, help.out);
  EXPECT_EQ(direct[1].out, features.out);
  EXPECT_EQ(direct[2].out, version.out);
  for (const Outcome& outcome : direct) EXPECT_EQ(outcome.status, 1);
}

TEST(CommonArgs, OtherArgumentsStayAndTheVersionCheckCanBeTurnedOff) {
  const Outcome broken = run_tool({"tool", "--version"}, nullptr);
  EXPECT_EQ(broken.status, 1);
  EXPECT_EQ(broken.out, "");
  EXPECT_EQ(broken.err, "Error: 22: _checkCommonArgs: invalid NULL parameter\n");

  ReportCapture reports;
  Arguments skipped({"/opt/x/tool", "--noversioncheck", "-v", "--help=yes", "--noversioncheck"});
  check(skipped, "1.2");
  EXPECT_THAT(skipped.left(), ElementsAre("/opt/x/tool", "-v", "--help=yes", "--noversioncheck"));
  EXPECT_EQ(skipped.argv[4], nullptr);
  EXPECT_THAT(reports.take(), IsEmpty());

  Arguments checked({"tool", "--versions"});
  check(checked, "17.0102.0.0");
  EXPECT_THAT(checked.left(), SizeIs(2));
  EXPECT_THAT(reports.take(),
              ElementsAre(warning(22,
                                  "_checkCommonArgs: Version mismatch: tool is version "
                                  "17.0102.0.0 while libkel is version 17.0101.0023.0704")));
  Arguments alone({"tool"});
  check(alone);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(OsTest, TellsWhatTheSystemTellsAndGoesOnWhereItDoesNot) {
  struct sysinfo info = {};
  sysinfo(&info);
  const unsigned long memory = (info.totalram + info.totalswap) * info.mem_unit >> 20;
  const std::string summary = os_summary();
  EXPECT_THAT(summary, AllOf(StartsWith("Target OS    : Linux-x86_64\nOS Type      : Linux\n"),
                             HasSubstr("OS page size : 4096 bytes\nSize uint32_t: 32 bits\n"),
                             HasSubstr("OS Memory    : " + std::to_string(memory) + " MB (")));
  const size_t process = summary.find("Current process name");
  ASSERT_NE(process, summary.npos);
  EXPECT_THAT(summary.substr(process),
              MatchesRegex("Current process name         : frame_tests\n"
                           "Current memory usage         : [1-9][0-9]+ kbytes\n"
                           "OS Check complete\n"));

  Fault<"uname", int(struct utsname*)> no_name(1, -1, ENOSYS);
  Fault<"sysinfo", int(struct sysinfo*)> no_info(1, -1, ENOSYS);
  Hooked<"sysconf", long(int)> no_pages([](int name) {
    return name == _SC_PHYS_PAGES ? -1L : Hooked<"sysconf", long(int)>::real(name);
  });
  EXPECT_THAT(os_summary(),
              AllOf(HasSubstr("uname() failed: Function not implemented!\nOS page size"),
                    HasSubstr("OS Memory    : 128 MB\n")));
}

std::string fatal_error() {
  char text[4096];
  kelGetFatalError(text, sizeof text);
  return text;
}

TEST(FatalError, KeepsTheFirstOfEachThreadUntilCleared) {
  ReportCapture reports;
  EXPECT_EQ(fatal_error(), "");
  kelSetFatalPrefix("backup", 0);
  kelSetFatalPrefix("ignored", 0);
  kelSetFatalError("Run", 12, "cannot open %s", "x");
  kelSetFatalError("Run", 13, "later");
  EXPECT_EQ(kelFatalErrorExists(), 1);
  EXPECT_EQ(fatal_error(), "backup Run: cannot open x K-454-12");
  EXPECT_THAT(reports.take(), ElementsAre(error(-1, "backup Run: cannot open x K-454-12")));
  std::thread([] { EXPECT_EQ(kelFatalErrorExists(), 0); }).join();

  kelClearFatalError();
  EXPECT_EQ(kelFatalErrorExists(), 0);
  kelSetFatalPrefix("restore", 1);
  kelSetFatalError("Run", -1, "no identifier");
  EXPECT_EQ(fatal_error(), "restore Run: no identifier");
  reports.take();

  char small[10];
  errno = 0;
  kelGetFatalError(small, sizeof small);
  EXPECT_STREQ(small, "restore R");
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOBUFS, "kelstrncpy: insufficient buffer")));
  kelGetFatalError(nullptr, 10);
  kelGetFatalError(small, 0);
  EXPECT_STREQ(small, "restore R");
  kelClearFatalError();
  kelSetFatalPrefix("", 1);
}

TEST(FatalError, CutsWhatIsTooLong) {
  ReportCapture reports;
  const std::string prefix(300, 'p');
  kelSetFatalPrefix(prefix.c_str(), 1);
  EXPECT_THAT(reports.take(), ElementsAre(warning(ENOBUFS, "kelstrcpy: insufficient buffer, src:" +
                                                               prefix + ", dst size=257")));
  kelSetFatalError("F", 1, "%s", std::string(5000, 't').c_str());
  EXPECT_EQ(fatal_error(), prefix.substr(0, 256) + " F: " + std::string(2368 - 260, 't'));
  kelClearFatalError();
  kelSetFatalError("F", 123456, "%s", std::string(2368 - 260 - 5, 't').c_str());
  EXPECT_THAT(fatal_error(), AllOf(SizeIs(2368), ::testing::EndsWith("t K-45")))
      << "the identifier is cut to the room that is left";
  kelClearFatalError();
  kelSetFatalPrefix("", 1);
}

}  // namespace
