// Settings that name a file: is it there, of the right type, with the right permissions?
#include <kel/inifile.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr unsigned kPermissionBits = 0xFFF;

struct TypeName {
  unsigned type;
  const char* narrow;
  const wchar_t* wide;
};

constexpr TypeName kTypeNames[] = {
    {S_IFBLK, "block device", L"block device"},
    {S_IFCHR, "character device", L"character device"},
    {S_IFDIR, "directory", L"directory"},
    {S_IFIFO, "FIFO", L"FIFO"},
    {S_IFREG, "file", L"file"},
    {S_IFLNK, "symbolic link", L"symbolic link"},
    {S_IFSOCK, "socket", L"socket"},
};
constexpr TypeName kUnknownType = {0, "unknown file type", L"unknown file type"};

const TypeName& type_name(unsigned mode) noexcept {
  for (const TypeName& known : kTypeNames)
    if (known.type == (mode & S_IFMT)) return known;
  return kUnknownType;
}

/// Removes a final '/', though not that of the root.
void strip_slash(char* path) noexcept {
  const size_t length = std::strlen(path);
  if (length > 1 && path[length - 1] == '/') path[length - 1] = '\0';
}

}  // namespace

const char* DeviceModeToStringA(int mode) { return type_name(static_cast<unsigned>(mode)).narrow; }
const wchar_t* DeviceModeToStringW(int mode) { return type_name(static_cast<unsigned>(mode)).wide; }

int InifileCheckPathA(const char* file, const char* section, const char* entry, char* pathValue,
                      unsigned int mode) {
  return InifileCheckPathStripA(file, section, entry, pathValue, mode, 1);
}

int InifileCheckPathStripA(const char* file, const char* section, const char* entry,
                           char* pathValue, unsigned int mode, int strip) {
  if (pathValue == nullptr || *pathValue == '\0') {
    InifileErrorA(file, section, entry, nullptr, "Expected a non-empty value.");
    return 1;
  }
  if (strip != 0) strip_slash(pathValue);
  struct stat status = {};
  if (::stat(pathValue, &status) != 0) {
    InifileErrorA(file, section, entry, pathValue, "%s", std::strerror(errno));
    return 1;
  }
  int problems = 0;
  const unsigned type = mode & S_IFMT;
  if (type != 0 && type != (status.st_mode & S_IFMT)) {
    InifileErrorA(file, section, entry, pathValue, "not a %s (%s)", type_name(type).narrow,
                  type_name(status.st_mode).narrow);
    ++problems;
  }
  const unsigned expected = mode & kPermissionBits;
  const unsigned actual = status.st_mode & kPermissionBits;
  if (expected != 0 && expected != actual) {
    InifileErrorA(file, section, entry, pathValue,
                  "incorrect permissions. Expected: %#o, actual: %#o", expected, actual);
    ++problems;
  }
  return problems;
}
