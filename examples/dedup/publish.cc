#include "publish.h"

#include <kel/logging.h>
#include <kel/safeio.h>

#include <cerrno>
#include <cstring>

namespace dedup {

bool publish(int file, const std::string& temporary, const std::string& directory) {
  if (safe_fsync(file) != 0) {
    ErrorA(errno, "could not flush %s: %s", temporary.c_str(), std::strerror(errno));
    return false;
  }
  const std::string final_path = directory + temporary.substr(temporary.rfind('/'));
  return rename_dirfsync(temporary.c_str(), final_path.c_str(), directory.c_str(), false) == 0;
}

}  // namespace dedup
