#include <kel/crc.h>
#include <kel/probes.h>

#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "config/ini_fixture.h"
#include "support/mount_space.h"

namespace {

using namespace kel::testing;

constexpr char kFips[] = "/etc/ZORNagent/fips.conf";
constexpr char kSettings[] = "/etc/ZORNagent/tq.conf";

/// Runs `body` in a process with a plug-in directory of its own, where no probe has answered yet.
void in_fresh_process(void (*body)()) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    MountSpace mounts;
    if (!mounts.allowed()) _exit(77);
    mounts.memory("/etc", "1m");
    std::filesystem::create_directory("/etc/ZORNagent");
    body();
    std::fflush(stdout);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "no mounts of our own";
  EXPECT_EQ(status, 0);
}

TEST(Probes, AnswerFromWhatTheFilesSaidFirst) {
  in_fresh_process([] {
    write_file(kFips, "[Main]\nFIPS=1x\n");
    write_file(kSettings, "DISABLE_BACKLEVEL_TLS=7\n[Section]\nTQDO_SSL_VERIFY=1\n");
    ReportCapture reports(KEL_LOG_TRACE);
    EXPECT_EQ(getFIPSMode(), 1);
    EXPECT_EQ(supportTQDOSSLVerify(), 0) << "of another section";
    write_file(kFips, "[Main]\nFIPS=5\n");
    InifileReleaseAll();
    EXPECT_EQ(getFIPSMode(), 1);
    EXPECT_EQ(supportLatestTLS(), 7);
    EXPECT_EQ(reports.take_texts()[1], "getFIPSMode return value is: 1 ");
  });
  in_fresh_process([] {
    ReportCapture reports(KEL_LOG_TRACE | KEL_LOG_WARN);
    EXPECT_EQ(getFIPSMode(), 0);
    EXPECT_EQ(reports.take_texts()[1], "fips.conf do not exist");
    // The missing file is reported to a program that asks in turn.
    static int answer = -1;
    kelLogSetRedirector([](int, int, const char*) { answer = supportLatestTLS(); });
    EXPECT_EQ(supportLatestTLS() + answer, 0);
  });
}

TEST(Probes, GiveNoThreadAZeroWhileAnotherReads) {
  in_fresh_process([] {
    write_file(kSettings, "DISABLE_BACKLEVEL_TLS=3\n");
    static std::atomic<int> asking;
    using Open = Hooked<"open", int(const char*, int, mode_t)>;
    const Open hook([](const char* path, int flags, mode_t mode) {
      while (asking < 16) std::this_thread::yield();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return Open::real(path, flags, mode);
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i)
      threads.emplace_back([] { EXPECT_EQ((++asking, supportLatestTLS()), 3); });
    for (auto& thread : threads) thread.join();
  });
}

TEST(Features, AreSwitchedByTheirNumber) {
  in_fresh_process([] {
    EXPECT_EQ(IsPELKFeatureEnabled_c(7), 1) << "no file";
    write_file(kSettings, "0=1\n1=0\n5=1\n6=0\n8=2\n9=1x\n10=4294967297\n");
    for (const int id : {1, 5, -5, 7, 9}) EXPECT_EQ(IsPELKFeatureEnabled_c(id), 1) << id;
    for (const int id : {0, 6, -6, -7, 8, -8, -9, 10}) EXPECT_EQ(IsPELKFeatureEnabled_c(id), 0);
  });
}

TEST(Parameters, AreTakenOutOfTheirTexts) {
  ReportCapture reports;
  char out[64], client[255], policy[255], image[255];
  EXPECT_EQ(spaGetParamString("a=1;bb=22", "b", out, 3, ';'), 0);
  EXPECT_STREQ(out, "22");
  EXPECT_EQ(spaGetParamString("k=1", "k", out, 0, ';'), 9);
  EXPECT_EQ(spaGetParamString("k=1", "x", out, 4, ';'), 9);
  EXPECT_EQ(spaGetParamString("k=abcdef", "k", out, 6, ';'), 14);
  parseValueByKey("name:  value rest", "name", ":", out, 64);
  EXPECT_STREQ(out, "value");
  const char* const path = "/root/c1/p1/img_5*";
  EXPECT_STREQ(extract_client_policy_imagename(path, 1, client, policy, image), "c1/p1/img_5");
  EXPECT_STREQ(extract_client_policy_imagename(path, 0, client, policy, image), "img_5");
  EXPECT_EQ(std::string(client) + policy, "c1p1");
  EXPECT_EQ(extract_client_policy_imagename("c/p/", 1, client, policy, image), nullptr);
  EXPECT_STREQ(getHostFromUrl("HTTPS://host1:8443/api", out, 64), "host1:8443");
  EXPECT_EQ(getHostFromUrl("https://host", out, 64), nullptr);
  EXPECT_EQ(getHostFromUrl("https://host/", out, 4), nullptr);
}

TEST(Vocabulary, HoldsEveryNameInItsPlace) {
  // Checksums of the tables made from the names by other means.
  EXPECT_EQ(CRCAppend(1, _kel_config_section_string_table_, 408), 0x0ddd8e87u);
  EXPECT_EQ(CRCAppend(1, _kel_config_entry_string_table_, 7940), 0xd5596f70u);
}

}  // namespace
