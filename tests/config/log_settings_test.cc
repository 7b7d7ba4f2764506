#include <kel/logfiles.h>
#include <kel/logging.h>

#include "config/ini_fixture.h"

namespace {

using namespace kel::testing;

TEST(LogFlags, AreWordsInAndOut) {
  EXPECT_EQ(kelLogParseFlagsA("full, NONE"), 0);
  EXPECT_EQ(kelLogParseFlagsA("long date"), 0x89F);
  EXPECT_EQ(kelLogParseFlagsA("Errors,Warnings,Thread"), 0x8006);
  EXPECT_EQ(kelLogParseFlagsA("quiet, date"), -1);
  char buf[40];
  EXPECT_STREQ(kelLogFlagsToString(0x88FF, buf, 40), "full, threadid, date");
  EXPECT_STREQ(kelLogFlagsToString(0, buf, 3), "(unknown)");
}

class LogSettings : public IniFixture {
 protected:
  /// Flags, path and days, as one text.
  std::string load(const char* name = "a.log", int strip = 1, size_t room = 4096) {
    char log_path[4096] = "";
    int days = -7;
    const int flags = kelLogLoadStripA(file, "Svc", "LogPath", log_path, room, name, &days, strip);
    return std::to_string(flags) + ' ' + log_path + ' ' + std::to_string(days);
  }
  const std::string logs = dir / "x/logs";
};

TEST_F(LogSettings, ComeFromTheServicesSectionElseFromTheCommonOneElseFromDefaults) {
  given("[Logging]\nLogging=short\nRetention=14 days\n[Svc]\nlogging=long, date\nLogPath=" + logs +
        "/\n");
  EXPECT_EQ(load(), std::to_string(0x89F) + ' ' + logs + "/a.log 14");
  EXPECT_EQ(load("", 0), std::to_string(0x89F) + ' ' + logs + "/ 14");
  given("[Svc]\nLogging=none\nLogPath=/\nRetention=-3\n");
  EXPECT_EQ(load(), "0 /a.log 0");
  given("");
  int days = 1;
  EXPECT_EQ(kelLogLoadA(file, nullptr, nullptr, nullptr, 9, nullptr, &days), 0x9F);
  EXPECT_EQ(days, 0);
  EXPECT_EQ(load(), "159 /var/log/a.log 0");
  EXPECT_EQ(get("Logging", "Logging"), "long");
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(LogSettings, WrongOnesAreReported) {
  const auto refusal = [&](const std::string& text, size_t room = 4096, size_t name = 1) {
    given("[Svc]\n" + text);
    EXPECT_THAT(load(std::string(name, 'a').c_str(), 1, room), EndsWith(" -7"));
    return reports.take_texts().at(0);
  };
  EXPECT_THAT(refusal("Logging=banana"), HasSubstr("BadValue : banana"));
  EXPECT_THAT(refusal("LogPath=" + path + "/"), HasSubstr("not a directory (file)"));
  EXPECT_THAT(refusal("Logging=none\nLogPath=" + logs), HasSubstr("No such file or directory"));
  EXPECT_THAT(refusal("LogPath=" + logs, 9), HasSubstr("insufficient buffer"));
  EXPECT_THAT(refusal("LogPath=" + logs, 4096, 4090), HasSubstr("path too long"));
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(LogSettings, TheProcessHasASizeLimitThatLogFilesKeep) {
  kelLogSetMaxSize(5000);
  EXPECT_THAT(reports.take_texts(), ElementsAre("set entire process max log size to 5000"));
  unsigned long bytes = 0;
  EXPECT_EQ(kelLogGetMaxSize(&bytes), 5000u);
  EXPECT_EQ(kel::util::LogManager::getInstance()->getMaxFileSize(), bytes);
}

}  // namespace
