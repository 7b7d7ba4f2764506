#include "internal/process_stat.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/handles.h"
#include "internal/text_traits.h"

namespace kel::internal {
namespace {

constexpr int kResidentField = 24;  // resident pages

UniqueFile open_stat(int pid) noexcept {
  char path[32] = "/proc/self/stat";
  if (pid != 0) std::snprintf(path, sizeof path, "/proc/%i/stat", pid);
  return UniqueFile{std::fopen(path, "re")};
}

}  // namespace

void read_process_name(int pid, char (&name)[kProcessNameSize]) noexcept {
  char word[kProcessNameSize] = "";
  if (const UniqueFile stat = open_stat(pid))
    if (std::fscanf(stat.get(), "%*d %63s", word) != 1) word[0] = '\0';
  copy_cut(name, word[0] == '(' ? word + 1 : word);
  const std::size_t length = std::strlen(name);
  if (length != 0 && name[length - 1] == ')') name[length - 1] = '\0';
}

unsigned long resident_bytes() noexcept {
  const UniqueFile stat = open_stat(0);
  char line[1024];
  if (!stat || std::fgets(line, sizeof line, stat.get()) == nullptr) return 0;
  // Behind the name, field 2, which may hold spaces and brackets, each field follows one space.
  const char* field = std::strrchr(line, ')');
  for (int number = 2; number < kResidentField && field != nullptr; ++number)
    field = std::strchr(field + 1, ' ');
  if (field == nullptr) return 0;
  const unsigned long pages = std::strtoul(field, nullptr, 10);
  return pages * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

}  // namespace kel::internal
