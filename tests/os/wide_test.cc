#include <kel/wide.h>

#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <set>

#include "support/test.h"

namespace {

namespace fs = std::filesystem;

using namespace kel::testing;
using namespace testing;

/// 0, or the error of a call that failed.
int outcome(long result) { return result == -1 ? errno : 0; }

class Wide : public Test {
 protected:
  Wide() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  ~Wide() override { std::setlocale(LC_CTYPE, "C"); }
  std::wstring at(const std::wstring& name) const { return dir.path().wstring() + L"/" + name; }

  kel::testing::TempDir dir;
  ReportCapture reports;
};

TEST_F(Wide, CallsDoWhatTheirNarrowTwinsDo) {
  if (::getuid() != 0) GTEST_SKIP() << "may not give files away";
  const std::wstring file = at(L"größe"), other = at(L"ω"), link = at(L"链接"), folder = at(L"é");
  const std::string narrow = dir / "größe";
  int fd = wcsopen(file.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
  EXPECT_EQ(::write(fd, "text", 4), 4);
  ::close(fd);
  const utimbuf times = {100, 200};
  const timeval fine[2] = {{1, 2}, {3, 4}};
  struct stat status, seen;
  EXPECT_THAT((std::vector{wcstruncate(file.c_str(), 3), wcschmod(file.c_str(), 0640),
                           wcschown(file.c_str(), 7, 8), wcsutime(file.c_str(), &times),
                           ::stat(narrow.c_str(), &status), wcsstat(file.c_str(), &seen)}),
              Each(0));
  EXPECT_EQ(std::memcmp(&status, &seen, sizeof status), 0);
  EXPECT_THAT((std::vector<long>{status.st_size, status.st_mode & 07777u, status.st_uid,
                                 status.st_gid, status.st_mtime}),
              ElementsAre(3, 0640, 7, 8, 200));
  EXPECT_THAT((std::vector{wcsutimes(file.c_str(), fine), wcslink(file.c_str(), other.c_str()),
                           wcssymlink(L"größe", link.c_str()), wcslchown(link.c_str(), 9, 9),
                           wcslstat(link.c_str(), &seen)}),
              Each(0));
  EXPECT_TRUE(S_ISLNK(seen.st_mode) && seen.st_uid == 9);
  ::stat((dir / "ω").c_str(), &status);
  EXPECT_EQ(status.st_mtim.tv_nsec, 4000);
  wchar_t target[8] = L"-------";
  EXPECT_EQ(wcsreadlink(link.c_str(), target, 8), 5);
  EXPECT_STREQ(target, L"größe");
  EXPECT_EQ(wcsreadlink(link.c_str(), target, 2), 2);
  struct statvfs space;
  EXPECT_THAT((std::vector{wcsaccess(other.c_str(), R_OK), wcsunlink(link.c_str()),
                           wcsrename(other.c_str(), link.c_str()), wcsremove(link.c_str()),
                           wcsmkdir(folder.c_str(), 0700), wcsmkfifo(at(L"é/p").c_str(), 0600),
                           wcsmknod(at(L"é/q").c_str(), S_IFIFO | 0600, 0),
                           wcsremove(at(L"é/p").c_str()), wcsstatvfs(folder.c_str(), &space)}),
              Each(0));
  EXPECT_EQ(outcome(wcsrmdir(folder.c_str())), ENOTEMPTY);
  EXPECT_EQ(wcsremove(at(L"é/q").c_str()), 0);
  const fs::path before = fs::current_path();
  EXPECT_EQ(wcschdir(folder.c_str()), 0);
  EXPECT_EQ((std::unique_ptr<wchar_t, decltype(&wcsfree)>(wcsgetcwd(nullptr, 0), wcsfree).get()),
            folder);
  wchar_t buf[4096];
  EXPECT_EQ(wcsgetcwd(buf, folder.size() + 1), buf);
  EXPECT_EQ(buf, folder);
  EXPECT_EQ(wcsgetcwd(buf, folder.size()), nullptr);
  fs::current_path(before);
  EXPECT_EQ(wcsrmdir(folder.c_str()), 0);
  EXPECT_EQ(wcssystem((L"exit $(cat '" + file + L"' | wc -c)").c_str()) >> 8, 3);
  FILE* stream = wcspopen(L"echo ö", L"r");
  char line[8] = "";
  std::fgets(line, sizeof line, stream);
  ::pclose(stream);
  EXPECT_STREQ(line, "ö\n");
  stream = wcsfopen(file.c_str(), L"r");
  EXPECT_EQ(std::fgetc(stream), 't');
  std::fclose(stream);
  fd = wcscreat(file.c_str(), 0600);
  ::close(fd);
  EXPECT_EQ(fs::file_size(narrow), 0u);
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOBUFS, "wcsgetcwd: buffer too small for path")));
}

TEST_F(Wide, StreamsGiveEveryNameAndPassOverThoseWithoutAWideForm) {
  for (const char* name : {"ä", "b\xff", "c"}) write_file(dir / name, "");
  const std::wstring home = dir.path().wstring();
  wcsDIR* stream = wcsopendir(home.c_str());
  std::set<std::wstring> names;
  for (int i = 0; i < 5; ++i) {
    const wcsdirent* entry = wcsreaddir(stream);
    names.insert(entry == nullptr ? L"refused" : entry->d_name);
  }
  EXPECT_EQ(names, (std::set<std::wstring>{L".", L"..", L"ä", L"c", L"refused"}));
  errno = 0;
  EXPECT_EQ(wcsreaddir(stream), nullptr);
  EXPECT_EQ(errno, 0);
  wcsrewinddir(stream);
  wcsdirent entry, *result = &entry;
  int given = 0;
  for (int i = 0; i < 5; ++i) given += wcsreaddir_r(stream, &entry, &result) == 0;
  EXPECT_EQ(given, 4);
  EXPECT_EQ(wcsreaddir_r(stream, &entry, &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_GE(wcsdirfd(stream), 0);
  EXPECT_EQ(wcsclosedir(stream), 0);
  EXPECT_EQ(wcsreaddir(nullptr), nullptr);
  EXPECT_EQ(wcsopendir(at(L"none").c_str()), nullptr);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EILSEQ, "wcsreaddir: could not convert directory"),
                          error(EILSEQ, "wcsreaddir_r: could not convert directory"),
                          error(EINVAL, "wcsreaddir: invalid NULL parameter")));
}

TEST_F(Wide, OnlyWhatCannotBeConvertedIsReported) {
  const std::wstring longest(5000, L'ö');
  EXPECT_EQ(outcome(wcsmkdir(longest.c_str(), 0755)), ENAMETOOLONG);
  EXPECT_EQ(outcome(wcsunlink(at(L"none").c_str())), ENOENT);
  EXPECT_EQ(outcome(wcschdir(nullptr)), EFAULT);
  EXPECT_THAT(reports.take(), IsEmpty());
  const Fault<"malloc", void*(size_t)> full(1, nullptr, ENOMEM);
  EXPECT_EQ(outcome(wcsaccess(std::wstring(2000, L'ö').c_str(), F_OK)), ENAMETOOLONG);
  EXPECT_FALSE(full.happened());
  EXPECT_EQ(outcome(wcsaccess(longest.c_str(), F_OK)), ENOMEM);
  std::setlocale(LC_CTYPE, "C");
  EXPECT_EQ(outcome(wcsmkdir(L"größe", 0755)), EILSEQ);
  EXPECT_EQ(wcsrename(L"a", L"größe"), -1);
  fs::create_symlink("ö", dir / "link");
  wchar_t target[8];
  EXPECT_EQ(outcome(wcsreadlink(at(L"link").c_str(), target, 8)), EILSEQ);
  EXPECT_THAT(reports.take_texts(), ElementsAre("__tomb: could not allocate memory",
                                                "wcsaccess: could not convert to multi-byte",
                                                "wcsmkdir: could not convert to multi-byte",
                                                "wcsrename: could not convert to multi-byte",
                                                "wcsreadlink: could not convert path"));
}

}  // namespace
