#include "container_numbers.h"

#include <kel/crc.h>
#include <kel/logging.h>
#include <kel/safeio.h>

#include <cerrno>

namespace dedup {
namespace {

constexpr char kName[] = "container number";

}  // namespace

bool ContainerNumbers::open(const std::string& path, const std::string& folder, uint32_t highest) {
  path_ = path;
  if (::access(path_.c_str(), F_OK) == 0) {
    file_ = Descriptor(OpenId(path_.c_str(), kName, &last_, 0));
    if (!file_ && errno != ERANGE && errno != ENODATA) return false;
    if (!file_)
      WarningA(-1, "%s is damaged; the containers are counted on from %u", path_.c_str(), highest);
  }
  return (file_ && last_ >= highest) || renew(folder, highest);
}

bool ContainerNumbers::renew(const std::string& folder, uint32_t highest) {
  if (WriteIdToPath(path_.c_str(), kName, highest) != 0 || dirfsync(folder.c_str(), false) != 0)
    return false;
  file_ = Descriptor(OpenId(path_.c_str(), kName, &last_, highest));
  return static_cast<bool>(file_);
}

bool ContainerNumbers::use(uint32_t number) {
  if (number == 0 || number != last_ + 1) {
    ErrorA(ERANGE, "no container number is left after %lu", static_cast<unsigned long>(last_));
    return false;
  }
  int fd = file_.release();
  const bool stored = NextId(path_.c_str(), kName, &last_, &fd) == 0;
  file_ = Descriptor(fd);
  return stored;
}

}  // namespace dedup
