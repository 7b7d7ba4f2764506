// Comparing and loading files, names of temporary ones, sizes.
#include <kel/file.h>

#include <unistd.h>

#include <cstdlib>

#include "support/test.h"

namespace {

namespace fs = std::filesystem;

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

struct Free {
  void operator()(void* block) const { std::free(block); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

class FileContents : public Test {
 protected:
  ssize_t compare(const std::string& x, const std::string& y) {
    write_file(a, x);
    write_file(b, y);
    errno = EDOM;
    return FileCompare(a.c_str(), b.c_str(), 0);
  }

  TempDir dir;
  std::string a = dir / "a";
  std::string b = dir / "b";
  ReportCapture reports;
};

/// The comparison as it is told: two running checksums, and a look at the bytes in the end.
ssize_t compare_in_steps(const std::string& x, const std::string& y) {
  uint32_t sums[2][2] = {{1, 0}, {1, 0}};
  for (size_t at = 0; at < x.size();) {
    const size_t end = std::min(x.size(), at + 32768);
    for (size_t i = at; i < end; ++i) {
      const unsigned char bytes[2] = {static_cast<unsigned char>(x[i]),
                                      static_cast<unsigned char>(y[i])};
      for (int f = 0; f < 2; ++f) {
        sums[f][0] = (sums[f][0] + bytes[f]) % 65521;
        sums[f][1] = (sums[f][1] + sums[f][0]) % 65521;
      }
    }
    if (sums[0][0] != sums[1][0] || sums[0][1] != sums[1][1]) {
      size_t same = at;
      while (same < end && x[same] == y[same]) ++same;
      return static_cast<ssize_t>(end + same - at);
    }
    at = end;
  }
  return 0;
}

TEST_F(FileContents, ComparesAsTwoRunningChecksumsDo) {
  std::mt19937 random(3);
  std::string x(100000, '\0');
  for (char& c : x) c = static_cast<char>(100 + random() % 50);
  EXPECT_EQ(compare(x, x), 0);
  EXPECT_EQ(compare("", ""), 0);
  EXPECT_EQ(compare("0123x56789", "0123456789"), 14);
  for (int round = 0; round < 60; ++round) {
    std::string y = x;
    const size_t place = random() % (x.size() - 2);
    if (round % 3 != 0) {  // a change that no Adler-32 sees
      y[place] += 1, y[place + 1] -= 2, y[place + 2] += 1;
      if (place % 32768 < 32766) {
        EXPECT_EQ(compare(x, y), 0);
      }
    }
    if (round % 3 != 1) y[random() % x.size()] ^= 3;
    EXPECT_EQ(compare(x, y), compare_in_steps(x, y)) << round;
  }
  EXPECT_EQ(compare(x, x + "x"), -1);
  EXPECT_EQ(errno, 0);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(FileContents, ComparisonsThatCannotBeMadeFail) {
  const std::string x(50000, 'x');
  const auto scenario = [&] {
    const size_t open_before = open_descriptors();
    const ssize_t result = compare(x, x);
    EXPECT_THAT(reports.take(),
                ElementsAreArray(std::vector(result == 0 ? 0 : 1,
                                             error(EIO, "_doCompare: possible I/O error"))));
    if (result != 0) {
      EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(open_descriptors(), open_before);
  };
  EXPECT_EQ((fail_each<"read", ssize_t(int, void*, size_t)>(-1, EIO, scenario)), 6);
  EXPECT_EQ(FileCompare(a.c_str(), (dir / "c").c_str(), 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(reports.take(),
              ElementsAre(warning(ENOENT, "__openReader: could not open file " + dir / "c"),
                          error(ENOENT, "FileCompare: could not open file " + dir / "c")));
  // A file that shrinks while it is read differs from where it ends.
  static std::string shrinking;
  shrinking = b;
  using Read = Hooked<"read", ssize_t(int, void*, size_t)>;
  const Read hook([](int fd, void* buf, size_t size) {
    fs::resize_file(shrinking, 100);
    return Read::real(fd, buf, size);
  });
  EXPECT_EQ(FileCompare(a.c_str(), b.c_str(), 0), 32768 + 100);
}

TEST_F(FileContents, LoadsAllOrAPartIntoANewBufferOrTheCallers) {
  write_file(a, std::string("01234\0006789", 10));
  size_t len = 0;
  const Owned<void> all(FileToBuffer(a.c_str(), nullptr));
  EXPECT_EQ(std::string(static_cast<char*>(all.get()), 10), std::string("01234\0006789", 10));
  const Owned<void> again(FileToBuffer(a.c_str(), &len));
  EXPECT_EQ(len, 10u);
  const Owned<char> part(FileToText(a.c_str(), &(len = 4)));
  EXPECT_STREQ(part.get(), "0123");
  const Owned<char> more(FileToText(a.c_str(), &(len = 30)));
  EXPECT_EQ(len, 10u);
  EXPECT_EQ(more.get()[10], '\0');
  write_file(b, "");
  const Owned<char> empty(FileToText(b.c_str(), &(len = 0)));
  EXPECT_STREQ(empty.get(), "");
  EXPECT_EQ(len, 0u);

  char own[16] = "###############";
  void* buf = own;
  size_t bufsize = 10;
  EXPECT_EQ(FileLoadToBuffer(a.c_str(), 0, &buf, &bufsize), 10);
  EXPECT_EQ(own[10], '#');
  EXPECT_EQ(FileLoadToBuffer(a.c_str(), 3, &buf, &(bufsize = 3)), 3);
  EXPECT_EQ(FileLoadToBuffer(a.c_str(), 0, &(buf = nullptr), &(bufsize = 0)), 10);
  EXPECT_EQ(bufsize, 10u);
  const Owned<void> made(buf);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(FileContents, WhatCannotBeLoadedIsToldAndNothingIsLost) {
  write_file(a, "0123456789");
  char own[9];
  void* buf = own;
  size_t bufsize = sizeof own;
  EXPECT_EQ(FileLoadToBuffer(a.c_str(), 0, &buf, &bufsize), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(FileLoadToBuffer(a.c_str(), 0, nullptr, &bufsize), -1);
  EXPECT_EQ(FileToBuffer((dir / "c").c_str(), nullptr), nullptr);
  EXPECT_EQ(FileToText((dir / "c").c_str(), nullptr), nullptr);
  EXPECT_EQ(FileToText(dir.path().c_str(), nullptr), nullptr);
  EXPECT_EQ(errno, EISDIR);
  size_t len = SIZE_MAX;
  EXPECT_EQ(FileToText(a.c_str(), &len), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  const std::string missing = "__openReader: could not open file " + dir / "c";
  EXPECT_THAT(
      reports.take(),
      ElementsAre(
          error(ENOMEM, "__doLoad: buffer too small"),
          error(EINVAL, "FileLoadToBuffer: invalid NULL parameter"), warning(ENOENT, missing),
          error(ENOENT, "FileToBuffer: could not open file " + dir / "c"), warning(ENOENT, missing),
          error(EISDIR, "__openReader: directory passed as parameter where file was expected"),
          error(ENOMEM, "__doLoad: could not allocate memory")));
  const auto scenario = [&] {
    buf = nullptr, bufsize = 0;
    const ssize_t got = FileLoadToBuffer(a.c_str(), 0, &buf, &bufsize);
    EXPECT_EQ(buf != nullptr, got == 10);
    EXPECT_EQ(bufsize, got == 10 ? 10u : 0u);
    EXPECT_EQ(reports.take().size(), got == 10 ? 0u : 1u);
    std::free(buf);
  };
  EXPECT_EQ(fail_each_malloc(scenario), 1);
  EXPECT_EQ((fail_each<"read", ssize_t(int, void*, size_t)>(-1, EIO, scenario)), 1);
  EXPECT_EQ((fail_each<"lseek", off_t(int, off_t, int)>(-1, ESPIPE, scenario)), 2);
}

TEST_F(FileContents, TemporaryNamesAreFreeAndFallBackToTheWorkingDirectory) {
  const Hooked<"time", time_t(time_t*)> clock([](time_t*) { return time_t{1000}; });
  const auto name = [](const std::string& folder) {
    const Owned<char> made(FileTemp(folder.c_str()));
    return std::string(made == nullptr ? "" : made.get());
  };
  const std::string home = dir.path().string();
  EXPECT_EQ(name(home), home + "/1000.tmp");
  fs::create_symlink("nowhere", home + "/1000.tmp");
  for (int i = 0; i < 98; ++i) {
    EXPECT_EQ(name(home), home + "/1000" + std::to_string(i) + ".tmp");
    write_file(name(home), "");
  }
  EXPECT_EQ(name(home), "");
  EXPECT_EQ(errno, EEXIST);
  const fs::path before = fs::current_path();
  fs::current_path(fs::path("/tmp"));
  EXPECT_EQ(name(home + "/missing").substr(0, 9), "/tmp/1000");
  EXPECT_EQ(name("").substr(0, 9), "/tmp/1000");
  fs::current_path(before);
  EXPECT_THAT(reports.take(), IsEmpty());

  const Hooked<"access", int(const char*, int)> refused([](const char*, int) {
    errno = EACCES;
    return -1;
  });
  EXPECT_EQ(FileTemp(nullptr), nullptr);
  EXPECT_EQ(errno, EACCES);
  EXPECT_THAT(reports.take(), ElementsAre(error(EACCES, "FileTemp: could not access path")));
}

TEST_F(FileContents, SizesReachBeyondThirtyTwoBits) {
  write_file(a, "");
  uint64_t size = 1;
  EXPECT_EQ(is_big(a.c_str()), 0);
  EXPECT_EQ(FileSizeGet(a.c_str(), &size), 0);
  EXPECT_EQ(size, 0u);
  fs::resize_file(a, 2'000'000'000);
  EXPECT_EQ(is_big(a.c_str()), 0);
  fs::resize_file(a, 5'000'000'001);
  EXPECT_EQ(is_big(a.c_str()), 1);
  EXPECT_EQ(FileSizeGet(a.c_str(), &size), 0);
  EXPECT_EQ(size, 5'000'000'001u);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(FileSizeGet(nullptr, &size), -1);
  EXPECT_EQ(FileSizeGet(b.c_str(), &size), -1);
  EXPECT_EQ(is_big(b.c_str()), -1);
  EXPECT_THAT(reports.take(), ElementsAre(error(EINVAL, "FileSizeGet: invalid NULL parameter"),
                                          error(ENOENT, "FileSizeGet: could not stat path " + b),
                                          error(ENOENT, "is_big: could not access path " + b)));
}

}  // namespace
