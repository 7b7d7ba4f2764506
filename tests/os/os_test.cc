#include <kel/library.h>
#include <kel/os.h>

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <optional>
#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace ::testing;
using kel::testing::TempDir;
using Fstatvfs = Hooked<"fstatvfs", int(int, struct statvfs*)>;

std::string output_of(const std::string& command) {
  const TempDir dir;
  EXPECT_EQ(std::system((command + " > " + (dir / "out")).c_str()), 0) << command;
  return read_file(dir / "out");
}

/// The entry as a line. Paths convert between the character types.
template <class Mount>
std::string line_of(const Mount& mount) {
  using Text = std::filesystem::path;
  return Text(mount.device).string() + ' ' + Text(mount.mountPoint).string() + ' ' +
         Text(mount.type).string() + '\n';
}

/// The entries as lines; both lists must agree, and are freed.
std::string lines_of(OSMountA** list, OSMountW** wide) {
  std::string lines;
  OSMountW** twin = wide;
  for (OSMountA** m = list; *m != nullptr; ++m, ++twin) {
    lines += line_of(**m);
    EXPECT_EQ(line_of(**m), line_of(**twin));
    EXPECT_EQ(std::pair((*m)->size, (*m)->category), std::pair((*twin)->size, (*twin)->category));
  }
  EXPECT_EQ(*twin, nullptr);
  OSFreeMountListA(list);
  OSFreeMountListW(wide);
  return lines;
}

TEST(MountTable, SortsFileSystemsByTheirTypes) {
  const TempDir dir;
  const std::string table = dir / "table";
  const std::pair<unsigned, std::string> groups[] = {
      {0x1, "a /a ext4\nb / xfs\nc /dt devtmpfs\nf /f fuse.sshfs\nl /l a-type-of-17-letter\n"},
      {0x2, "r /ram ramfs\n"},
      {0x4, "d /cd iso9660\n"},
      {0x8, "srv:/a /nfs4 nfs4\nsrv:/b /odd:/point ext4\nx /9p 9p\n"},
      {0x10, "t /tmp tmpfs\np /proc PROC\ns none swap\n"},
      {0x40000000, "i /i ignore\n"}};
  std::string text = "# a comment\n";
  for (const auto& [flag, lines] : groups) text += lines;
  write_file(table, text);
  for (const auto& [flag, lines] : groups)
    EXPECT_EQ(lines_of(OSGetFstabA(flag, table.c_str()), OSGetFstabW(flag, table.c_str())), lines);
  EXPECT_EQ(
      lines_of(OSGetFstabA(0x4000001f, table.c_str()), OSGetFstabW(0xc000001f, table.c_str())),
      "b / xfs\nt /tmp tmpfs\np /proc PROC\n")
      << "the ones there are";
}

TEST(MountTable, FailuresLeaveNothingBehind) {
  const TempDir dir;
  const std::string table = dir / "table";
  ReportCapture reports;
  EXPECT_EQ(OSGetFstabA(0x1, table.c_str()), nullptr);
  EXPECT_EQ(OSGetFstabW(0x80000001, table.c_str()), nullptr);
  EXPECT_THAT(reports.take(), ElementsAre(warning(ENOENT, "Can't open system mount table " + table +
                                                              ": No such file or directory")));
  write_file(table, "a /a ext4 rw 0 0\nb /\xc3\xa9 ext4 rw 0 0\n");
  std::setlocale(LC_ALL, "C");
  std::vector<std::string> texts;
  const auto scenario = [&] {
    errno = 0;
    OSMountW** list = OSGetFstabW(0x1, table.c_str());
    EXPECT_EQ(list == nullptr, errno == ENOMEM);
    EXPECT_TRUE(list == nullptr || (std::wcscmp(list[0]->mountPoint, L"/a") == 0 && !list[1]));
    OSFreeMountListW(list);
    texts.push_back(reports.take_texts().back());
  };
  EXPECT_EQ((fail_each<"calloc", void*(size_t, size_t)>(nullptr, ENOMEM, scenario)), 6);
  EXPECT_EQ(texts[0], "calloc failed for 24 bytes (osGetMounts())");
  EXPECT_EQ(texts[2], "osGetMounts: calloc failed for 51 bytes\n(1 mount entries read)");
  EXPECT_EQ(texts[6], "__osMountListAtoW: could not convert b at /\xc3\xa9 to wide");
}

/// Mounts something for this thread alone.
bool mount_here(const char* source, const std::string& point, const char* type,
                const std::string& options) {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(source, point.c_str(), type, 0, options.c_str()) == 0;
}

TEST(Mounts, AgreeWithDfAndFindmnt) {
  const TempDir dir;
  const std::string point = dir.path().string();
  if (!mount_here("a-device-with-a-long-name", point, "tmpfs", "size=8m"))
    GTEST_SKIP() << "no mounts of our own, errno " << errno;
  write_file(dir / "data", std::string(1 << 20, 'x'));
  EXPECT_EQ(output_of("df -B1 --output=size,used,avail " + point + " | tail -1 | xargs"),
            std::to_string(OSGetFSSizeA(point.c_str())) + ' ' +
                std::to_string(OSGetFSUsedSizeW(dir.path().wstring().c_str())) + ' ' +
                std::to_string(OSGetFSAvailSizeA(point.c_str())) + '\n');
  EXPECT_EQ(lines_of(OSGetMountListA(), OSGetMountListW()),
            output_of("findmnt -rnvo SOURCE,TARGET,FSTYPE"));
  OSMountA** list = OSGetMountInfoA(KEL_MOUNTS_PSEUDO);
  OSMountA** last = list;
  while (last[1] != nullptr) ++last;
  EXPECT_TRUE((*last)->mountPoint == point && (*last)->size == 8u << 20 &&
              (*last)->category == 'P');
  OSFreeMountListA(list);
  FILE* out = std::fopen((dir / "summary").c_str(), "w");
  OSTest(out);
  std::fclose(out);
  EXPECT_THAT(read_file(dir / "summary"),
              AllOf(HasSubstr(" swap)\nSystem mount table:\nFilesystem      Type       1k-blocks   "
                              "   Used           Available      Mounted On\n"),
                    HasSubstr("\na-device-with-a-long-name\n                tmpfs      8192        "
                              "   1024           7168           " +
                              point + '\n')));
  umount2(point.c_str(), MNT_DETACH);
}

TEST(FsSize, RefusesWhatIsNoPath) {
  ReportCapture reports;
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(OSGetFSSizeA(nullptr), -1);
  EXPECT_EQ(OSGetFSAvailSizeW(std::wstring(5000, L'x').c_str()), -1);
  EXPECT_EQ(OSGetFSUsedSizeA(std::string(4096, 'x').c_str()), 0);
  EXPECT_EQ(OSGetFSSizeW(L"/\u20ac"), 0);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EINVAL, "OSGetFSSizeA: invalid NULL parameter"),
                          error(ENAMETOOLONG, "OSGetFSAvailSizeW: path too long"),
                          error(ENAMETOOLONG, "OSGetFSUsedSizeA: path too long"),
                          error(EILSEQ, "OSGetFSSizeW: could not convert to multi-byte")));
}

std::atomic<int> own_alarms = 0;

/// Asks for the size of `path`, which must not be had, and returns the seconds that took.
double seconds_until_timeout(const std::string& path) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(OSGetFSSizeA(path.c_str()), 0);
  EXPECT_EQ(errno, ETIME);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(FsSize, ADeadFileSystemHoldsNobodyForLong) {
  // Nobody ever answers this file system's requests, and only SIGKILL ends a wait for them.
  const TempDir dir;
  const std::string point = dir.path().string();
  const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  const std::string options = "fd=" + std::to_string(fuse) + ",rootmode=40000,user_id=0,group_id=0";
  std::optional<Fstatvfs> stuck;
  if (fuse < 0 || !mount_here("dead", point, "fuse", options))
    stuck.emplace([](int, struct statvfs*) { return sleep(60), -1; });
  signal(SIGALRM, [](int) { ++own_alarms; });
  alarm(60);
  EXPECT_THAT(seconds_until_timeout(point), AllOf(Ge(4.9), Lt(8.0)));
  EXPECT_TRUE(stuck || OSGetFSSizeA("/") > 0) << "others answer";
  EXPECT_THAT(alarm(0), AllOf(Ge(50u), Lt(56u))) << "the caller's timer went on";
  raise(SIGALRM);
  EXPECT_EQ(own_alarms, 1) << "the caller's handler is back";
  {
    const std::jthread impatient([](const std::stop_token& stop) {
      while (!stop.stop_requested()) kill(getpid(), SIGALRM), usleep(10000);
    });
    for (int i = 0; i < 3; ++i) EXPECT_LT(seconds_until_timeout(point), 4.0);
  }
  EXPECT_LT(seconds_until_timeout(point), 4.0) << "four threads wait already";
  signal(SIGALRM, SIG_DFL);
  close(fuse);
  umount2(point.c_str(), MNT_DETACH);
}

unsigned long meminfo(const std::string& name) {
  return std::stoul(output_of("grep ^" + name + ": /proc/meminfo | tr -dc 0-9")) * 1024;
}

TEST(Memory, AgreesWithProc) {
  EXPECT_EQ(OSGetTotalRamValue(), meminfo("MemTotal"));
  EXPECT_EQ(OSGetMaxMemoryValue(), meminfo("MemTotal") + meminfo("SwapTotal"));
  const unsigned long free = meminfo("MemFree") + meminfo("Buffers");
  EXPECT_THAT(OSGetFreeMemoryValue(), AllOf(Ge(free / 2), Lt(free * 2)));
  const unsigned long before = OSGetRSS();
  const std::vector<char> touched(64 << 20, 'x');
  EXPECT_THAT(OSGetRSS(), AllOf(Ge(before + (60 << 20)), Lt(OSGetTotalRamValue())));
  const Hooked<"sysinfo", int(struct sysinfo*)> silent([](struct sysinfo*) { return -1; });
  EXPECT_EQ(OSGetTotalRamValue(), 128u << 20);
  EXPECT_EQ(OSGetMaxMemoryValue(), 128u << 20);
  EXPECT_GT(OSGetFreeMemoryValue(), free / 2 + meminfo("Cached") / 2);
}

TEST(Terminal, HasASizeOnlyWhereThereIsOne) {
  const struct winsize size = {50, 132, 0, 0};
  int master = -1;
  int slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
  unsigned short cols = 0;
  unsigned short rows = 0;
  dup2(slave, STDIN_FILENO);
  EXPECT_EQ(OSGetTerminalSize(&cols, &rows), 0);
  EXPECT_TRUE(cols == 132 && rows == 50);
  close(STDIN_FILENO);
  ASSERT_EQ(open("/dev/null", O_RDONLY), STDIN_FILENO);
  EXPECT_EQ(OSGetTerminalSize(&cols, &rows), -1);
  EXPECT_TRUE(cols == 80 && rows == 24);
}

TEST(Kofs, IsToldByItsMagicAndReportsFailuresRarely) {
  EXPECT_FALSE(IsKofs("/"));
  ReportCapture reports;
  for (int i = 0; i < 1001; ++i) EXPECT_FALSE(IsKofs("/no/such"));
  const std::string missing = "Failed to get the file system type on path: /no/such, errno: 2";
  EXPECT_THAT(reports.take_texts(), ElementsAre(missing, missing));
  EXPECT_EQ(ConditionalEnableNommap("f", -1), 0) << "off";
  ConfigKofsNommap(true);
  for (int i = 0; i < 6000; ++i) EXPECT_EQ(ConditionalEnableNommap("f", -1), -1);
  const std::vector<std::string> failures = reports.take_texts();
  EXPECT_THAT(failures, SizeIs(5));
  EXPECT_EQ(failures.back(),
            "EnableNommap: Failed to enable nommap, file: f, errcnt: 4001, errno: 9");
  const Hooked<"statfs", int(const char*, struct statfs*)> magic(
      [](const char*, struct statfs* status) {
        status->f_type = static_cast<int>(0xA501FCF5);  // widened with its sign
        return 0;
      });
  EXPECT_TRUE(IsKofs("/"));
}

}  // namespace
