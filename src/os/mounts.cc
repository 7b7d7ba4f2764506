// Mount tables, and the kinds of file systems in them.
#include "os/mounts.h"

#include <kel/logging.h>

#include <mntent.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <string_view>

#include "internal/ascii.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "os/bounded_statistics.h"

namespace kel::internal {
namespace {

constexpr char kFstab[] = "/etc/fstab";
constexpr std::size_t kLineSize = 16384;  // a line is cut behind that: in the options, at its end
constexpr std::size_t kTypeSize = 17;

struct Category {
  char letter;
  unsigned flag;
  std::string_view types;  // each followed by a space
};

/// In the order in which they are tried.
constexpr Category kCategories[] = {
    {'N', KEL_MOUNTS_NETWORK, "NFS AUTOFS SMB AFS CIFS NCPFS OCFS2 9P CODA "},
    {'P', KEL_MOUNTS_PSEUDO,
     "PROC DEVPTS TMPFS XNAMFS SPECFS NAMEFS FIFOFS STATS TUBEFS DEVFS SYSFS SUBFS SPUFS "
     "CONFIGFS "},
    {'F', KEL_MOUNTS_MEMORY, "FDFS USBFS RAMFS ROMFS CRAMFS "},
    {'C', KEL_MOUNTS_OPTICAL, "CD DVD ISO9660 HIGH ROCK HS UDF "},
    {'S', KEL_MOUNTS_PSEUDO, "SWAP "},
    {'U', KEL_MOUNTS_OTHER, "IGNORE "},
};
constexpr Category kLocal = {'L', KEL_MOUNTS_LOCAL, ""};

bool begins_with_one(std::string_view type, std::string_view words) {
  for (std::size_t end; (end = words.find(' ')) != words.npos; words.remove_prefix(end + 1))
    if (type.starts_with(words.substr(0, end))) return true;
  return false;
}

const Category& classify(const char* type, const char* mount_point) {
  char upper[kTypeSize] = {};
  for (std::size_t i = 0; i < kTypeSize - 1 && type[i] != '\0'; ++i) upper[i] = to_upper(type[i]);
  const std::string_view point = mount_point;
  if (point.find(":/") != point.npos || point.find("//") != point.npos) return kCategories[0];
  for (const Category& category : kCategories)
    if (begins_with_one(upper, category.types)) return category;
  return kLocal;
}

struct EndTable {
  void operator()(FILE* table) const noexcept {
    const ErrnoGuard keep;
    ::endmntent(table);
  }
};
using Table = std::unique_ptr<FILE, EndTable>;

/// Reads the next entry, whose texts lie in `line`.
bool next_entry(FILE* table, struct mntent* entry, char (&line)[kLineSize]) {
  return ::getmntent_r(table, entry, line, kLineSize) != nullptr;
}

int count_entries(FILE* table) {
  struct mntent entry;
  char line[kLineSize];
  int count = 0;
  while (next_entry(table, &entry, line)) ++count;
  std::rewind(table);
  return count;
}

/// A text and its terminator at `*to`, which is moved behind them.
char* append(char** to, const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(std::memcpy(*to, text, size));
  *to += size;
  return copy;
}

OSMountA* new_record(const struct mntent& entry, char category, std::size_t* size) {
  *size = sizeof(OSMountA) + std::strlen(entry.mnt_fsname) + std::strlen(entry.mnt_dir) +
          std::strlen(entry.mnt_type) + 3;
  auto* record = static_cast<OSMountA*>(std::calloc(1, *size));
  if (record == nullptr) return nullptr;
  char* texts = reinterpret_cast<char*>(record + 1);
  record->device = append(&texts, entry.mnt_fsname);
  record->mountPoint = append(&texts, entry.mnt_dir);
  record->type = append(&texts, entry.mnt_type);
  record->category = category;
  return record;
}

bool is_wanted(const struct mntent& entry, unsigned flag, unsigned flags) {
  if ((flag & flags) == 0) return false;
  if ((flags & KEL_MOUNTS_ALL) != KEL_MOUNTS_ALL || bounded_exists(entry.mnt_dir)) return true;
  __Trace("%s at %s marked as mounted but unable to stat() it. Excluding this drive.",
          entry.mnt_fsname, entry.mnt_dir);
  return false;
}

void fill_sizes(OSMountA** list) {
  struct statvfs status;
  for (; *list != nullptr; ++list)
    if ((*list)->mountPoint[0] == '/' && bounded_statvfs((*list)->mountPoint, &status) == 0)
      (*list)->size = status.f_blocks * block_unit(status);
}

MountList<OSMountA> read_mounted(unsigned flags) {
  MountList<OSMountA> list = read_mounts(kMountedTable, flags);
  if (list != nullptr) fill_sizes(list.get());
  return list;
}

MountList<OSMountA> read_fstab(unsigned flags, const char* table) {
  return read_mounts(table == nullptr || *table == '\0' ? kFstab : table, flags);
}

/// Converts `text` to `*to`, which is moved behind it; null when it has no wide form.
wchar_t* append(wchar_t** to, const char* text) {
  std::mbstate_t state = {};
  const std::size_t length = std::mbsrtowcs(*to, &text, std::strlen(text) + 1, &state);
  if (length == static_cast<std::size_t>(-1)) return nullptr;
  wchar_t* copy = *to;
  *to += length + 1;
  return copy;
}

/// Sets `*record` to the wide form, or to null when there is none; false without memory.
bool widen(const OSMountA& from, OSMountW** record, const char* function) {
  const std::size_t characters =
      std::strlen(from.device) + std::strlen(from.mountPoint) + std::strlen(from.type) + 3;
  const std::size_t size = sizeof(OSMountW) + characters * sizeof(wchar_t);
  MallocPtr<OSMountW> wide{static_cast<OSMountW*>(std::calloc(1, size))};
  if (wide == nullptr) return fail_allocation(false, size, function);
  auto* texts = reinterpret_cast<wchar_t*>(wide.get() + 1);
  *record = nullptr;
  if ((wide->device = append(&texts, from.device)) == nullptr ||
      (wide->mountPoint = append(&texts, from.mountPoint)) == nullptr ||
      (wide->type = append(&texts, from.type)) == nullptr) {
    report_warning(errno, "%s: could not convert %s at %s to wide", function, from.device,
                   from.mountPoint);
    return true;
  }
  wide->size = from.size;
  wide->category = from.category;
  *record = wide.release();
  return true;
}

OSMountW** widen(const MountList<OSMountA>& from) {
  constexpr char kWiden[] = "__osMountListAtoW";  // the name in reports
  if (from == nullptr) return nullptr;
  std::size_t count = 0;
  while (from.get()[count] != nullptr) ++count;
  MountList<OSMountW> list{static_cast<OSMountW**>(std::calloc(count + 1, sizeof(OSMountW*)))};
  if (list == nullptr)
    return fail_allocation<OSMountW**>(nullptr, (count + 1) * sizeof(OSMountW*), kWiden);
  OSMountW** next = list.get();
  for (OSMountA** mount = from.get(); *mount != nullptr; ++mount) {
    if (!widen(**mount, next, kWiden)) return nullptr;
    if (*next != nullptr) ++next;
  }
  return list.release();
}

}  // namespace

MountList<OSMountA> read_mounts(const char* path, unsigned flags) {
  const Table table{::setmntent(path, "re")};
  if (table == nullptr) {
    if ((flags & KEL_MOUNTS_NO_WARN) == 0)
      report_warning(errno, "Can't open system mount table %s: %s\n", path, std::strerror(errno));
    return nullptr;
  }
  const int count = count_entries(table.get());
  const std::size_t size = (static_cast<std::size_t>(count) + 1) * sizeof(OSMountA*);
  MountList<OSMountA> list{static_cast<OSMountA**>(std::calloc(1, size))};
  if (list == nullptr)
    return fail(nullptr, ENOMEM, "calloc failed for %u bytes (osGetMounts())\n",
                static_cast<unsigned>(size));

  OSMountA** next = list.get();
  struct mntent entry;
  char line[kLineSize];
  for (int done = 0; done < count; ++done) {
    if (!next_entry(table.get(), &entry, line)) {
      report_error(-1, "Premature end of %s. Processed %i entries while %iare expected.\n", path,
                   done, count);
      break;
    }
    const Category& category = classify(entry.mnt_type, entry.mnt_dir);
    if (!is_wanted(entry, category.flag, flags)) continue;
    std::size_t record_size = 0;
    if ((*next = new_record(entry, category.letter, &record_size)) == nullptr)
      return fail(nullptr, ENOMEM,
                  "osGetMounts: calloc failed for %u bytes\n(%i mount entries read)\n",
                  static_cast<unsigned>(record_size), done);
    ++next;
  }
  return list;
}

}  // namespace kel::internal

using namespace kel::internal;

OSMountA** OSGetMountListA(void) { return OSGetMountInfoA(KEL_MOUNTS_ALL); }
OSMountW** OSGetMountListW(void) { return OSGetMountInfoW(KEL_MOUNTS_ALL); }

OSMountA** OSGetMountInfoA(unsigned int flags) { return read_mounted(flags).release(); }
OSMountW** OSGetMountInfoW(unsigned int flags) { return widen(read_mounted(flags)); }

OSMountA** OSGetFstabA(unsigned int flags, const char* table) {
  return read_fstab(flags, table).release();
}
OSMountW** OSGetFstabW(unsigned int flags, const char* table) {
  return widen(read_fstab(flags, table));
}

void OSFreeMountListA(OSMountA** list) { const MountList<OSMountA> own{list}; }
void OSFreeMountListW(OSMountW** list) { const MountList<OSMountW> own{list}; }
