#include "log_files.h"

#include <kel/inifile.h>
#include <kel/logging.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "walk.h"

namespace dedup {
namespace {

constexpr char kSection[] = "Logging";
constexpr char kFlags[] = "Logging";
constexpr char kFolder[] = "LogPath";
constexpr char kMaxSize[] = "MaxSize";
constexpr char kFile[] = "kel-dedup.log";
constexpr unsigned long kUsualMaxSize = 16UL << 20;
/// Two rotations within a second lose what the first one moved away.
constexpr unsigned long kSmallestMaxSize = 1UL << 20;
constexpr std::time_t kDay = 24 * 60 * 60;

/// Whether the log files got that name when they were moved away: the file's, and a time.
bool is_rotated(const std::string& name) {
  const std::string start = std::string(kFile) + ".";
  return name.size() == start.size() + 14 && name.starts_with(start) &&
         name.find_first_not_of("0123456789", start.size()) == name.npos;
}

/// Removes the files that were moved away, and last written to, more than so many days ago.
void remove_old_files(const std::string& folder, int days) {
  std::vector<std::string> names;
  if (!list_names(folder, names))
    WarningA(errno, "could not list %s: %s", folder.c_str(), std::strerror(errno));
  const std::time_t oldest = std::time(nullptr) - days * kDay;
  for (const std::string& name : names) {
    const std::string path = folder + name;
    struct stat status;
    if (!is_rotated(name) || ::lstat(path.c_str(), &status) != 0 || status.st_mtime >= oldest)
      continue;
    if (::unlink(path.c_str()) == 0)
      InfoA(-1, "removed %s, which was older than %d days", path.c_str(), days);
    else if (errno != ENOENT)
      WarningA(errno, "could not remove %s: %s", path.c_str(), std::strerror(errno));
  }
}

/// Zero: no limit. False after a report.
bool read_max_size(const char* config, unsigned long& size) {
  const int length = InifileGetSizeA(kSection, kMaxSize, &size, kUsualMaxSize, config);
  if (length != -1 && (size == 0 || size >= kSmallestMaxSize)) return true;
  char text[256];
  InifileGetValueA(kSection, kMaxSize, text, sizeof text, "", config);
  InifileErrorA(config, kSection, kMaxSize, text, "neither 0 nor a size of 1MiB or more");
  return false;
}

}  // namespace

bool set_up_log(const char* config) {
  if (config == nullptr || *config == '\0') {
    kelLogSet(nullptr, KEL_LOG_SHORT, 0);
    return true;
  }
  const bool has_file = InifileValueExistsA(kSection, kFolder, config) == 0;
  // Reading a value with a default makes it that of the next reader too, which has "long".
  char text[128];
  if (!has_file) InifileGetValueA(kSection, kFlags, text, sizeof text, "short", config);
  char path[4096] = "";
  int days = 0;
  const int flags =
      kelLogLoadA(config, nullptr, kFolder, has_file ? path : nullptr, sizeof path, kFile, &days);
  unsigned long max_size = 0;
  if (flags == -1 || !read_max_size(config, max_size)) return false;
  logFileSetMaxSize(max_size);
  kelLogSet(path, has_file ? flags | KEL_LOG_DATE | KEL_LOG_SEVERE_CONSOLE : flags, 0);
  if (has_file && days > 0)
    remove_old_files(std::string(path, std::strlen(path) - std::strlen(kFile)), days);
  return true;
}

}  // namespace dedup
