// A service's logging settings: read from its INI file, checked, and handed out. Applying them is
// the caller's.
#include <kel/inifile.h>
#include <kel/logging.h>
#include <kel/path.h>
#include <kel/strings.h>

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "config/ini_cache.h"
#include "config/vocabulary.h"
#include "internal/report.h"

using namespace kel::internal;
using namespace kel::config;

namespace {

constexpr size_t kPathSize = 4096;
constexpr char kDefaultDirectory[] = "/var/log/";

/// One entry, and the section in which it counts: the service's own when that has it.
struct Setting {
  Setting(const char* file_path, const char* own_section, const char* key)
      : file(file_path), entry(key) {
    Hold held(file_path, Hold::Missing::kLoad);
    if (!held || names_nothing(own_section)) return;
    const Section* const own = held->find_section(own_section);
    if (own != nullptr && held->find_entry(*own, key) != nullptr) section = own_section;
  }

  template <size_t Size>
  int read(char (&text)[Size], const char* default_value) const {
    return InifileGetValueA(section, entry, text, Size, default_value, file);
  }

  const char* file;
  const char* section = kLoggingSection;
  const char* entry;
};

/// -1 after a report.
int read_flags(const Setting& setting) {
  char text[127];
  setting.read(text, "long");
  const int flags = kelLogParseFlagsA(text);
  if (flags == -1)
    InifileErrorA(setting.file, setting.section, setting.entry, text,
                  "Expected one of none, short, long, verbose or full");
  return flags;
}

/// False after a report.
bool read_directory(const Setting& setting, bool make, int strip, char (&directory)[kPathSize]) {
  const int size = InifileGetPathA(setting.section, setting.entry, directory, kPathSize,
                                   kDefaultDirectory, setting.file);
  if (size > int{kPathSize}) return fail(false, EINVAL, "kelLogLoadStripA: path too long");
  if (make && CreateTreeLoggingOptionalA(directory, 0755, true) == 0) return false;
  return InifileCheckPathStripA(setting.file, setting.section, setting.entry, directory, S_IFDIR,
                                strip) == 0;
}

/// False after a report, with EINVAL.
bool hand_out_path(const char* directory, const char* file_name, char* log_path, size_t capacity) {
  char path[kPathSize];
  const size_t length = std::strlen(directory);
  const char* const slash = directory[length - 1] == '/' ? "" : "/";
  const int size = std::snprintf(path, sizeof path, "%s%s%s", directory, slash,
                                 file_name == nullptr ? "" : file_name);
  if (size < 0 || size >= int{kPathSize})
    return fail(false, EINVAL, "kelLogLoadStripA: path too long");
  return kelstrcpy(log_path, path, capacity) != nullptr || fail_quietly(false, EINVAL);
}

/// Days, never negative.
int read_retention(const Setting& setting) {
  char text[32];
  setting.read(text, "0");
  const ErrnoGuard keep;
  return static_cast<int>(std::clamp<long>(std::strtol(text, nullptr, 10), 0, INT_MAX));
}

}  // namespace

int kelLogLoadStripA(const char* iniPath, const char* section, const char* pathKey, char* logPath,
                     size_t logPathLen, const char* fileName, int* retentionDays, int stripSlash) {
  const int flags = read_flags({iniPath, section, kLoggingEntry});
  if (flags == -1) return -1;
  if (logPath != nullptr && logPathLen != 0) {
    if (names_nothing(pathKey)) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
    char directory[kPathSize];
    if (!read_directory({iniPath, section, pathKey}, flags != 0, stripSlash, directory) ||
        !hand_out_path(directory, fileName, logPath, logPathLen))
      return -1;
  }
  if (retentionDays != nullptr)
    *retentionDays = read_retention({iniPath, section, kRetentionEntry});
  return flags;
}

int kelLogLoadA(const char* iniPath, const char* section, const char* pathKey, char* logPath,
                size_t logPathLen, const char* fileName, int* retentionDays) {
  return kelLogLoadStripA(iniPath, section, pathKey, logPath, logPathLen, fileName, retentionDays,
                          1);
}
