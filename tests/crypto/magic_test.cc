#include <kel/magic.h>

#include <fcntl.h>
#include <unistd.h>

#include "support/test.h"

namespace {

using namespace kel::testing;

// Flags 0x4020, block size 143360.
const std::string kHeader("KEL \x40\x20\0\0\0\0\0\x02\x30\0", KEL_MAGIC_SIZE);
const std::string kNoFlags("KEL \0\0\0\0\0\0\0\x02\x30\0", KEL_MAGIC_SIZE);

class Magic : public ::testing::Test {
 protected:
  /// A descriptor on a file with `contents`, at its start; closed by the fixture.
  int open_with(const std::string& contents) {
    write_file(path, contents);
    if (fd >= 0) ::close(fd);
    return fd = ::open(path.c_str(), O_RDWR);
  }
  ~Magic() override {
    if (fd >= 0) ::close(fd);
  }

  TempDir dir;
  std::string path = dir / "archive";
  int fd = -1;
  uint64_t size = 77;
  ReportCapture reports;
};

TEST_F(Magic, WritersProduceTheSameFourteenBytesOrFail) {
  char buf[KEL_MAGIC_SIZE + 1] = {};
  EXPECT_EQ(kelMagicMake(0x4020, buf, KEL_MAGIC_SIZE, 143360), 14);
  EXPECT_EQ(std::string(buf, sizeof buf), kHeader + '\0');
  EXPECT_EQ(kelMagicWrite(0x4020, open_with(""), 143360), 14);
  EXPECT_EQ(read_file(path), kHeader);
  FILE* file = std::fopen(path.c_str(), "w");
  EXPECT_EQ(kelMagicFwrite(0x4020, file, 143360), 14);
  std::fclose(file);
  EXPECT_EQ(read_file(path), kHeader);

  for (const auto& [place, length] : {std::pair<void*, int>{buf, 13}, {nullptr, 14}, {buf, -1}})
    EXPECT_EQ(kelMagicMake(1, place, length, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  FILE* unwritable = std::fopen("/dev/full", "w");
  std::setvbuf(unwritable, nullptr, _IONBF, 0);
  EXPECT_EQ(kelMagicFwrite(1, unwritable, 0), -1);
  EXPECT_THAT(reports.take(), IsEmpty());
  expect_refused(reports, ENOSPC,
                 {[&] { return kelMagicWrite(1, ::fileno(unwritable), 0) == -1; }});
  std::fclose(unwritable);
}

// Every reader over the same contents.
TEST_F(Magic, ReadersAgreeOnWhatAFileHolds) {
  struct Row {
    std::string contents;
    int result;
    int from_read2;
  };
  for (const Row& row :
       {Row{kHeader, 0x4020, 0x4020}, Row{kHeader + "payload", 0x4020, 0x4020},
        Row{kHeader.substr(0, 13), -1, -2}, Row{"", -1, -2}, Row{"KEL\t" + kHeader.substr(4), 0, 0},
        Row{kNoFlags, -2, -2}, Row{"KEL \xff\xff" + std::string(8, '\xff'), 0xffff, 0xffff}}) {
    const uint64_t expected = row.result == 0x4020 ? 143360 : row.result > 0 ? UINT64_MAX : 77;
    const auto expect = [&](int got, int result) {
      EXPECT_EQ(got, result);
      EXPECT_EQ(size, expected);
      size = 77;
    };
    const size_t open_before = open_descriptors();
    write_file(path, row.contents);
    expect(kelMagicDecode(path.c_str(), nullptr, 0, &size), row.result);
    EXPECT_EQ(open_descriptors(), open_before);
    open_with(row.contents);
    ::lseek(fd, 3, SEEK_SET);
    expect(kelMagicRead(fd, &size), row.result);
    ::lseek(fd, 0, SEEK_SET);
    expect(kelMagicRead2(fd, &size, 0), row.from_read2);
    FILE* file = std::fopen(path.c_str(), "r");
    std::fgetc(file);
    expect(kelMagicFread(file, &size), row.result);
    std::fclose(file);
    if (row.contents.size() >= KEL_MAGIC_SIZE) {
      const int length = static_cast<int>(row.contents.size());
      expect(kelMagicDecode(nullptr, row.contents.data(), length, &size), row.result);
      expect(kelMagicFromBuffer(row.contents.data(), &size), row.result);
      EXPECT_EQ(kelMagicFromBuffer(row.contents.data(), nullptr), row.result);
    }
  }
}

TEST_F(Magic, Read2ReadsWhereTheDescriptorIsAndCanGoBack) {
  open_with("12345" + kHeader + "x");
  ::lseek(fd, 5, SEEK_SET);
  EXPECT_EQ(kelMagicRead2(fd, nullptr, 1), 0x4020);
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 5);
  EXPECT_EQ(kelMagicRead2(fd, nullptr, 0), 0x4020);
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 19);
  // Standard input is good enough for this reader, and for no other.
  const int saved = ::dup(0);
  ::lseek(fd, 5, SEEK_SET);
  ::dup2(fd, 0);
  EXPECT_EQ(kelMagicRead2(0, &size, 0), 0x4020);
  ::dup2(saved, 0);
  ::close(saved);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Magic, MisuseIsReported) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], kHeader.data(), KEL_MAGIC_SIZE), KEL_MAGIC_SIZE);
  EXPECT_EQ(kelMagicRead(ends[0], &size), -1) << "a pipe has no beginning to go to";
  expect_refused(reports, ESPIPE, {[&] { return kelMagicRead2(ends[0], &size, 1) == -2; }});
  ::close(ends[0]);
  ::close(ends[1]);
  expect_refused(reports, EBADF,
                 {[&] { return kelMagicRead(0, &size) == 0; },
                  [&] { return kelMagicRead2(-1, &size, 0) == 0; },
                  [&] { return kelMagicFread(nullptr, &size) == 0; }});
  expect_refused(reports, EINVAL, {[&] { return !kelMagicDecode(nullptr, nullptr, 14, &size); }});
  expect_refused(reports, ENODATA, {[&] { return !kelMagicDecode(nullptr, nullptr, 13, &size); }});
  Fault<"read", ssize_t(int, void*, size_t)> fault(1, -1, EIO);
  expect_refused(reports, EIO, {[&] { return kelMagicRead2(open_with(kHeader), &size, 0) == -2; }});
  EXPECT_EQ(size, 77u);
}

TEST_F(Magic, FilesThatCannotBeReadAreNotReported) {
  write_file(path, "short");
  for (const auto& [file, code] :
       {std::pair{path + "?", ENOENT}, {dir.path().string(), EISDIR}, {path, ENODATA}}) {
    EXPECT_EQ(kelMagicDecode(file.c_str(), nullptr, 0, &size), -1);
    EXPECT_EQ(errno, code);
  }
  const File unreadable(std::fopen(path.c_str(), "a"));
  EXPECT_EQ(kelMagicFread(unreadable.get(), &size), -1);
  EXPECT_EQ(errno, EBADF);
  Fault<"read", ssize_t(int, void*, size_t)> interrupted(1, -1, EINTR);
  write_file(path, kHeader);
  EXPECT_EQ(kelMagicDecode(path.c_str(), nullptr, 0, &size), 0x4020);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Magic, CryptSettingsComeFromTheFlags) {
  const auto settings = [](const std::string& header) {
    int encrypted = 5, compressed = 5;
    const auto length = static_cast<unsigned>(header.size());
    const int flags = kelMagicGetCryptSettings(header.data(), length, &encrypted, &compressed);
    EXPECT_EQ(kelMagicGetCryptSettings(header.data(), length, nullptr, nullptr), flags);
    return std::tuple(flags, encrypted, compressed);
  };
  for (const auto& [flags, encrypted, compressed] :
       {std::tuple{1, 0, 0}, {2, 1, 0}, {4, 1, 0}, {8, 0, 0}, {16, 0, 1}, {0x5222, 1, 1}}) {
    std::string header(KEL_MAGIC_SIZE, 0);
    kelMagicMake(flags, header.data(), KEL_MAGIC_SIZE, 4096);
    EXPECT_EQ(settings(header), std::tuple(flags, encrypted, compressed));
  }
  EXPECT_EQ(settings(kNoFlags), std::tuple(-2, 5, 5));
  EXPECT_EQ(settings(kHeader.substr(1)), std::tuple(-1, 5, 5));
}

TEST_F(Magic, DescriptionsListTheFlagsInTheirOrder) {
  EXPECT_STREQ(kelMagicDesc(0, 0), "Not a KEL archive ");
  EXPECT_STREQ(kelMagicDesc(-2, 0), "- Possibly Corrupted KEL archive");
  EXPECT_STREQ(kelMagicDesc(0x5222, 3),
               "AES-256-CTR Encrypted archive 256bit key LZO Compressed Streamable, v2");
  EXPECT_STREQ(kelMagicDesc(0x0002, 4), "Unknown Encrypted archive ");
  EXPECT_STREQ(kelMagicDesc(0x8200, 1), "");
  EXPECT_THAT(kelMagicDesc(0xffff, 1), AllOf(StartsWith("AES-256-CFB Encrypted archive Plugin"),
                                             EndsWith("Spooler log Streamable, v2")));
  errno = ENOENT;
  EXPECT_STREQ(kelMagicDesc(-1, 0), "Error: No such file or directory");
}

TEST_F(Magic, EveryHeaderComesBack) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 10000; ++round) {
    const int flags = 1 + static_cast<int>(random() % 0xffff);
    const uint64_t block_size = random() >> random() % 64;
    char header[KEL_MAGIC_SIZE];
    ASSERT_EQ(kelMagicMake(flags, header, sizeof header, block_size), 14);
    ASSERT_EQ(kelMagicFromBuffer(header, &size), flags);
    ASSERT_EQ(size, block_size);
  }
}

}  // namespace
