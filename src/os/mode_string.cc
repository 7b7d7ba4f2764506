// Modes as ls(1) shows them.
#include <kel/dir.h>

#include <sys/stat.h>

#include <algorithm>

namespace {

constexpr int kLength = 11;

char type_letter(unsigned int mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return 'd';
    case S_IFCHR:
      return 'c';
    case S_IFBLK:
      return 'b';
    case S_IFREG:
      return '-';
    case S_IFLNK:
      return 'l';
    case S_IFSOCK:
      return 's';
    case S_IFIFO:
      return 'p';
    default:
      return '?';
  }
}

/// The permissions of one class of users; `special` is set-user-id and so on, shown by `letter`.
void write_class(unsigned int bits, bool special, char letter, char* text) {
  const bool executes = (bits & 1) != 0;
  text[0] = (bits & 4) != 0 ? 'r' : '-';
  text[1] = (bits & 2) != 0 ? 'w' : '-';
  if (!special)
    text[2] = executes ? 'x' : '-';
  else
    text[2] = executes ? letter : static_cast<char>(letter - 'a' + 'A');
}

}  // namespace

const char* GetModeStringA(unsigned int st_mode) {
  static char text[kLength + 1];
  text[0] = type_letter(st_mode);
  write_class(st_mode >> 6, (st_mode & S_ISUID) != 0, 's', text + 1);
  write_class(st_mode >> 3, (st_mode & S_ISGID) != 0, 's', text + 4);
  write_class(st_mode, (st_mode & S_ISVTX) != 0, 't', text + 7);
  text[10] = ' ';
  return text;
}

const wchar_t* GetModeStringW(unsigned int st_mode) {
  static wchar_t text[kLength + 1];
  std::copy_n(GetModeStringA(st_mode), kLength + 1, text);
  return text;
}
