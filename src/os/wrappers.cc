// The C library's functions under the library's names.
#include <kel/safeio.h>

#include <unistd.h>

#include <cstdlib>

FILE* kel_fopen(const char* path, const char* mode) { return ::fopen(path, mode); }

FILE* kel_fopenEx(const char* path, const char* mode) {
  char kept[4] = {};
  for (size_t count = 0; *mode != '\0' && count < sizeof kept - 1; ++mode) {
    if (*mode != 'i')
      kept[count++] = *mode;
    else if (mode[1] == '-')
      ++mode;
  }
  return ::fopen(path, kept);
}

int kel_unlink(const char* path) { return ::unlink(path); }

int kel_rmdir(const char* path) { return ::rmdir(path); }

int kel_stat(const char* path, struct stat* status) { return ::stat(path, status); }

int kel_access(const char* path, int mode) { return ::access(path, mode); }

int64_t kel_strtoi(const char* str) { return std::strtol(str, nullptr, 10); }

int64_t kel_atoi(const char* str) { return kel_strtoi(str); }

long kel_strtol(const char* str, char** endptr, int base) { return std::strtol(str, endptr, base); }
