// Loading, releasing, printing; threads, cancellation, and what happens when memory is short.
#include <kel/library.h>

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <thread>

#include "config/ini_fixture.h"

namespace {

using namespace kel::testing;

class IniCache : public IniFixture {};

TEST_F(IniCache, ReadsTheDiskOnceUntilReleasedAndTellsPathsApartByTheirText) {
  given("x=1\n");
  EXPECT_EQ(get(INIFILE_TOP_SECTION, "x"), "1");
  write_file(path, "x=2\n");
  EXPECT_EQ(InifileLoadA(file), 0);
  EXPECT_EQ(get(INIFILE_TOP_SECTION, "x"), "1");
  EXPECT_EQ(InifileReleaseA(file), 1);
  EXPECT_EQ(InifileReleaseA(file), 0);
  EXPECT_EQ(get(INIFILE_TOP_SECTION, "x"), "2");
  EXPECT_EQ(KelLibDestroy(), 0);
  EXPECT_EQ(InifileReleaseA(file), 0);
  EXPECT_EQ(InifileReleaseA(nullptr), 0);

  // The checksums (Adler-32) of the first two paths are equal, whatever the directory is.
  const std::string paths[] = {dir / "bbbb", dir / "acca", dir / "BBBB"};
  for (const std::string& each : paths) write_file(each, "x=" + each + "\n");
  for (int round = 0; round < 2; ++round) {
    for (const std::string& each : paths) {
      char buf[256];
      EXPECT_GT(InifileGetValueA(INIFILE_TOP_SECTION, "x", buf, 256, nullptr, each.c_str()), 0);
      EXPECT_EQ(buf, each);
    }
  }
}

TEST_F(IniCache, WhatCannotBeReadCountsAsEmpty) {
  const std::string home = dir.path().string();
  write_file(path, "x=1\n");
  char buf[8];
  const auto is_empty = [&](const std::string& name) {
    return InifileGetValueA(INIFILE_TOP_SECTION, "x", buf, 8, "0", name.c_str()) == -2;
  };
  EXPECT_TRUE(is_empty(dir / "none"));
  EXPECT_FALSE(is_empty(dir / "none")) << "the default is kept";
  EXPECT_TRUE(is_empty(home));
  EXPECT_TRUE(is_empty(path + "/x"));
  {
    Fault<"fstat", int(int, struct stat*)> fault(1, -1, EIO);
    EXPECT_TRUE(is_empty(path));
    InifileReleaseA(file);
  }
  Fault<"read", ssize_t(int, void*, size_t)> fault(1, -1, EIO);
  EXPECT_TRUE(is_empty(path));
  std::vector<int> codes;
  for (const Report& report : reports.take()) codes.push_back(report.code);
  EXPECT_THAT(codes, ElementsAre(ENOENT, EISDIR, ENOTDIR, EIO, EIO));
}

TEST_F(IniCache, PrintsWhatIsLoaded) {
  const auto printed = [](void (*print)()) {
    ::testing::internal::CaptureStdout();
    print();
    return ::testing::internal::GetCapturedStdout();
  };
  for (const auto print : {inifilePrintLoadedFiles, inifilePrintLoadedFileContents})
    EXPECT_THAT(printed(print), HasSubstr("No INI files are"));
  given("# \"a\"\tb\r\n[S]\n# k\nk=v\n");
  ASSERT_EQ(InifileDeleteValueA("S", "none", file), -1);
  EXPECT_THAT(printed(inifilePrintLoadedFiles), HasSubstr("\"" + path + "\""));
  EXPECT_THAT(printed(inifilePrintLoadedFileContents),
              AllOf(HasSubstr("(modified: no)"), HasSubstr("\"# \\\"a\\\"\\tb\\r\\n\""),
                    EndsWith("Section \"S\"\n\t\t\tComment \"# k\\n\"\n\t\t\t\"k\" = \"v\"\n")));
  ASSERT_EQ(InifileSaveValueA("S", "k", "v", file), 1);
  EXPECT_THAT(printed(inifilePrintLoadedFileContents), HasSubstr("(modified: YES)"));
}

TEST_F(IniCache, ShortMemoryNeverLoadsOrChangesHalfAFile) {
  std::string text = "# c\r";  // a comment that needs a copy
  for (int i = 0; i < 100; ++i)
    text += "[s" + std::to_string(i % 7) + "]\n#c\rk" + std::to_string(i) + "=v\n";
  given(text);
  const std::string whole = saved();
  const auto scenario = [&] {
    InifileReleaseAll();
    if (InifileLoadA(file) != 0) {
      EXPECT_EQ(errno, ENOMEM);
      EXPECT_EQ(InifileSaveA(file), 2);  // nothing was loaded that a save could write
      ASSERT_EQ(InifileLoadA(file), 0);
    }
    const int stored = InifileSaveValueA("S1", "K1", "other", file);
    char buf[8];
    EXPECT_EQ(InifileGetValueA("s1", "k1", buf, 3, "", file), stored == 1 ? 6 : 2);
    const int commented = InifileSaveCommentA("new", "key", "# c", file);
    EXPECT_EQ(comment("new", "key"), commented == 0 ? "# c\n" : "(none)");
  };
  EXPECT_GT(fail_each_malloc(scenario), 10);
  EXPECT_GT(fail_each_calloc(scenario), 3);
  EXPECT_GT(fail_each_realloc(scenario), 0);
  EXPECT_GT((fail_each<"_ZnwmRKSt9nothrow_t", void*(size_t, const std::nothrow_t&)>(nullptr, ENOMEM,
                                                                                    scenario)),
            0);
  InifileReleaseAll();
  EXPECT_EQ(saved(), whole);
}

TEST_F(IniCache, ReportsMayCallBack) {
  given("wrong\n");
  static const char* the_file;
  static int inside;
  the_file = file;
  inside = 0;
  kelLogSetRedirector([](int, int, const char*) {
    if (inside++ != 0) return;
    char buf[8];
    EXPECT_EQ(InifileGetValueA("S", "k", buf, 8, "1", the_file), -2);
  });
  char buf[2];
  EXPECT_EQ(InifileGetValueA("S", "k", buf, 2, "22", file), 2);  // the call inside came first
  kelLogSetRedirector(nullptr);
  EXPECT_GT(inside, 1);
}

TEST_F(IniCache, ManyThreadsShareFiles) {
  constexpr int kThreads = 4, kSteps = 1000;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  given("[S]\nshared=0\n");
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string own = dir / ("own" + std::to_string(t));
      const std::string key = "k" + std::to_string(t);
      kelLogSetRedirector([](int, int, const char*) {});
      write_file(own, "");
      for (int i = 0; i < kSteps; ++i) {
        const std::string value = std::to_string(i);
        char buf[32];
        wrong += InifileSaveValueA("S", key.c_str(), value.c_str(), file) != 1;
        InifileGetValueA("S", key.c_str(), buf, 32, "", file);
        wrong += buf != value;
        wrong += InifileGetValueA("S", "shared", buf, 32, "", file) != 2;
        wrong += InifileSaveValueA("S", "k", value.c_str(), own.c_str()) != 1;
        if (i % 100 == 0) {
          wrong += InifileSaveA(file) != 0;
          wrong += InifileSaveA(own.c_str()) != 0;
          wrong += InifileReleaseA(own.c_str()) != 1;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(InifileSaveA(file), 0);
  for (int t = 0; t < kThreads; ++t)
    EXPECT_THAT(on_disk(), HasSubstr("k" + std::to_string(t) + "=" + std::to_string(kSteps - 1)));
}

TEST_F(IniCache, ACancelledThreadLeavesTheLockFree) {
  const auto start = [](void* (*body)(void*), const std::string& name) {
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, body, const_cast<char*>(name.c_str())), 0);
    return thread;
  };
  const auto expect_cancelled = [](pthread_t thread) {
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
  };
  // Nobody writes to the pipe: the load stays in its first system call.
  const std::string pipe = dir / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const auto load = [](void* name) -> void* {
    InifileLoadA(static_cast<const char*>(name));
    return nullptr;
  };
  const pthread_t reader = start(load, pipe);
  ::usleep(50'000);
  given("x=1\n");
  EXPECT_EQ(get(INIFILE_TOP_SECTION, "x"), "1");  // meanwhile others are served
  ASSERT_EQ(pthread_cancel(reader), 0);
  expect_cancelled(reader);
  EXPECT_EQ(InifileReleaseA(pipe.c_str()), 0);

  // A save is finished before the thread goes.
  ASSERT_EQ(InifileSaveValueA(INIFILE_TOP_SECTION, "x", "2", file), 1);
  const auto save = [](void* name) -> void* {
    pthread_cancel(pthread_self());
    InifileSaveA(static_cast<const char*>(name));
    pthread_testcancel();
    return nullptr;
  };
  expect_cancelled(start(save, path));
  EXPECT_EQ(on_disk(), "x=2\n");
  EXPECT_EQ(get(INIFILE_TOP_SECTION, "x"), "2");
}

}  // namespace
