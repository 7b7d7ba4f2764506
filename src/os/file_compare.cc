// Comparing two files by their checksums, block after block.
#include <kel/file.h>
#include <kel/safeio.h>

#include <algorithm>
#include <cstring>

#include "internal/adler32.h"
#include "internal/report.h"
#include "os/file_reader.h"

namespace {

using kel::internal::adler32;
using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::kAdler32Start;
using kel::internal::open_reader;
using kel::internal::UniqueFd;

constexpr size_t kBlock = 32768;

/// Whether the files' running checksums, equal so far, are equal after one more block too. What a
/// block adds to a checksum depends on where it starts, but whether two blocks of one size add the
/// same does not: so equal bytes need no sum, and others can be summed by themselves.
bool sums_agree(const char* a, const char* b, size_t size) {
  return std::memcmp(a, b, size) == 0 ||
         adler32(kAdler32Start, a, size) == adler32(kAdler32Start, b, size);
}

ssize_t compare(int fd1, int fd2) {
  char a[kBlock], b[kBlock];
  for (ssize_t count = 0;;) {
    const ssize_t got = safe_read(fd1, a, kBlock);
    const ssize_t wanted = std::max<ssize_t>(got, 0);
    const ssize_t matched = safe_read(fd2, b, static_cast<size_t>(wanted));
    if (got < 0 || matched < 0) return fail(-1, errno, "_doCompare: possible I/O error");
    if (got == 0) return 0;
    count += got;
    // A second file that became shorter meanwhile is different.
    if (matched == got && sums_agree(a, b, static_cast<size_t>(got))) continue;
    return count + (std::mismatch(a, a + matched, b).first - a);
  }
}

}  // namespace

ssize_t FileCompare(const char* path1, const char* path2, unsigned int) {
  struct stat status1, status2;
  const UniqueFd first = open_reader(path1, status1);
  if (!first) return fail(-1, errno, "%s: could not open file %s", __func__, path1);
  const UniqueFd second = open_reader(path2, status2);
  if (!second) return fail(-1, errno, "%s: could not open file %s", __func__, path2);
  if (status1.st_size != status2.st_size) return fail_quietly(-1, 0);
  return compare(first.get(), second.get());
}
