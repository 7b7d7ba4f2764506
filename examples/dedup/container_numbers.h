// The numbers of containers: each is used once, also after a crash, and when containers were moved
// away.
#pragma once

#include <cstdint>
#include <string>

#include "descriptor.h"

namespace dedup {

class ContainerNumbers {
 public:
  /// Reads the last number from the id file `path` in `folder`. One that is missing, damaged or
  /// behind is made anew from `highest`, the highest number that is known from elsewhere. False
  /// after a report.
  bool open(const std::string& path, const std::string& folder, uint32_t highest);

  /// The number that was used last.
  uint32_t last() const { return static_cast<uint32_t>(last_); }
  /// Makes durable that `number`, the one after the last, is used; false after a report. To be
  /// called before a container appears under it.
  bool use(uint32_t number);

 private:
  bool renew(const std::string& folder, uint32_t highest);

  std::string path_;
  Descriptor file_;
  uint64_t last_ = 0;
};

}  // namespace dedup
