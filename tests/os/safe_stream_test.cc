#include <kel/safeio.h>

#include <unistd.h>

#include "os/scripted_calls.h"
#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

constexpr size_t kFailed = static_cast<size_t>(-1);

using ScriptedFread = Scripted<"fread", size_t(void*, size_t, size_t, FILE*)>;
using ScriptedFwrite = Scripted<"fwrite", size_t(const void*, size_t, size_t, FILE*)>;

class SafeStream : public Test {
 protected:
  SafeStream() {
    write_file(path, "0123456789");
    file = std::fopen(path.c_str(), "r+");
  }
  ~SafeStream() override { std::fclose(file); }

  TempDir dir;
  std::string path = dir / "file";
  FILE* file = nullptr;
  char buf[16] = {};
  ReportCapture reports;
};

TEST_F(SafeStream, ReadsGoOnAfterShortAndInterruptedCallsUntilTheEndOfTheFile) {
  ScriptedFread script({fails(EINTR), at_most(3), fails(EINTR), at_most(4)}, 0);
  EXPECT_EQ(safe_fread(file, buf, sizeof buf), 10u);
  EXPECT_STREQ(buf, "0123456789");
  EXPECT_EQ(safe_fread(file, buf, sizeof buf), 0u);
  EXPECT_EQ(safe_fread(file, nullptr, 0), 0u);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(SafeStream, WritesGoOnAfterShortAndInterruptedCalls) {
  ScriptedFwrite script({at_most(2), fails(EINTR), at_most(1)}, 0);
  EXPECT_EQ(safe_fwrite(file, "abcdef", 6), 6u);
  EXPECT_EQ(safe_fflush(file), 0);
  EXPECT_EQ(read_file(path), "abcdef6789");
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(SafeStream, AHardErrorIsReportedWithWhatWasDoneAndWhy) {
  {
    ScriptedFread script({at_most(3), fails(EIO)}, 0);
    EXPECT_EQ(safe_fread(file, buf, 10), kFailed);
    EXPECT_EQ(errno, EIO);
  }
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EIO, "safe_fread: could not read"),
                          error(EIO, std::string("safe_fread could not read from file due to "
                                                 "error: ") +
                                         std::strerror(EIO))));
  {
    ScriptedFwrite script({fails(ENOSPC)}, 0);
    EXPECT_EQ(safe_fwrite(file, "abc", 3), kFailed);
    EXPECT_EQ(errno, ENOSPC);
  }
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENOSPC, "safe_fwrite: could not write"),
                          error(ENOSPC, std::string("safe_fwrite could not write to file due to "
                                                    "error: ") +
                                            std::strerror(ENOSPC))));
}

TEST_F(SafeStream, AStreamWithoutAnOpenDescriptorIsInvalid) {
  FILE* closed_underneath = std::fopen(path.c_str(), "r");
  ::close(::fileno(closed_underneath));
  EXPECT_EQ(safe_fread(closed_underneath, buf, 4), kFailed);
  EXPECT_EQ(errno, EBADF);
  std::fclose(closed_underneath);

  cookie_io_functions_t broken = {};
  broken.write = [](void*, const char*, size_t) -> ssize_t { return 0; };
  FILE* cookie = ::fopencookie(nullptr, "w", broken);  // a stream over no descriptor at all
  std::setvbuf(cookie, nullptr, _IONBF, 0);
  EXPECT_EQ(safe_fwrite(cookie, "abc", 3), kFailed);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(ffsync(cookie), -1);
  EXPECT_EQ(safe_ffsync(cookie), -1);
  EXPECT_EQ(safe_ffdatasync(cookie), -1);
  EXPECT_EQ(fftruncate(cookie, 0), -1);
  std::fclose(cookie);

  const std::string why = std::strerror(EBADF);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(error(EBADF, "safe_fread: invalid stream"),
                  error(EBADF, "safe_fread could not read from file due to error: " + why),
                  error(EBADF, "safe_fwrite: invalid stream"),
                  error(EBADF, "safe_fwrite could not write to file due to error: " + why)));
}

// Which steps a flush makes, and that only the safe forms make them again after a signal.
TEST_F(SafeStream, InterruptedFlushesStartAgainFromTheStream) {
  struct Row {
    int (*flush)(FILE*);
    bool retries;
    long flushes;  // of the stream, when the flush of the descriptor is interrupted once
  };
  for (const Row& row : {Row{safe_ffsync, true, 2}, Row{ffsync, false, 1}}) {
    std::fputc('x', file);
    Fault<"fflush", int(FILE*)> counter(0, EOF, EINTR);
    Fault<"fsync", int(int)> fault(1, -1, EINTR);
    EXPECT_EQ(row.flush(file), row.retries ? 0 : -1);
    EXPECT_EQ(counter.calls(), row.flushes);
  }
  for (const Row& row : {Row{safe_ffdatasync, true, 2}, Row{ffdatasync, false, 1}}) {
    Fault<"fflush", int(FILE*)> counter(0, EOF, EINTR);
    Fault<"fdatasync", int(int)> fault(1, -1, EINTR);
    EXPECT_EQ(row.flush(file), row.retries ? 0 : -1);
    EXPECT_EQ(counter.calls(), row.flushes);
  }
  for (const Row& row :
       {Row{safe_fflush, true, 2}, Row{safe_ffsync, true, 2}, Row{safe_ffdatasync, true, 2},
        Row{ffsync, false, 1}, Row{ffdatasync, false, 1}}) {
    Fault<"fflush", int(FILE*)> fault(1, EOF, EINTR);
    EXPECT_EQ(row.flush(file) == 0, row.retries);
    EXPECT_EQ(fault.calls(), row.flushes);
  }
  Fault<"fflush", int(FILE*)> fault(1, EOF, ENOSPC);
  EXPECT_EQ(safe_fflush(file), EOF);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(SafeStream, OnlySomeRetriesClearTheErrorIndicator) {
  using Fflush = Hooked<"fflush", int(FILE*)>;
  static int calls;
  const auto interrupted_once = [](FILE* stream) {
    if (++calls > 1) return Fflush::real(stream);
    stream->_flags |= 0x20;  // what ferror(3) reads
    errno = EINTR;
    return EOF;
  };
  for (const auto& [flush, clears] : {std::pair<int (*)(FILE*), bool>{safe_fflush, true},
                                      {safe_ffsync, true},
                                      {safe_ffdatasync, false}}) {
    calls = 0;
    const Fflush hook(interrupted_once);
    EXPECT_EQ(flush(file), 0);
    EXPECT_EQ(std::ferror(file) == 0, clears);
    EXPECT_EQ(errno, clears ? 0 : EINTR);
    std::clearerr(file);
  }
}

TEST_F(SafeStream, TruncatesWithoutFlushingFirst) {
  std::fputs("abcdef", file);
  EXPECT_EQ(fftruncate(file, 3), 0);
  EXPECT_EQ(read_file(path), "012");
  EXPECT_EQ(safe_fflush(file), 0);
  EXPECT_EQ(read_file(path), "abcdef");
}

TEST_F(SafeStream, ReadUintTakesTheDigitsAndLeavesTheRest) {
  struct Row {
    const char *text, *digits, *rest;
    size_t capacity;
  };
  for (const Row& row :
       {Row{"123ab", "123", "ab", 10}, Row{"123ab", "12", "3ab", 2}, Row{"7", "7", "", 10},
        Row{"", "", "", 10}, Row{"-1", "", "-1", 10}, Row{"42", "", "42", 0}}) {
    write_file(path, row.text);
    std::rewind(file);
    std::memset(buf, '#', sizeof buf);
    size_t length = 99;
    EXPECT_EQ(fread_uint(file, buf, row.capacity, &length), buf);
    EXPECT_EQ(std::string(buf, length), row.digits);
    EXPECT_EQ(buf[length], '#') << "no terminator";
    char rest[16] = {};
    EXPECT_EQ(std::fread(rest, 1, sizeof rest, file), std::strlen(row.rest));
    EXPECT_STREQ(rest, row.rest);
  }
  EXPECT_EQ(fread_uint(file, buf, 1, nullptr), buf);

  FILE* unreadable = std::fopen(path.c_str(), "a");
  errno = 0;
  EXPECT_EQ(fread_uint(unreadable, buf, sizeof buf, nullptr), nullptr);
  EXPECT_EQ(errno, EIO);
  std::fclose(unreadable);

  write_file(path, "x");
  std::rewind(file);
  Fault<"ungetc", int(int, FILE*)> fault(1, EOF, 0);
  errno = 0;
  EXPECT_EQ(fread_uint(file, buf, sizeof buf, nullptr), nullptr);
  EXPECT_EQ(errno, EIO);
}

}  // namespace
