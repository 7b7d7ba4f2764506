#include <kel/daemon.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;
namespace fs = std::filesystem;

/// A child process that runs `act` and ends with its result, without exit handlers.
pid_t start(const std::function<int()>& act) {
  const pid_t child = fork();
  if (child == 0) _exit(act());
  return child;
}

/// The sum of the exit statuses of all child processes.
int statuses() {
  int sum = 0;
  for (int status = 0; wait(&status) > 0;) sum += WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
  return sum;
}

void rename_self(const char* name) { prctl(PR_SET_NAME, name); }

struct DaemonLock : Test {
  int test() const { return DaemonLockSimpleTest(home.c_str(), "svc"); }
  int take() const { return DaemonLockSimple(home.c_str(), "svc"); }
  /// Leaves the lock of a process that has ended.
  void leave_stale() const {
    write_file(file, std::to_string(start([] { return 0; })) + '\n');
    statuses();
  }

  TempDir dir;
  std::string home = dir.path().string();
  std::string file = dir / "svc.pid";
  std::string own_pid = std::to_string(getpid()) + '\n';
  ReportCapture reports;
};

TEST_F(DaemonLock, IsInForceBetweenDaemonsOfOneFamily) {
  using Row = std::tuple<const char*, const char*, bool, bool>;
  for (const auto& [self, owner, refused, reported] :
       {Row{"svc", "svc", true, true}, Row{"chunkd", "bundlerd", true, true},
        Row{"bundlerd", "chunkd", true, true}, Row{"sweepd", "chunkd", true, false},
        Row{"chunkd", "sweepd", false, false}, Row{"chunkd", "sh", false, false}}) {
    const pid_t other = start([name = owner] { return rename_self(name), pause(); });
    while (OSGetProcName(other) != std::string(owner)) usleep(100);
    rename_self(self);
    write_file(file, std::to_string(other) + '\n');
    EXPECT_EQ(test(), refused ? -1 : 0) << self << " and " << owner;
    EXPECT_TRUE(!refused || errno == EEXIST);
    EXPECT_EQ(fs::exists(file), refused) << "a stale lock is removed";
    const std::string text = PrintToString(reports.take_texts());
    EXPECT_EQ(text.find("): Daemon already running") != text.npos, reported) << text;
    EXPECT_EQ(DaemonLockSimpleTestNoError(home.c_str(), "svc"), refused ? -1 : 0);
    EXPECT_THAT(reports.take(), IsEmpty());
    kill(other, SIGKILL);
    statuses();
  }
}

TEST_F(DaemonLock, LooksAtWhatTheFileHolds) {
  leave_stale();
  EXPECT_EQ(test(), 0);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_STREQ(DaemonLockSimpleRead(), "(not set)");
  EXPECT_EQ(test(), 0) << "there is no file";
  EXPECT_STREQ(DaemonLockSimpleRead(), "(not found)");
  for (const char* text : {"", "0\n", "-1\n", "daemon\n", "99999999999\n"}) {
    write_file(file, text);
    EXPECT_EQ(test(), -1) << text;
    EXPECT_THAT(reports.take(), ElementsAre(error(EEXIST, "DaemonLockSimpleTest: Unknown error")));
  }
  write_file(file, "1\n");
  const Fault<"kill", int(pid_t, int)> foreign(1, -1, EPERM);
  EXPECT_EQ(test(), -1);
  EXPECT_EQ(reports.take_texts().back(),
            "DaemonLockSimpleTest: invalid signal, no permissions, etc");
}

TEST_F(DaemonLock, IsTakenOnceAndCleared) {
  EXPECT_EQ(take(), 0);
  EXPECT_EQ(read_file(file), own_pid);
  EXPECT_EQ(take(), -1);
  EXPECT_EQ(reports.take().back(), error(EEXIST, "DaemonLockSimple: lock already exists"));
  DaemonLockSimpleClear();
  EXPECT_FALSE(fs::exists(file));
  const Fault<"write", ssize_t(int, const void*, size_t)> full(1, -1, ENOSPC);
  EXPECT_EQ(take(), -1);
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(DaemonLock, GoesToOneOfManyThatFindItStale) {
  constexpr int kRivals = 6;
  auto* count = new (mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
      std::atomic<int>;
  const auto meet = [&](int total) {
    for (++*count; *count < total;) usleep(10);
  };
  for (int round = 0; round < 50; ++round) {
    *count = 0;
    leave_stale();
    for (int i = 0; i < kRivals; ++i)
      start([&] {
        meet(kRivals);
        const int taken = take() == 0;
        meet(2 * kRivals);  // the owner lives until everybody has tried
        return taken;
      });
    ASSERT_EQ(statuses(), 1) << "round " << round;
  }
}

struct Daemon : DaemonLock {
  /// Runs `act` in a child that exits as programs do, and returns what it and its children printed.
  std::string run(const std::function<void()>& act) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    start([&] {
      dup2(open((dir / "out").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
      act();
      std::exit(0);
      return 0;
    });
    EXPECT_EQ(statuses(), 0);
    return read_file(dir / "out");
  }

  /// Leaves what a process sees of itself in `seen`.
  void describe(int result) const {
    write_file(seen, std::to_string(result) + (getsid(0) == getpid() ? " leads " : " ") +
                         std::to_string(umask(0)) + ' ' +
                         fs::read_symlink("/proc/self/fd/1").string());
  }

  std::string seen = dir / "seen";
  std::string logged = dir / "pid.pid";
};

TEST_F(Daemon, GoesToTheBackgroundAndCleansUpAtItsEnd) {
  const std::string printed = run([&] {
    std::printf("once\n");
    describe(DaemonInit(false));
    DaemonLogPID(home.c_str(), "pid");
    if (take() == 0 && read_file(file) == read_file(logged)) write_file(dir / "locked", "");
    std::printf("lost\n");
  });
  EXPECT_EQ(printed, "once\n");
  EXPECT_EQ(read_file(seen), "0 leads 18 /dev/null");
  EXPECT_TRUE(fs::exists(dir / "locked") && !fs::exists(file) && !fs::exists(logged));

  const Fault<"fork", pid_t()> no_child(1, -1, EAGAIN);
  for (const bool foreground : {true, false}) {
    run([&] {
      describe(DaemonInit(foreground));
      DaemonLogPID(home.c_str(), "pid");
      test();
      write_file(file, "1\n");  // the lock of another
    });
    EXPECT_EQ(read_file(seen), (foreground ? "0 leads 18 " : "-1 leads 18 ") + dir / "out");
    EXPECT_TRUE(fs::exists(file) && !fs::exists(logged));
  }
}

TEST_F(Daemon, LeavesItsIdWhereItCan) {
  const std::string name = "kel-test-" + std::to_string(getpid());
  const std::string in_tmp = "/tmp/" + name + ".pid";
  const std::string nowhere = dir / "none";
  fs::current_path(dir.path());
  DaemonLogPID(nowhere.c_str(), name.c_str());
  EXPECT_EQ(read_file(dir / (name + ".pid")), own_pid);
  fs::create_directory(nowhere);
  fs::current_path(nowhere);
  fs::remove(nowhere);
  DaemonLogPID(nowhere.c_str(), name.c_str());
  EXPECT_EQ(read_file(in_tmp), own_pid);
  fs::remove(in_tmp);
  fs::create_symlink(dir / "victim", in_tmp);
  DaemonLogPID(nowhere.c_str(), name.c_str());
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ELOOP, "DaemonLogPID: could not open file for pid " + name)));
  fs::remove(in_tmp);
  fs::current_path("/");
}

TEST(FileLock, ExcludesThreadsAndProcesses) {
  const TempDir dir;
  const std::string counter = dir / "counter";
  write_file(counter, "0");
  const auto work = [&] {
    static std::mutex mutex;
    for (int i = 0; i < 100; ++i) {
      KelFileLock lock(mutex);
      if (!lock.Lock(dir / "lock")) return;
      write_file(counter, std::to_string(std::stoi(read_file(counter)) + 1));
    }
  };
  for (int i = 0; i < 3; ++i) start([&] { return std::jthread(work), work(), 0; });
  EXPECT_EQ(statuses(), 0);
  EXPECT_EQ(read_file(counter), "600");
}

TEST(FileLock, SaysWhyItIsNotHeld) {
  using Fcntl = Hooked<"fcntl", int(int, int, struct flock*)>;
  static long waited = 0;
  static int failure = 0;
  const Hooked<"select", int(int, fd_set*, fd_set*, fd_set*, struct timeval*)> no_wait(
      [](int, fd_set*, fd_set*, fd_set*, struct timeval* timeout) {
        waited += timeout->tv_sec;
        return 0;
      });
  const Fcntl denied([](int fd, int command, struct flock* what) {
    if (command != F_SETLKW || failure == 0) return Fcntl::real(fd, command, what);
    errno = std::exchange(failure, 0);
    return -1;
  });
  const TempDir dir;
  const std::string file = dir / "lock";
  const std::string missing = dir / "none/lock";
  ReportCapture reports;
  std::mutex mutex;
  {
    KelFileLock lock(mutex);
    EXPECT_FALSE(lock.Lock(missing));
    EXPECT_EQ(waited, 20);
    EXPECT_EQ(reports.take(),
              std::vector<Report>(20, error(-1, "Lock: failed to create file " + missing)));
    failure = ENOLCK;
    EXPECT_FALSE(lock.Lock(file));
    EXPECT_THAT(reports.take_texts(), ElementsAre(StartsWith("Lock: caught exception ")));
    failure = EINTR;
    EXPECT_TRUE(lock.Lock(file)) << "a signal is no failure";
    EXPECT_TRUE(lock.Lock(file)) << "anew";
    start([&] { return lockf(open(file.c_str(), O_RDWR), F_TEST, 0) != 0; });
    EXPECT_EQ(statuses(), 1) << "held";
  }
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
}

}  // namespace
