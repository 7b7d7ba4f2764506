#include <kel/safeio.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>

#include "os/scripted_calls.h"
#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;

class SafeIo : public Test {
 protected:
  SafeIo() {
    write_file(path, "0123456789");
    fd = ::open(path.c_str(), O_RDWR);
  }
  ~SafeIo() override { ::close(fd); }

  TempDir dir;
  std::string path = dir / "file";
  int fd = -1;
  char buf[16] = {};
  ReportCapture reports;
};

TEST_F(SafeIo, BuffersThatCannotBeAreRefusedAndNothingIsMovedForNoCount) {
  const size_t too_much = static_cast<size_t>(SSIZE_MAX) + 1;
  EXPECT_EQ(safe_read(-1, nullptr, 0), 0);
  EXPECT_EQ(safe_write(-1, nullptr, 0), 0);
  EXPECT_EQ(safe_pread(-1, nullptr, 0, 0), 0);
  EXPECT_EQ(safe_pwrite(-1, nullptr, 0, 0), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
  for (const auto& [place, count] : {std::pair<void*, size_t>{nullptr, 5}, {buf, too_much}}) {
    for (int which = 0; which < 4; ++which) {
      errno = 0;
      EXPECT_EQ(which == 0   ? safe_read(fd, place, count)
                : which == 1 ? safe_write(fd, place, count)
                : which == 2 ? safe_pread(fd, place, count, 0)
                             : safe_pwrite(fd, place, count, 0),
                -1);
      EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_THAT(reports.take(), ElementsAre(error(22, "safe_read: invalid buffer"),
                                            error(22, "safe_write: invalid buffer"),
                                            error(22, "safe_pread: invalid buffer")));
  }
}

TEST_F(SafeIo, ReadsGoOnAfterShortAndInterruptedCallsUntilTheEndOfTheFile) {
  {
    Scripted<"read", ssize_t(int, void*, size_t)> script(
        {fails(EINTR), at_most(3), fails(EINTR), fails(EINTR), at_most(4)});
    EXPECT_EQ(safe_read(fd, buf, sizeof buf), 10);
    EXPECT_STREQ(buf, "0123456789");
    EXPECT_EQ(script.calls(), 7);  // the last of them met the end of the file
  }
  EXPECT_EQ(safe_read(fd, buf, sizeof buf), 0);

  Scripted<"pread", ssize_t(int, void*, size_t, off_t)> script(
      {at_most(2), fails(EINTR), at_most(1)});
  char part[7] = {};
  EXPECT_EQ(safe_pread(fd, part, 6, 3), 6);
  EXPECT_STREQ(part, "345678");
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 10);
}

TEST_F(SafeIo, WritesGoOnAfterShortAndInterruptedCalls) {
  {
    Scripted<"write", ssize_t(int, const void*, size_t)> script(
        {at_most(1), fails(EINTR), at_most(2)});
    EXPECT_EQ(safe_write(fd, "abcde", 5), 5);
  }
  {
    Scripted<"pwrite", ssize_t(int, const void*, size_t, off_t)> script(
        {at_most(2), fails(EINTR), at_most(1)});
    EXPECT_EQ(safe_pwrite(fd, "WXYZ", 4, 6), 4);
  }
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 5);
  EXPECT_EQ(read_file(path), "abcde5WXYZ");
  // A device that takes nothing more ends a write with a short count.
  Scripted<"write", ssize_t(int, const void*, size_t)> script({at_most(3), gives_nothing()});
  EXPECT_EQ(safe_write(fd, "abcde", 5), 3);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(SafeIo, AHardErrorEndsATransferAndOnlyAWriteReportsIt) {
  {
    Scripted<"read", ssize_t(int, void*, size_t)> script({at_most(3), fails(EIO)});
    EXPECT_EQ(safe_read(fd, buf, 10), -1);
    EXPECT_EQ(errno, EIO);
  }
  errno = 0;
  EXPECT_EQ(safe_pread(-1, buf, 1, 0), -1);
  EXPECT_EQ(errno, EBADF);
  errno = 0;
  EXPECT_EQ(safe_pwrite(-1, buf, 1, 0), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_THAT(reports.take(), IsEmpty());

  Scripted<"write", ssize_t(int, const void*, size_t)> script({at_most(3), fails(ENOSPC)});
  EXPECT_EQ(safe_write(fd, "abcde", 5), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOSPC, "safe_write: write failed")));
}

TEST_F(SafeIo, FlushesAreRepeatedWhileASignalInterruptsThem) {
  {
    Fault<"fsync", int(int)> fault(1, -1, EINTR);
    EXPECT_EQ(safe_fsync(fd), 0);
    EXPECT_EQ(fault.calls(), 2);
  }
  {
    Fault<"fdatasync", int(int)> fault(1, -1, EINTR);
    EXPECT_EQ(safe_fdatasync(fd), 0);
    EXPECT_EQ(fault.calls(), 2);
  }
  {
    Fault<"ftruncate", int(int, off_t)> fault(1, -1, EINTR);
    EXPECT_EQ(safe_ftruncate(fd, 4), 0);
    EXPECT_EQ(fault.calls(), 2);
  }
  EXPECT_EQ(read_file(path), "0123");
  EXPECT_EQ(safe_fsync(-1), -1);
  EXPECT_EQ(safe_fdatasync(-1), -1);
  EXPECT_EQ(safe_ftruncate(fd, -1), -1);
  EXPECT_EQ(errno, EINVAL);
}

std::atomic<int> signals_seen;

// Data come only after three signals have found the reader waiting.
TEST_F(SafeIo, RealSignalsDoNotReachTheCallerOfABlockedRead) {
  struct sigaction action = {}, before = {};
  action.sa_handler = [](int) { ++signals_seen; };  // no SA_RESTART: read(2) fails with EINTR
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  for (const bool through_socket : {false, true}) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    signals_seen = 0;
    std::thread other([reader = ::pthread_self(), &ends] {
      for (int sent = 0; sent < 3; ++sent) {
        while (signals_seen < sent) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        ::pthread_kill(reader, SIGUSR1);
      }
      while (signals_seen < 3) std::this_thread::yield();
      EXPECT_EQ(::write(ends[1], "abc", 3), 3);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      EXPECT_EQ(::write(ends[1], "defgh", 5), 5);
    });
    char got[9] = {};
    EXPECT_EQ(through_socket ? read_n_bytes(ends[0], got, 8) : safe_read(ends[0], got, 8), 8);
    EXPECT_STREQ(got, "abcdefgh");
    other.join();
    ::close(ends[0]);
    ::close(ends[1]);
  }
  ::sigaction(SIGUSR1, &before, nullptr);
  EXPECT_THAT(reports.take(), IsEmpty());
}

class SafeSocket : public Test {
 protected:
  SafeSocket() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
  ~SafeSocket() override {
    close_peer();
    ::close(ends[0]);
  }
  void close_peer() {
    if (ends[1] >= 0) ::close(ends[1]);
    ends[1] = -1;
  }

  int ends[2] = {-1, -1};
  char buf[16] = {};
  ReportCapture reports;
};

TEST_F(SafeSocket, APeerThatClosesLeavesAShortCount) {
  EXPECT_EQ(write_n_bytes(ends[1], "abc", 3), 3);
  close_peer();
  errno = 0;
  EXPECT_EQ(read_n_bytes(ends[0], buf, 8), 3);
  EXPECT_EQ(errno, ECONNRESET);
  errno = EDOM;
  EXPECT_EQ(read_n_bytes(ends[0], buf, 8), 0);
  EXPECT_EQ(errno, EDOM);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(SafeSocket, APeerThatIsGoneFailsTheSendInSilence) {
  close_peer();
  ::signal(SIGPIPE, SIG_IGN);
  errno = 0;
  EXPECT_EQ(write_n_bytes(ends[0], "abc", 3), -1);
  EXPECT_EQ(errno, EPIPE);
  ::signal(SIGPIPE, SIG_DFL);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(SafeSocket, ReceiveErrorsAreReportedAndKeepTheirErrno) {
  errno = 0;
  EXPECT_EQ(read_n_bytes(-1, buf, 8), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_THAT(reports.take(), ElementsAre(error(-1, "read_n_bytes: Error happened in recv()")));
  EXPECT_EQ(read_n_bytes(-1, buf, 0), 0);
  EXPECT_EQ(write_n_bytes(-1, buf, -3), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(SafeSocket, ShortAndInterruptedCallsAreContinued) {
  {
    Scripted<"send", ssize_t(int, const void*, size_t, int)> script(
        {at_most(2), fails(EINTR), at_most(1)});
    EXPECT_EQ(write_n_bytes(ends[0], "abcdef", 6), 6);
  }
  {
    Scripted<"recv", ssize_t(int, void*, size_t, int)> script({fails(EINTR), at_most(4)});
    EXPECT_EQ(read_n_bytes(ends[1], buf, 6), 6);
    EXPECT_STREQ(buf, "abcdef");
  }
  Scripted<"send", ssize_t(int, const void*, size_t, int)> script({at_most(2), gives_nothing()});
  EXPECT_EQ(write_n_bytes(ends[0], "abcdef", 6), 2);
}

}  // namespace
