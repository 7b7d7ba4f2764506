// Names for temporary files.
#include <kel/file.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "internal/handles.h"
#include "internal/report.h"
#include "os/wide_path.h"

namespace {

using kel::internal::fail;
using kel::internal::fail_allocation;
using kel::internal::fail_quietly;
using kel::internal::kWorkingDirectorySize;
using kel::internal::MallocPtr;
using kel::internal::working_directory;

constexpr int kNumbered = 98;
constexpr size_t kNameSize = 32;  // '/', 20 digits, 2 more, ".tmp" and the terminator at most

bool takes_files(const char* dir) { return ::access(dir, W_OK | X_OK) == 0; }

bool is_free(const char* path) {
  struct stat status;
  return ::lstat(path, &status) != 0;
}

}  // namespace

char* FileTemp(const char* dir) {
  const auto now = static_cast<unsigned long>(::time(nullptr));
  if (dir == nullptr || *dir == '\0') dir = "/tmp";
  char here[kWorkingDirectorySize];
  if (!takes_files(dir)) {
    if (!takes_files("."))
      return fail<char*>(nullptr, errno, "%s: could not access path", __func__);
    if (working_directory(here, sizeof here) == 0) return nullptr;
    dir = here;
  }
  const size_t size = std::strlen(dir) + kNameSize;
  MallocPtr<char> name(static_cast<char*>(std::malloc(size)));
  if (name == nullptr) return fail_allocation<char*>(nullptr, size, __func__);
  std::snprintf(name.get(), size, "%s%c%lu.tmp", dir, '/', now);
  for (int i = 0; !is_free(name.get()); ++i) {
    if (i == kNumbered) return fail_quietly<char*>(nullptr, EEXIST);
    std::snprintf(name.get(), size, "%s%c%lu%i.tmp", dir, '/', now, i);
  }
  return name.release();
}
