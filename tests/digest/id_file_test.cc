#include <kel/crc.h>

#include <fcntl.h>
#include <unistd.h>

#include "os/scripted_calls.h"
#include "support/kill.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

using ScriptedWrite = Scripted<"write", ssize_t(int, const void*, size_t)>;
using ScriptedRead = Scripted<"read", ssize_t(int, void*, size_t)>;

constexpr char kName[] = "widget";

/// The bytes of a file that holds 0, 9 or 10, worked out by hand from RFC 1950.
const std::string kZero("\0\0\0\0\0\0\0\0\x01\0\x08\0", 12);
const std::string kNine("\x09\0\0\0\0\0\0\0\x0a\0\x50\0", 12);
const std::string kTen("\x0a\0\0\0\0\0\0\0\x0b\0\x58\0", 12);

class IdFile : public ::testing::Test {
 protected:
  ~IdFile() override {
    if (fd >= 0) ::close(fd);
    EXPECT_EQ(open_descriptors(), descriptors);
  }
  void open(const std::string& contents) {
    if (fd >= 0) ::close(fd);
    write_file(path, contents);
    fd = ::open(path.c_str(), O_RDWR);
  }
  int read_id(uint64_t minimum = 0) { return ReadId(path.c_str(), kName, &value, fd, minimum); }
  int write_id(uint64_t id) { return WriteId(path.c_str(), kName, id, &fd); }
  int next_id() { return NextId(path.c_str(), kName, &value, &fd); }

  size_t descriptors = open_descriptors();
  TempDir dir;
  std::string path = dir / "id";
  int fd = -1;
  uint64_t value = 77;
  ReportCapture reports;
};

TEST_F(IdFile, IsTwelveBytesWhoseChecksumIsCheckedWhenItIsThere) {
  ASSERT_EQ(WriteIdToPath(path.c_str(), kName, 0), 0);
  EXPECT_EQ(read_file(path), kZero);
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  write_file(path, std::string(100, 'x'));
  ASSERT_EQ(WriteIdToPath(path.c_str(), kName, 9), 0);
  EXPECT_EQ(read_file(path), kNine);

  for (const size_t size : {8, 9, 11, 12}) {
    open(kNine.substr(0, size));
    EXPECT_EQ(read_id(9), 0) << size;
    EXPECT_EQ(value, 9u);
  }
  open(kNine + "more");
  EXPECT_EQ(read_id(), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(IdFile, RefusesWhatIsDamagedTooShortOrTooSmall) {
  for (size_t bit = 0; bit < 96; ++bit) {
    std::string damaged = kNine;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
    open(damaged);
    expect_refused(reports, ERANGE, {[&] { return read_id() == -1; }});
  }
  open(kNine.substr(0, 7));
  expect_refused(reports, ENODATA, {[&] { return read_id() == -1; }});
  open(kNine);
  expect_refused(reports, ERANGE, {[&] { return OpenId(path.c_str(), kName, &value, 10) == -1; }});
}

TEST_F(IdFile, CountsAndReadsEveryTenthBack) {
  ASSERT_EQ(WriteIdToPath(path.c_str(), kName, 8), 0);
  fd = OpenId(path.c_str(), kName, &value, 8);
  ASSERT_GE(fd, 0);
  ScriptedRead reads({});
  EXPECT_EQ(next_id(), 0);
  EXPECT_EQ(reads.calls(), 0);
  EXPECT_EQ(read_file(path), kNine);
  EXPECT_EQ(next_id(), 0);
  EXPECT_EQ(reads.calls(), 1);
  EXPECT_EQ(read_file(path), kTen);
  EXPECT_EQ(next_id(), 0);
  EXPECT_EQ(reads.calls(), 1);
  EXPECT_EQ(value, 11u);

  // A disk that forgets: what is read back is not what was written.
  value = 19;
  const Hooked<"write", ssize_t(int, const void*, size_t)> hook(
      [](int, const void*, size_t count) { return static_cast<ssize_t>(count); });
  expect_refused(reports, ERANGE, {[&] { return next_id() == -1; }});
  EXPECT_EQ(value, 20u);
}

TEST_F(IdFile, AWriteThatFailedIsTriedAgainThroughANewDescriptor) {
  open(kNine);
  value = 9;
  ::close(fd);
  fd = ::open(path.c_str(), O_RDONLY);  // takes no writes
  EXPECT_EQ(next_id(), 0);
  EXPECT_EQ(read_file(path), kTen);
  EXPECT_EQ(open_descriptors(), descriptors + 1) << "the old one is closed";
  EXPECT_EQ(reports.take().back().level, KEL_LOG_INFO) << "a new one was found";

  const auto expect_next = [&](std::initializer_list<Step> script, int code) {
    const ScriptedWrite hook(script);
    EXPECT_EQ(next_id(), code == 0 ? 0 : -1);
    EXPECT_TRUE(code == 0 || errno == code) << errno;
    EXPECT_EQ(value, 11u);
    return reports.take().size();
  };
  EXPECT_EQ(expect_next({fails(EINTR), at_most(5), fails(EINTR)}, 0), 0u)
      << "signals and short writes are nothing special";
  EXPECT_EQ(expect_next({fails(EIO), fails(ENOSPC)}, ENOSPC), 5u);
  EXPECT_GT(expect_next({at_most(3), fails(EIO)}, ERANGE), 0u) << "torn: 12 over 11";
  std::filesystem::remove(path);
  EXPECT_GT(expect_next({gives_nothing()}, ENOENT), 0u);
}

TEST_F(IdFile, EveryOtherStepCanFail) {
  open(kNine);
  using Sync = Fault<"fdatasync", int(int)>;
  const std::string fresh = dir / "new", nowhere = dir / "no/id";
  expect_refused(reports, EIO,
                 {[&] { return Fault<"lseek", off_t(int, off_t, int)>(1, -1, EIO), read_id(); },
                  // An error is no missing checksum.
                  [&] {
                    return ScriptedRead({at_most(8), fails(EIO)}), read_id();
                  },
                  [&] { return Sync(1, -1, EIO), write_id(9); },
                  [&] {
                    const Fault<"close", int(int)> fault(1, -1, EIO);
                    return WriteIdToPath(fresh.c_str(), kName, 1);
                  }});
  ::close(fd + 1);  // the one that the fault kept open
  Sync interrupted(1, -1, EINTR);
  EXPECT_EQ(write_id(9), 0);
  EXPECT_EQ(interrupted.calls(), 2);
  expect_refused(reports, ENOENT, {[&] { return WriteIdToPath(nowhere.c_str(), kName, 1); }});
  expect_refused(reports, EINVAL,
                 {[&] { return ReadId("/f", kName, &value, -1, 0); },
                  [&] { return WriteId("/f", kName, 5, nullptr); },
                  [&] { return OpenId(nullptr, kName, &value, 0) == -1; }});
}

TEST_F(IdFile, KilledAtAnyStepTheFileHoldsTheOldOrTheNewId) {
  write_file(path, kNine);
  const auto count = [&] {
    fd = OpenId(path.c_str(), kName, &value, 0);
    next_id();
  };
  const auto check = [&] {
    EXPECT_THAT(read_file(path), AnyOf(kNine, kTen));
    write_file(path, kNine);
  };
  kill_at_each<"write", ssize_t, int, const void*, size_t>(count, check);
  kill_at_each<"fdatasync", int, int>(count, check);
}

}  // namespace
