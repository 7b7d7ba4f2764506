// Chunks by their fingerprint, never other bytes than those asked for.
#pragma once

#include <list>
#include <set>

#include "container.h"

namespace dedup {

class ChunkReader {
 public:
  explicit ChunkReader(const Repository& repository) : repository_(repository) {}

  /// Learns where the chunks are. Containers that cannot be read are reported; false after a
  /// report when nothing can be read at all.
  bool load();

  /// The bytes of a chunk, valid until the next call, or nothing when it is missing or damaged. A
  /// container is named in a report the first time something is wrong with it.
  Bytes read(const Fingerprint& chunk, uint32_t length);

  /// Containers that something is wrong with.
  size_t damaged() const { return unreadable_ + damaged_.size(); }

 private:
  struct Loaded {
    uint32_t number;
    std::vector<unsigned char> data;  ///< empty: cannot be read
  };
  const Loaded& load_container(uint32_t number);
  void report(uint32_t number, const char* problem);

  const Repository& repository_;
  Index index_;
  std::list<Loaded> loaded_;    ///< most recently used first
  size_t unreadable_ = 0;       // containers whose table is damaged
  std::set<uint32_t> damaged_;  // those whose data are
};

}  // namespace dedup
