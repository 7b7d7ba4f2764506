// What the writer and the reader of an index file share: sizes, seals and the filter.
#pragma once

#include <kel/bloom.h>

#include <algorithm>
#include <bit>

#include "index_file.h"
#include "records.h"

namespace dedup::layout {

constexpr unsigned char kMark[8] = {'K', 'D', 'I', 'N', 'D', 'X', '1', '\n'};
/// The first block: mark, u64 records, u32 containers, u32 bytes of the bitmap, the seal of these
/// and of the summary behind the last block.
constexpr size_t kBlockSize = 4096;
constexpr size_t kHeadSize = sizeof kMark + 16;
/// A block: records, zeros, the seal of both.
constexpr size_t kContentSize = kBlockSize - sizeof(Fingerprint);
constexpr size_t kRecordsInBlock = kContentSize / sizeof(IndexRecord);
constexpr size_t kNameStartSize = 8;
constexpr size_t kCoveredSize = 12;

constexpr uint64_t blocks_for(uint64_t records) {
  return (records + kRecordsInBlock - 1) / kRecordsInBlock;
}
constexpr uint64_t offset_of_block(uint64_t number) { return (number + 1) * kBlockSize; }

inline uint64_t name_start(const Fingerprint& name) {
  return RecordReader(name.bytes).number<uint64_t>();
}

inline Fingerprint seal_of_block(const KelKey& key, uint64_t number, Bytes content) {
  RecordWriter place;
  place.text("index");
  place.number(offset_of_block(number));
  return fingerprint_of({{key.Bytes(), KelKey::kLength}, place.bytes(), content});
}

inline Fingerprint seal_of_summary(const KelKey& key, Bytes head, Bytes lists, Bytes bitmap) {
  RecordWriter place;
  place.text("index");
  return fingerprint_of({{key.Bytes(), KelKey::kLength}, place.bytes(), head, lists, bitmap});
}

/// Bytes of the bitmap for so many chunks: a power of two, of which every bit is used.
constexpr uint32_t filter_size(uint64_t records) {
  constexpr uint64_t kSmallest = 64;
  constexpr uint64_t kLargest = uint64_t{1} << 31;
  return static_cast<uint32_t>(std::bit_ceil(std::clamp(records, kSmallest, kLargest)));
}

constexpr double kFalsePositives = 0.03;

/// A name as the filter takes it: its first bytes follow again.
class FilterKey {
 public:
  explicit FilterKey(const Fingerprint& name) {
    std::memcpy(bytes_, name.bytes.data(), sizeof name);
    std::memcpy(bytes_ + sizeof name, name.bytes.data(), sizeof bytes_ - sizeof name);
  }
  const crfp_digest_t& get() const { return reinterpret_cast<const crfp_digest_t&>(bytes_); }

 private:
  unsigned char bytes_[40];
};

}  // namespace dedup::layout
