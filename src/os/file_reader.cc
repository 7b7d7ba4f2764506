#include "os/file_reader.h"

#include <fcntl.h>

#include "internal/report.h"
#include "internal/transfer.h"

namespace kel::internal {
namespace {

constexpr char kName[] = "__openReader";

}  // namespace

UniqueFd open_reader(const char* path, struct stat& status) {
  if (path == nullptr) return fail(UniqueFd(), EINVAL, "%s: invalid NULL parameter", kName);
  UniqueFd fd(retry_interrupted([=] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
  if (!fd) {
    const auto report = errno == ENOENT ? report_warning : report_error;
    report(errno, "%s: could not open file %s", kName, path);
    return fd;
  }
  if (::fstat(fd.get(), &status) != 0)
    return fail(UniqueFd(), errno, "%s: could not stat file", kName);
  if (S_ISDIR(status.st_mode))
    return fail(UniqueFd(), EISDIR, "%s: directory passed as parameter where file was expected",
                kName);
  ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);  // advice: it may be refused
  return fd;
}

UniqueFd open_reader(const char* path) {
  struct stat status;
  return open_reader(path, status);
}

}  // namespace kel::internal
