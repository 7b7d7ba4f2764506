#include <kel/crc.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>

#include "os/scripted_calls.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

using ScriptedWrite = Scripted<"write", ssize_t(int, const void*, size_t)>;
using ScriptedRead = Scripted<"read", ssize_t(int, void*, size_t)>;

constexpr char kName[] = "widget";

std::string because(int code) { return std::strerror(code); }

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
    errno = 0;
    ASSERT_EQ(read_id(), -1);
    ASSERT_EQ(errno, ERANGE);
  }
  EXPECT_EQ(reports.take_texts().front(),
            "ReadId: Invalid CRC value 5242890 in file " + path + ". The file is corrupt.");
  open(kNine.substr(0, 7));
  EXPECT_EQ(read_id(), -1);
  open(kNine);
  EXPECT_EQ(OpenId(path.c_str(), kName, &value, 10), -1);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(error(ENODATA, "ReadId: Could not read widget from file " + path + ": " +
                                     because(ENODATA)),
                  error(ERANGE, "ReadId: Invalid reserved widget value 9 in file " + path +
                                    ". The file is corrupt. Minimum allowed values is 10.")));
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
  errno = 0;
  EXPECT_EQ(next_id(), -1);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(value, 20u);
  EXPECT_THAT(reports.take(), ElementsAre(error(ERANGE, "widget = 11 in file " + path +
                                                            " is inconsistent with 20 in memory (" +
                                                            because(ERANGE) + ")")));
}

TEST_F(IdFile, AWriteThatFailedIsTriedAgainThroughANewDescriptor) {
  open(kNine);
  value = 9;
  ::close(fd);
  fd = ::open(path.c_str(), O_RDONLY);  // takes no writes
  EXPECT_EQ(next_id(), 0);
  EXPECT_EQ(read_file(path), kTen);
  EXPECT_EQ(open_descriptors(), descriptors + 1) << "the old one is closed";
  EXPECT_THAT(
      reports.take(),
      ElementsAre(error(EBADF, "safe_write: write failed"),
                  error(EBADF, "WriteId: Could not update widget in file " + path + " to 10 (" +
                                   because(EBADF) + ")"),
                  Report{KEL_LOG_INFO, -1, "WriteId: reopen file " + path + " successfully."}));

  const auto expect_next = [&](std::initializer_list<Step> script, int code) {
    const ScriptedWrite hook(script);
    EXPECT_EQ(next_id(), code == 0 ? 0 : -1);
    EXPECT_TRUE(code == 0 || errno == code) << errno;
    EXPECT_EQ(value, 11u);
    return reports.take_texts();
  };
  EXPECT_THAT(expect_next({fails(EINTR), at_most(5), fails(EINTR)}, 0), IsEmpty())
      << "signals and short writes are nothing special";
  EXPECT_EQ(expect_next({fails(EIO), fails(ENOSPC)}, ENOSPC).size(), 5u);
  EXPECT_EQ(expect_next({at_most(3), fails(EIO)}, ERANGE).back(),
            "WriteId: Could not reopen widget in file " + path + " (" + because(ERANGE) + ")")
      << "torn: 12 over 11";
  std::filesystem::remove(path);
  const auto texts = expect_next({gives_nothing()}, ENOENT);
  EXPECT_THAT(texts.front(), HasSubstr(because(EIO)));
  EXPECT_THAT(texts.back(), HasSubstr("Could not reopen widget"));
}

TEST_F(IdFile, EveryOtherStepCanFail) {
  open(kNine);
  {
    Fault<"lseek", off_t(int, off_t, int)> fault(1, -1, EIO);
    EXPECT_EQ(read_id(), -1);
  }
  {
    ScriptedRead script({at_most(8), fails(EIO)});
    EXPECT_EQ(read_id(), -1) << "an error is no missing checksum";
  }
  {
    Fault<"fdatasync", int(int)> interrupted(1, -1, EINTR);
    EXPECT_EQ(write_id(9), 0);
    EXPECT_EQ(interrupted.calls(), 2);
    Fault<"fdatasync", int(int)> fault(1, -1, EIO);
    EXPECT_EQ(write_id(9), -1);
  }
  {
    Fault<"close", int(int)> fault(1, -1, EIO);
    EXPECT_EQ(WriteIdToPath((dir / "new").c_str(), kName, 1), -1);
    ::close(fd + 1);  // the one that the fault kept open
  }
  EXPECT_EQ(WriteIdToPath((dir / "no/id").c_str(), kName, 1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(
          error(EIO, "ReadId: Could not seek to begin of file " + path +
                         " to read widget: " + because(EIO)),
          error(EIO, "ReadId: Could not read widget from file " + path + ": " + because(EIO)),
          error(EIO,
                "Could not data sync file " + path + " when widget = 9 (" + because(EIO) + ")"),
          error(EIO, "WriteIdToPath: Could not close the file " + (dir / "new") +
                         " after storing widget 1: " + because(EIO) +
                         ". The file may now be corrupt."),
          error(ENOENT, "WriteIdToPath: Could not create the file " + (dir / "no/id") +
                            " to store widget 1: " + because(ENOENT) + ".")));

  EXPECT_EQ(ReadId("/f", kName, &value, -1, 0), -1);
  EXPECT_EQ(WriteId("/f", kName, 5, nullptr), -1);
  EXPECT_EQ(OpenId(nullptr, kName, &value, 0), -1);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("ReadId: Can not read widget from file /f: Invalid argument",
                          "WriteId: Can not update widget in file /f to 5 (Invalid argument)",
                          "OpenId: invalid NULL parameter"));
}

/// Has the kernel kill this process when the time has passed.
void die_after(std::chrono::nanoseconds time) {
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGKILL;
  timer_t timer;
  const itimerspec once = {{}, {0, time.count()}};
  if (::timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
      ::timer_settime(timer, 0, &once, nullptr) != 0)
    ::_exit(1);
}

// A process counts as fast as it can and is killed, again and again; each next one goes on with
// what the one before left.
TEST_F(IdFile, KilledAtAnyMomentTheFileHoldsAValidId) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr int kRounds = 300;  // a process takes ten times as long to start
#else
  constexpr int kRounds = 3000;
#endif
  // The last id that NextId() said was stored.
  auto* done = static_cast<std::atomic<uint64_t>*>(::mmap(nullptr, sizeof(std::atomic<uint64_t>),
                                                          PROT_READ | PROT_WRITE,
                                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(done, MAP_FAILED);
  // In memory where there is such a place: the process is to be killed in the middle of writing,
  // not while it waits for a disk.
  std::string counter = "/dev/shm/kel-test-" + std::to_string(::getpid());
  if (::access("/dev/shm", W_OK) != 0) counter = path;
  ASSERT_EQ(WriteIdToPath(counter.c_str(), kName, 0), 0);
  std::mt19937 random(4);
  uint64_t last = 0;
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const std::chrono::nanoseconds life(20000 + random() % 300000);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      die_after(life);
      uint64_t id = 0;
      int own = OpenId(counter.c_str(), kName, &id, last);
      while (own >= 0 && NextId(counter.c_str(), kName, &id, &own) == 0) *done = id;
      ::_exit(1);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the process gave up";
    uint64_t id = 0;
    const int own = OpenId(counter.c_str(), kName, &id, *done);
    EXPECT_GE(own, 0);
    EXPECT_LE(id, std::max(*done + 1, last + 1));
    ::close(own);
    last = id;
  }
  EXPECT_GT(last, static_cast<uint64_t>(kRounds));
  ::unlink(counter.c_str());
  ::munmap(done, sizeof *done);
  EXPECT_THAT(reports.take(), IsEmpty());
}

}  // namespace
