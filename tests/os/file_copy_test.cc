#include <kel/file.h>

#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <numeric>
#include <set>

#include "os/scripted_calls.h"
#include "support/mount_space.h"
#include "support/test.h"

namespace {

namespace fs = std::filesystem;

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

std::string some_bytes(size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random() % 9 == 0 ? random() : 'a');
  return bytes;
}

uint32_t adler(const std::string& bytes) {
  uint32_t a = 1, b = 0;
  for (const unsigned char c : bytes) b = (b + (a = (a + c) % 65521)) % 65521;
  return b << 16 | a;
}

/// What a command prints.
std::string output_of(const std::string& command) {
  std::string text;
  FILE* pipe = ::popen(command.c_str(), "r");
  for (int c; (c = std::getc(pipe)) != EOF;) text += static_cast<char>(c);
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return text;
}

std::string last_md5() {
  char text[33];
  EXPECT_EQ(FileGetStringMD5(text, sizeof text), text);
  return text;
}

class FileCopying : public Test {
 protected:
  ~FileCopying() override { FileSetOptions(KEL_FILE_PLAIN); }

  ssize_t copy(int options, unsigned mode = 0) {
    EXPECT_EQ(FileSetOptions(options), 1);
    return FileCopy(from.c_str(), to.c_str(), mode);
  }
  /// A copy that fails with `code` and leaves nothing; the reports.
  std::vector<Report> failed_copy(int options, int code) {
    const size_t open_before = open_descriptors();
    errno = 0;
    EXPECT_EQ(copy(options), -1);
    EXPECT_EQ(errno, code);
    EXPECT_FALSE(fs::exists(to));
    EXPECT_EQ(open_descriptors(), open_before);
    return reports.take();
  }

  TempDir dir;
  std::string from = dir / "from";
  std::string to = dir / "to";
  ReportCapture reports;
};

TEST_F(FileCopying, EveryOptionValueGivesWhatThePeersGiveOrIsRefused) {
  const std::set<int> usable = {1, 2, 4, 6, 16, 18, 20, 22, 32, 34, 36, 38};
  for (const size_t size : {size_t{0}, size_t{1}, size_t{32768}, size_t{100000}}) {
    const std::string bytes = some_bytes(size);
    const std::string plain = dir / "plain", packed = dir / "packed";
    write_file(plain, bytes);
    output_of("gzip -c " + plain + " > " + packed);
    const std::string md5 = output_of("md5sum < " + plain).substr(0, 32);
    for (int options = 0; options < 80; ++options) {
      const bool compresses = (options & 16) != 0, uncompresses = (options & 32) != 0;
      if (compresses && uncompresses) continue;
      from = uncompresses ? packed : plain;
      if (!usable.contains(options)) {
        EXPECT_THAT(failed_copy(options, EINVAL),
                    ElementsAre(error(EINVAL, "_doCopy: invalid input: " + std::to_string(options)),
                                error(EINVAL, "FileCopy: copy failed")));
        continue;
      }
      EXPECT_EQ(copy(options), static_cast<ssize_t>(size));
      EXPECT_EQ(compresses ? output_of("gzip -dc " + to) : read_file(to), bytes);
      if ((options & 2) != 0) {
        EXPECT_EQ(last_md5(), md5);
      }
      if ((options & 4) != 0) {
        EXPECT_EQ(FileGetValueCRC(), adler(bytes));
      }
      fs::remove(to);
    }
  }
  EXPECT_EQ(FileSetOptions(48), 0);
  EXPECT_EQ(errno, EINVAL);
  char small[32];
  EXPECT_EQ(FileGetStringMD5(small, sizeof small), nullptr);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EINVAL,
                                "FileSetOptions: cannot have compress and uncompress set at "
                                "the same time"),
                          error(EINVAL, "MD5GetString_r: invalid NULL parameter")));
}

TEST_F(FileCopying, NothingIsOverwrittenAndDirectoriesAreNoFiles) {
  const mode_t before = ::umask(022);
  write_file(from, "new");
  write_file(to, "old");
  EXPECT_EQ(copy(1), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read_file(to), "old");
  fs::remove(to);
  EXPECT_EQ(copy(1, 0666), 3);
  struct stat status;
  ::stat(to.c_str(), &status);
  EXPECT_EQ(status.st_mode & 0777, 0644u);
  fs::remove(to);
  ::umask(before);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EEXIST, "FileCopy: could not open destination file " + to)));

  from = dir.path().string();
  EXPECT_THAT(
      failed_copy(1, EISDIR),
      ElementsAre(
          error(EISDIR, "__openReader: directory passed as parameter where file was expected"),
          error(EISDIR, "FileCopy: could not open reader source " + from)));
  from = dir / "missing";
  EXPECT_THAT(failed_copy(1, ENOENT),
              ElementsAre(warning(ENOENT, "__openReader: could not open file " + from),
                          error(ENOENT, "FileCopy: could not open reader source " + from)));
  EXPECT_EQ(FileCopy(nullptr, "x", 0), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(FileCopying, UncompressingTakesWhatGzipTakesAndNothingDamaged) {
  const std::string a = some_bytes(50000), b = some_bytes(70000);
  write_file(dir / "a", a);
  write_file(dir / "b", b);
  output_of("cd " + dir.path().string() + " && (gzip -c a; gzip -9c b) > from");
  EXPECT_EQ(copy(34), 120000);
  EXPECT_EQ(read_file(to), a + b);
  fs::remove(to);
  const std::string md5 = last_md5(), whole = read_file(from);

  write_file(from, "plain");
  EXPECT_EQ(copy(32), 5);
  EXPECT_EQ(read_file(to), "plain");
  fs::remove(to);
  EXPECT_THAT(reports.take(), IsEmpty());

  std::string flipped = whole;
  flipped[whole.size() / 2] ^= 0x10;
  for (const std::string& damaged :
       {whole.substr(0, whole.size() - 1), whole.substr(0, whole.size() / 3), flipped}) {
    write_file(from, damaged);
    EXPECT_THAT(failed_copy(34, EIO),
                ElementsAre(error(EIO, "_doCopy: encountered read/write errors"),
                            error(EIO, "FileCopy: copy failed")));
  }
  EXPECT_EQ(last_md5(), md5);  // that of the last copy that succeeded
}

TEST_F(FileCopying, WhatTheKernelDoesNotMoveIsMovedInBlocks) {
  const std::string bytes = some_bytes(100000);
  write_file(from, bytes);
  using KernelCopy = Hooked<"copy_file_range", ssize_t(int, off_t*, int, off_t*, size_t, unsigned)>;
  static int pieces;
  for (const int moved_before : {0, 1, 3}) {
    pieces = moved_before;
    const KernelCopy hook([](int in, off_t* at, int out, off_t* there, size_t, unsigned flags) {
      if (pieces-- > 0) return KernelCopy::real(in, at, out, there, 1000, flags);
      errno = EXDEV;
      return ssize_t{-1};
    });
    EXPECT_EQ(copy(1), 100000);
    EXPECT_EQ(read_file(to), bytes);
    fs::remove(to);
  }
  from = "/proc/self/maps";  // has no size, which the kernel takes for the end
  EXPECT_GT(copy(1), 1000);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(FileCopying, ShortTransfersAreCompletedAndATargetThatTakesNothingEndsTheCopy) {
  write_file(from, some_bytes(40000));
  {
    Scripted<"read", ssize_t(int, void*, size_t)> reads({fails(EINTR), at_most(7), at_most(100)});
    Scripted<"write", ssize_t(int, const void*, size_t)> writes({at_most(3), fails(EINTR)});
    EXPECT_EQ(copy(4), 40000);
  }
  EXPECT_EQ(read_file(to), read_file(from));
  EXPECT_EQ(FileGetValueCRC(), adler(read_file(from)));
  fs::remove(to);
  Scripted<"write", ssize_t(int, const void*, size_t)> writes({at_most(32768), gives_nothing()});
  EXPECT_EQ(copy(4), 32768);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(FileCopying, EveryFailingCallFailsTheCopyAndLeavesNothing) {
  const std::string bytes = some_bytes(70000);
  const std::string plain = from, packed = dir / "packed";
  write_file(plain, bytes);
  output_of("gzip -c " + plain + " > " + packed);
  for (const int options : {1, 6, 16, 32}) {
    from = options == 32 ? packed : plain;
    const auto scenario = [&] {
      const size_t open_before = open_descriptors();
      if (copy(options) >= 0) {
        EXPECT_EQ(options == 16 ? output_of("gzip -dc " + to) : read_file(to), bytes);
        EXPECT_THAT(reports.take(), IsEmpty());
        fs::remove(to);
      } else {
        EXPECT_EQ(errno, EIO);
        EXPECT_FALSE(fs::exists(to));
        EXPECT_THAT(reports.take_texts(), Contains(StartsWith("FileCopy: co")));
      }
      EXPECT_EQ(open_descriptors(), open_before);
    };
    EXPECT_EQ((fail_each<"open", int(const char*, int, mode_t)>(-1, EIO, scenario)), 2);
    EXPECT_EQ((fail_each<"fstat", int(int, struct stat*)>(-1, EIO, scenario)), 1);
    EXPECT_EQ((fail_each<"fsync", int(int)>(-1, EIO, scenario)), 1);
    if (options != 32) {
      EXPECT_GE((fail_each<"read", ssize_t(int, void*, size_t)>(-1, EIO, scenario)), 1);
    }
    if (options != 16 && options != 1) {
      EXPECT_GE((fail_each<"write", ssize_t(int, const void*, size_t)>(-1, EIO, scenario)), 1);
    }
    if (options >= 16) {
      EXPECT_EQ((fail_each<"fcntl", int(int, int, int)>(-1, EIO, scenario)), 1);
    }
  }
  from = plain;
  static int closes_left;
  using Close = Hooked<"close", int(int)>;
  closes_left = 1;  // the target's comes first
  const Close hook([](int fd) {
    const int result = Close::real(fd);
    if (closes_left-- != 1) return result;
    errno = EIO;
    return -1;
  });
  EXPECT_THAT(failed_copy(1, EIO), ElementsAre(error(EIO, "_doCopy: encountered other errors"),
                                               error(EIO, "FileCopy: copy failed")));
}

TEST_F(FileCopying, AFullDiskFailsEveryKindOfCopy) {
  MountSpace space;
  if (!space.allowed()) GTEST_SKIP() << "mounting is not allowed";
  space.memory(dir / "small", "64k");
  std::string bytes(100000, '\0');
  std::mt19937 random(1);
  for (char& c : bytes) c = static_cast<char>(random());
  write_file(dir / "plain", bytes);
  output_of("gzip -c " + dir / "plain" + " > " + dir / "packed");
  to = dir / "small/to";
  for (const int options : {1, 6, 18, 32}) {
    from = dir / (options == 32 ? "packed" : "plain");
    const auto seen = failed_copy(options, ENOSPC);
    EXPECT_THAT(seen, Contains(error(ENOSPC, "_doCopy: encountered read/write errors")));
    EXPECT_EQ(seen.front() == error(ENOSPC, "safe_write: write failed"), options != 18);
  }
}

TEST_F(FileCopying, InApprovedModeTheChecksumIsTakenAndMd5OnlyWarns) {
  write_file(from, some_bytes(100000));
  EXPECT_EQ(copy(2), 100000);
  const std::string before = last_md5();
  fs::remove(to);
  write_file(from, some_bytes(100001));
  const Hooked<"EVP_default_properties_is_fips_enabled", int(OSSL_LIB_CTX*)> approved(
      [](OSSL_LIB_CTX*) { return 1; });
  EXPECT_EQ(copy(6), 100001);
  EXPECT_EQ(FileGetValueCRC(), adler(read_file(from)));
  EXPECT_EQ(last_md5(), before);
  const Report append = warning(-1, "MD5Append should not be used in FIPS mode");
  EXPECT_THAT(
      reports.take(),
      ElementsAre(warning(-1, "MD5Initialize should not be used in FIPS mode"), append, append,
                  append, append, warning(-1, "MD5Finalize should not be used in FIPS mode")));
}

}  // namespace
