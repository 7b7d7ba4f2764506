#include <kel/wide.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <clocale>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "support/import_hook.h"
#include "support/reports.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

using kel::testing::error;
using kel::testing::Fault;
using kel::testing::ReportCapture;
using kel::testing::TempDir;
using kel::testing::write_file;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Wide : public ::testing::Test {
 protected:
  Wide() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
  ~Wide() override { std::setlocale(LC_CTYPE, "C"); }
  std::wstring at(const std::wstring& name) const { return dir.path().wstring() + L"/" + name; }

  TempDir dir;
  ReportCapture reports;
};

TEST_F(Wide, CallsDoWhatTheirNarrowTwinsDo) {
  const std::wstring file = at(L"größe"), other = at(L"ω"), link = at(L"链接"), folder = at(L"é");
  const std::string narrow = dir / "größe";
  int fd = wcsopen(file.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
  EXPECT_EQ(::write(fd, "text", 4), 4);
  ::close(fd);
  EXPECT_EQ(wcstruncate(file.c_str(), 3), 0);
  EXPECT_EQ(wcschmod(file.c_str(), 0640), 0);
  EXPECT_EQ(wcschown(file.c_str(), ::getuid(), ::getgid()), 0);
  const utimbuf times = {100, 200};
  EXPECT_EQ(wcsutime(file.c_str(), &times), 0);
  struct stat status, seen;
  ASSERT_EQ(::stat(narrow.c_str(), &status), 0);
  EXPECT_EQ(wcsstat(file.c_str(), &seen), 0);
  EXPECT_EQ(std::memcmp(&status, &seen, sizeof status), 0);
  EXPECT_EQ(status.st_size, 3);
  EXPECT_EQ(status.st_mode & 07777u, 0640u);
  EXPECT_EQ(status.st_mtime, 200);
  const timeval fine[2] = {{1, 2}, {3, 4}};
  EXPECT_EQ(wcsutimes(file.c_str(), fine), 0);
  EXPECT_EQ(wcslink(file.c_str(), other.c_str()), 0);
  EXPECT_EQ(wcssymlink(L"größe", link.c_str()), 0);
  EXPECT_EQ(wcslchown(link.c_str(), ::getuid(), ::getgid()), 0);
  EXPECT_EQ(wcslstat(link.c_str(), &seen), 0);
  EXPECT_TRUE(S_ISLNK(seen.st_mode));
  wchar_t target[8] = L"-------";
  EXPECT_EQ(wcsreadlink(link.c_str(), target, 8), 5);
  EXPECT_STREQ(target, L"größe");
  EXPECT_EQ(wcsreadlink(link.c_str(), target, 2), 2);
  EXPECT_EQ(std::wstring(target, 3), L"grö");
  EXPECT_EQ(wcsaccess(other.c_str(), R_OK), 0);
  EXPECT_EQ(wcsrename(other.c_str(), at(L"new").c_str()), 0);
  EXPECT_EQ(wcsunlink(at(L"new").c_str()), 0);
  EXPECT_EQ(wcsmkdir(folder.c_str(), 0700), 0);
  EXPECT_EQ(wcsmkfifo(at(L"é/p").c_str(), 0600), 0);
  EXPECT_EQ(wcsmknod(at(L"é/q").c_str(), S_IFIFO | 0600, 0), 0);
  EXPECT_EQ(wcsremove(at(L"é/p").c_str()), 0);
  EXPECT_EQ(wcsrmdir(folder.c_str()), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(wcsremove(at(L"é/q").c_str()), 0);
  struct statvfs space;
  EXPECT_EQ(wcsstatvfs(folder.c_str(), &space), 0);
  const fs::path before = fs::current_path();
  EXPECT_EQ(wcschdir(folder.c_str()), 0);
  wchar_t* const cwd = wcsgetcwd(nullptr, 0);
  EXPECT_EQ(cwd, folder);
  wcsfree(cwd);
  wchar_t buf[4096];
  EXPECT_EQ(wcsgetcwd(buf, folder.size() + 1), buf);
  EXPECT_EQ(buf, folder);
  EXPECT_EQ(wcsgetcwd(buf, folder.size()), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
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
  EXPECT_GE(fd, 0);
  ::close(fd);
  EXPECT_EQ(fs::file_size(narrow), 0u);
  EXPECT_THAT(reports.take_texts(), ElementsAre("wcsgetcwd: buffer too small for path"));
}

TEST_F(Wide, StreamsGiveEveryNameAndPassOverThoseWithoutAWideForm) {
  for (const char* name : {"ä", "b\xff", "c"}) write_file(dir / name, "");
  const std::wstring home = dir.path().wstring();
  wcsDIR* stream = wcsopendir(home.c_str());
  ASSERT_NE(stream, nullptr);
  std::set<std::wstring> names;
  int refused = 0;
  for (errno = 0; names.size() + refused < 5; errno = 0) {
    if (const wcsdirent* entry = wcsreaddir(stream))
      names.insert(entry->d_name);
    else
      refused += errno == EILSEQ;
  }
  EXPECT_EQ(names, (std::set<std::wstring>{L".", L"..", L"ä", L"c"}));
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
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EILSEQ, "wcsreaddir: could not convert directory"),
                          error(EILSEQ, "wcsreaddir_r: could not convert directory"),
                          error(EINVAL, "wcsreaddir: invalid NULL parameter")));
}

TEST_F(Wide, OnlyWhatCannotBeConvertedIsReported) {
  const std::wstring longest(5000, L'ö');
  EXPECT_EQ(wcsmkdir(longest.c_str(), 0755), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(wcsunlink(at(L"none").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(wcschdir(nullptr), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_THAT(reports.take(), IsEmpty());
  const Fault<"malloc", void*(size_t)> full(1, nullptr, ENOMEM);
  EXPECT_EQ(wcsaccess(std::wstring(2000, L'ö').c_str(), F_OK), -1);  // on the stack
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_FALSE(full.happened());
  EXPECT_EQ(wcsaccess(longest.c_str(), F_OK), -1);
  EXPECT_EQ(errno, ENOMEM);
  std::setlocale(LC_CTYPE, "C");
  EXPECT_EQ(wcsmkdir(L"größe", 0755), -1);
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_EQ(wcsrename(L"a", L"größe"), -1);
  EXPECT_EQ(wcsfopen(L"größe", L"r"), nullptr);
  fs::create_symlink("ö", dir / "link");
  wchar_t target[8];
  EXPECT_EQ(wcsreadlink(at(L"link").c_str(), target, 8), -1);
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_THAT(reports.take_texts(), ElementsAre("__tomb: could not allocate memory",
                                                "wcsaccess: could not convert to multi-byte",
                                                "wcsmkdir: could not convert to multi-byte",
                                                "wcsrename: could not convert to multi-byte",
                                                "wcsfopen: could not convert to multi-byte",
                                                "wcsreadlink: could not convert path"));
}

}  // namespace
