// The index file: which container holds a chunk, for more chunks than memory has room for. It holds
// names of chunks that only the key can make, in their order, in blocks that are read one at a
// time; in memory are a Bloom filter and where each block begins.
//
// The file says where to look and nothing else: whoever uses it finds the chunk in the table of the
// container, or does not believe it.
#pragma once

#include <kel/bloom.h>
#include <kel/cipher.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "fingerprint.h"

namespace dedup {

/// What stands for a chunk in the index file. It tells those without the key nothing: they cannot
/// find out whether a repository has data that they know.
Fingerprint index_name(const KelKey& key, const Fingerprint& chunk);

/// A record as it lies in the file.
struct IndexRecord {
  Fingerprint name;
  std::array<unsigned char, 4> container;  ///< big-endian
};
static_assert(sizeof(IndexRecord) == 36 && alignof(IndexRecord) == 1);

/// A container whose chunks are in the file.
struct CoveredContainer {
  uint32_t number;
  uint64_t size;  ///< of the container, in bytes
};

class IndexFile {
 public:
  explicit IndexFile(const KelKey& key) : key_(key) {}

  /// Reads what is kept in memory, and checks it. False when the file cannot be used: problem()
  /// then says why, and is empty when there is no file.
  bool open(const std::string& path);
  /// The container of a chunk, as far as the file knows.
  std::optional<uint32_t> find(const Fingerprint& chunk);
  /// The records of block `number`, valid until the next call; nothing when it is damaged, which
  /// damaged() remembers.
  std::span<const IndexRecord> read_block(uint64_t number);

  uint64_t blocks() const { return first_names_.size(); }
  uint64_t records() const { return records_; }
  /// In the order of their numbers.
  const std::vector<CoveredContainer>& containers() const { return containers_; }
  const std::string& problem() const { return problem_; }
  /// A block was found damaged, or the file's user saw that it is wrong.
  bool damaged() const { return damaged_; }
  void set_damaged() { damaged_ = true; }

 private:
  bool fails(std::string problem);
  bool read_summary(Bytes head);

  const KelKey& key_;
  Descriptor file_;
  uint64_t records_ = 0;
  std::optional<BloomFilter> filter_;
  std::vector<uint64_t> first_names_;  ///< the first bytes of each block's first name
  std::vector<CoveredContainer> containers_;
  std::vector<unsigned char> block_;
  std::string problem_;
  bool damaged_ = false;
};

}  // namespace dedup
