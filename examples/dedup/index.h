// Chunks and where they are, in memory.
#pragma once

#include <kel/hashtree.h>

#include <optional>

#include "fingerprint.h"

namespace dedup {

struct Location {
  uint32_t container;
  uint32_t offset;  ///< in the container's data
  uint32_t length;
};

class Index {
 public:
  Index();
  ~Index();
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  /// False when memory ran out, which is reported.
  bool good() const { return tree_ != nullptr; }
  /// Notes a chunk; an earlier location of the same chunk gives way. False when memory ran out,
  /// which is reported.
  bool put(const Fingerprint& chunk, const Location& location);
  std::optional<Location> find(const Fingerprint& chunk) const;
  void clear();
  uint64_t size() const;

 private:
  KelHashTree* tree_;
};

}  // namespace dedup
