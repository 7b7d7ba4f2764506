#include <kel/library.h>
#include <kel/logging.h>

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <zlib.h>

#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;
using ::testing::AllOf;

constexpr char kProduct[] = "17.0101.0023.0704";

/// A command line that may be changed in place.
struct Arguments {
  explicit Arguments(std::vector<std::string> from)
      : texts(std::move(from)), argc(static_cast<int>(texts.size())) {
    for (std::string& text : texts) argv.push_back(text.data());
    argv.push_back(nullptr);
  }
  std::vector<std::string> left() const { return {argv.data(), argv.data() + argc}; }

  std::vector<std::string> texts;
  int argc;
  std::vector<char*> argv;
};

void usage(const char* name) { std::printf("usage: %s [FILE]\n", name); }

void check(Arguments& arguments, const char* version = kProduct) {
  _checkCommonArgs(&arguments.argc, arguments.argv.data(), usage, version, "May 1", "12:00",
                   "Beta");
}

/// What `act` has to write before it ends its process with status 1.
void expect_exit(const std::function<void()>& act, const ::testing::Matcher<std::string>& text) {
  const auto with_stdout = [&] {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    kellog_reset_for_fork();
    act();
  };
  EXPECT_EXIT(with_stdout(), ::testing::ExitedWithCode(1),
              ::testing::ResultOf([](const std::string& seen) { return seen; }, text));
}

void expect_tool(std::vector<std::string> texts, const ::testing::Matcher<std::string>& text,
                 const char* version = kProduct) {
  Arguments arguments(std::move(texts));
  expect_exit([&] { check(arguments, version); }, text);
}

TEST(Library, StartsOnceUntilItIsStoppedAndWarnsOfOtherVersions) {
  const auto started_with = [](const char* version) {
    return console_of([=] { EXPECT_EQ(_KelLibInit("test", version), 1); });
  };
  for (const auto& [version, shown] :
       {std::pair{"7.0.0.0", "7.0.0.0"}, {nullptr, "(unknown)"}, {"", ""}}) {
    EXPECT_EQ(started_with("6.1"), "");
    EXPECT_EQ(started_with(version), "") << "started already";
    KelLibDestroy();
    EXPECT_THAT(started_with(version), HasSubstr(std::string(" version ") + shown + " but is"));
    KelLibDestroy();
  }
  {
    const tqutil::LibAutoInit library("test");
    EXPECT_EQ(started_with("7.0.0.0"), "");
    kelLogSet("/tmp/x.log", KEL_LOG_SHORT | KEL_LOG_TRACE, 0);
  }
  EXPECT_STREQ(kelLogPathA(), "(null)") << "stopping ends file logging";
  int flags = 0;
  kelLogGetFlags(&flags, nullptr);
  EXPECT_EQ(flags, 0x87);

  EXPECT_STREQ(KelGetVersion(), "6.0.0.0");
  EXPECT_STREQ(GetKELVersion(), kProduct);
  EXPECT_THAT(KelGetVersionString(), AllOf(HasSubstr("6.0.0.0"), HasSubstr("July 7, 2004")));
  for (const char* good : {kProduct, "17.0101.9999.0001", "17.0101.", "17.0101.x"})
    EXPECT_TRUE(CheckKELVersion(good)) << good;
  for (const char* bad : {"17.0102.0023.0704", "17.0101", "17.01010.0", "", "..", "18.0101.0"})
    EXPECT_FALSE(CheckKELVersion(bad)) << bad;
  EXPECT_FALSE(CheckKELVersion(nullptr));
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

TEST(CommonArgs, EachOptionPrintsItsTextAndEndsWithStatusOne) {
  const std::string version = "This is tool, Version 17.0101.0023.0704\n";
  const auto help = AllOf(StartsWith(version + "\n"), HasSubstr("\nusage: tool [FILE]\n"),
                          HasSubstr("--noversioncheck :"));
  const auto features = AllOf(HasSubstr(": 17.0101.0023.0704-Beta\n"),
                              HasSubstr(": May 1, 12:00\n"), HasSubstr(zlibVersion()));
  Arguments tool({"/x/tool"});
  expect_tool({"tool", "other", "--copyrights", "--version"}, MatchesRegex("[^\n]+\n[^\n]+\n"));
  expect_tool({"/opt/x/tool", "--version"}, version);
  expect_exit([] { _showVersion("tool", kProduct); }, version);
  expect_tool({"/tool", "--help"}, help);
  expect_exit([&] { ShowUsage(tool.argv.data(), usage); }, help);
  expect_tool({"tool", "--features", "--help"}, features);
  expect_exit([] { _showFeatures(kProduct, "May 1", "12:00", "Beta"); }, features);
  expect_tool({"tool", "--os-test"}, StartsWith("Target OS    : Linux-x86_64\n"));
}

TEST(CommonArgs, OtherArgumentsStayAndTheVersionCheckCanBeTurnedOff) {
  expect_tool({"/opt/x/tool", "--version"},
              AllOf(StartsWith("Warning: 22: "), EndsWith("This is tool, Version 1.2\n")), "1.2");
  expect_tool({"tool", "--version"}, StartsWith("Error: 22: "), nullptr);

  ReportCapture reports;
  Arguments skipped({"/opt/x/tool", "--noversioncheck", "-v", "--help=yes", "--noversioncheck"});
  check(skipped, "1.2");
  EXPECT_THAT(skipped.left(), ElementsAre("/opt/x/tool", "-v", "--help=yes", "--noversioncheck"));
  EXPECT_EQ(skipped.argv[4], nullptr);
  Arguments alone({"tool"});
  check(alone);
  EXPECT_THAT(reports.take(), IsEmpty());
  Arguments checked({"tool", "--versions"});
  check(checked, "1.2");
  EXPECT_THAT(checked.left(), SizeIs(2));
  EXPECT_THAT(reports.take_texts(), ElementsAre(HasSubstr("tool is version 1.2 while")));
}

TEST(OsTest, TellsWhatTheSystemTellsAndGoesOnWhereItDoesNot) {
  const TempDir dir;
  const auto os_summary = [&] {
    OSTest(File(std::fopen((dir / "os").c_str(), "w")).get());
    return read_file(dir / "os");
  };
  struct sysinfo info = {};
  sysinfo(&info);
  const unsigned long memory = (info.totalram + info.totalswap) * info.mem_unit >> 20;
  EXPECT_THAT(os_summary(),
              AllOf(HasSubstr("OS Memory    : " + std::to_string(memory) + " MB ("),
                    HasSubstr(": frame_tests\n"), EndsWith(" kbytes\nOS Check complete\n")));

  Fault<"uname", int(struct utsname*)> no_name(1, -1, EIO);
  Fault<"sysinfo", int(struct sysinfo*)> no_info(1, -1, EIO);
  Hooked<"sysconf", long(int)> no_pages([](int name) {
    return name == _SC_PHYS_PAGES ? -1L : Hooked<"sysconf", long(int)>::real(name);
  });
  EXPECT_THAT(os_summary(), AllOf(HasSubstr("uname() failed"), HasSubstr(": 128 MB\n")));
}

TEST(FatalError, KeepsTheFirstOfEachThreadCutToItsRoomUntilCleared) {
  ReportCapture reports;
  const auto fatal_error = [](const char* prefix, int id, const std::string& text) {
    kelSetFatalPrefix(prefix, 1);
    kelSetFatalError("Run", id, "%s", text.c_str());
    char buf[4096];
    kelGetFatalError(buf, sizeof buf);
    return std::string(buf);
  };
  kelSetFatalPrefix("backup", 0);
  kelSetFatalPrefix("ignored", 0);
  EXPECT_EQ(kelFatalErrorExists(), 0);
  kelSetFatalError("Run", 12, "cannot open %s", "x");
  EXPECT_EQ(kelFatalErrorExists(), 1);
  EXPECT_THAT(reports.take(), ElementsAre(error(-1, "backup Run: cannot open x K-454-12")));
  EXPECT_EQ(fatal_error("", 13, "later"), "backup Run: cannot open x K-454-12");
  std::thread([] { EXPECT_EQ(kelFatalErrorExists(), 0); }).join();
  kelClearFatalError();
  EXPECT_EQ(kelFatalErrorExists(), 0);
  EXPECT_EQ(fatal_error("restore", -1, "no identifier"), "restore Run: no identifier");

  char small[10];
  errno = 0;
  kelGetFatalError(small, sizeof small);
  kelGetFatalError(nullptr, 10);
  kelGetFatalError(small, 0);
  EXPECT_STREQ(small, "restore R");
  EXPECT_EQ(errno, ENOBUFS);

  const std::string prefix(300, 'p'), start = prefix.substr(0, 256) + " Run: ";
  const size_t room = 2368 - start.size();
  kelClearFatalError();
  EXPECT_EQ(fatal_error(prefix.c_str(), 1, std::string(5000, 't')), start + std::string(room, 't'));
  kelClearFatalError();
  EXPECT_EQ(fatal_error(prefix.c_str(), 123456, std::string(room - 5, 't')),
            start + std::string(room - 5, 't') + " K-45");
  kelClearFatalError();
  kelSetFatalPrefix("", 1);
}

}  // namespace
