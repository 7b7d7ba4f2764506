// Chunks by their fingerprint, never other bytes than those asked for.
#pragma once

#include <list>

#include "chunk_index.h"

namespace dedup {

class ChunkReader {
 public:
  ChunkReader(const Repository& repository, ChunkIndex& index)
      : repository_(repository), index_(index) {}

  /// The bytes of a chunk, valid until the next call, or nothing when it is missing or damaged. A
  /// container is named in a report the first time something is wrong with it.
  Bytes read(const Fingerprint& chunk, uint32_t length);

 private:
  struct Loaded {
    uint32_t number;
    std::vector<unsigned char> data;  ///< empty: cannot be read
  };
  const Loaded& load_container(uint32_t number);

  const Repository& repository_;
  ChunkIndex& index_;
  std::list<Loaded> loaded_;  ///< most recently used first
};

}  // namespace dedup
