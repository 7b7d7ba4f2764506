// Bloom filter: the bitmap, and bit positions taken from the bits of a fingerprint.
#include <kel/bloom.h>

#include <sys/mman.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <new>

#include "internal/bytes.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kClass[] = "BloomFilter";
constexpr uint32_t kHashCount = 7;
constexpr unsigned kHashBits = 36;  // distance of two hashes in a fingerprint
constexpr uint64_t kMaxBytes = UINT32_MAX;

const unsigned char* bytes_of(const crfp_digest_t& fingerprint) {
  return reinterpret_cast<const unsigned char*>(&fingerprint);
}

/// The bits of a fingerprint from those of hash `i` upward; at least 60 are good.
inline uint64_t hash_bits(const unsigned char* fingerprint, unsigned i) {
  const unsigned first = kHashBits * i;
  return load_le<uint64_t>(fingerprint + first / 8) >> first % 8;
}

/// Where the little-endian word of 64 bits starts that holds a bit.
constexpr uint64_t word_of(uint64_t bit) { return bit / 64 * 8; }

inline uint64_t test(const unsigned char* bitmap, uint64_t bit) {
  return load_le<uint64_t>(bitmap + word_of(bit)) >> bit % 64 & 1;
}

inline void set(unsigned char* bitmap, uint64_t bit) {
  unsigned char* word = bitmap + word_of(bit);
  store_le(word, load_le<uint64_t>(word) | uint64_t{1} << bit % 64);
}

/// Random look-ups in a large bitmap miss the TLB as often as the cache unless pages are large.
void ask_for_large_pages(unsigned char* bitmap, uint64_t size) {
  constexpr uint64_t kWorthwhile = 4 << 20;
  if (size < kWorthwhile) return;
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto start = (reinterpret_cast<uintptr_t>(bitmap) + page - 1) & ~(page - 1);
  const auto end = (reinterpret_cast<uintptr_t>(bitmap) + size) & ~(page - 1);
  madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);  // a wish: may be refused
}

/// Memory for a bitmap, not cleared, in whole words; null after a report.
std::unique_ptr<unsigned char[]> allocate(uint64_t size) {
  constexpr uint64_t kWord = sizeof(uint64_t);
  const uint64_t whole = (size + kWord - 1) / kWord * kWord;
  std::unique_ptr<unsigned char[]> bitmap(new (std::nothrow) unsigned char[whole]);
  if (bitmap == nullptr) return fail_allocation(nullptr, size, kClass);
  ask_for_large_pages(bitmap.get(), whole);
  store_le(bitmap.get() + whole - kWord, uint64_t{0});
  return bitmap;
}

}  // namespace

BloomFilter::BloomFilter(unsigned long expected, double max_false_positive)
    : expected_(expected), max_false_positive_(max_false_positive), hash_count_(kHashCount) {
  Init();
}

BloomFilter::BloomFilter(const BloomFilter& other)
    : expected_(other.expected_),
      max_false_positive_(other.max_false_positive_),
      hash_count_(other.hash_count_),
      inserted_(other.inserted_) {
  if (other.bloom_ == nullptr || (bloom_ = allocate(other.buffer_size_)) == nullptr) return;
  buffer_size_ = other.buffer_size_;
  bitmap_size_ = other.bitmap_size_;
  hash_mask_ = other.hash_mask_;
  std::memcpy(bloom_.get(), other.bloom_.get(), buffer_size_);
}

BloomFilter::~BloomFilter() = default;

void BloomFilter::Init() {
  bloom_.reset();
  buffer_size_ = 0;
  bitmap_size_ = hash_mask_ = inserted_ = 0;
  if (expected_ == 0) return;
  if (expected_ > kMaxBytes) {
    report_error(EINVAL, "%s: %lu expected fingerprints exceed the limit of %lu", kClass, expected_,
                 kMaxBytes);
    errno = EINVAL;
    return;
  }
  bloom_ = allocate(expected_);
  if (bloom_ == nullptr) return;
  buffer_size_ = static_cast<uint32_t>(expected_);
  bitmap_size_ = 8 * expected_;
  hash_mask_ = std::bit_floor(bitmap_size_) - 1;
  std::memset(bloom_.get(), 0, buffer_size_);
}

void BloomFilter::Insert(const crfp_digest_t& fingerprint) {
  ++inserted_;
  unsigned char* bitmap = bloom_.get();
  if (bitmap == nullptr) [[unlikely]]
    return;
  const unsigned char* bytes = bytes_of(fingerprint);
  const uint64_t mask = hash_mask_;
#pragma GCC unroll 7
  for (unsigned i = 0; i < kHashCount; ++i) set(bitmap, hash_bits(bytes, i) & mask);
}

bool BloomFilter::Matches(const crfp_digest_t& fingerprint) const {
  const unsigned char* bitmap = bloom_.get();
  if (bitmap == nullptr) [[unlikely]]
    return expected_ != 0 || inserted_ != 0;
  const unsigned char* bytes = bytes_of(fingerprint);
  const uint64_t mask = hash_mask_;
  const auto hit = [=](unsigned i) { return test(bitmap, hash_bits(bytes, i) & mask); };
  // Bits that are tested together are fetched together, without a branch that would be mispredicted
  // half of the time; one bit alone tells most in a filter that is not full yet.
  return hit(0) != 0 && (hit(1) & hit(2)) != 0 && (hit(3) & hit(4) & hit(5) & hit(6)) != 0;
}

void BloomFilter::Empty() {
  if (bloom_ != nullptr) std::memset(bloom_.get(), 0, buffer_size_);
  inserted_ = 0;
}

unsigned char* BloomFilter::GetBloom() const { return bloom_.get(); }

void BloomFilter::SetBloom(const unsigned char* bitmap) const {
  if (bitmap == nullptr) {
    fail(0, EINVAL, "%s: invalid NULL parameter", __func__);
    return;
  }
  if (bloom_ != nullptr) std::memmove(bloom_.get(), bitmap, buffer_size_);
}

uint32_t BloomFilter::GetBufferSize() const { return buffer_size_; }

uint64_t BloomFilter::GetBitmapSize() const { return bitmap_size_; }

uint64_t BloomFilter::GetBitsSet() const {
  const unsigned char* bitmap = bloom_.get();
  uint64_t count = 0;
  uint64_t at = 0;
  for (; at + 8 <= buffer_size_; at += 8)
    count += static_cast<uint64_t>(std::popcount(load_le<uint64_t>(bitmap + at)));
  for (; at < buffer_size_; ++at) count += static_cast<uint64_t>(std::popcount(bitmap[at]));
  return count;
}

uint32_t BloomFilter::GetHashFunctionCount() const { return hash_count_; }

uint64_t BloomFilter::GetExpectedFingerprints() const { return expected_; }

double BloomFilter::GetMaxFalsePositive() const { return max_false_positive_; }

uint64_t BloomFilter::GetInsertedFingerPrints() const { return inserted_; }

void BloomFilter::SetInsertedFingerPrints(unsigned long count) { inserted_ = count; }

double BloomFilter::GetFalsePositiveProbability() const {
  if (bloom_ == nullptr) return expected_ != 0 || inserted_ != 0 ? 1 : 0;
  const double clear_after_one = 1 - 1 / static_cast<double>(bitmap_size_);
  const double settings = static_cast<double>(hash_count_) * static_cast<double>(inserted_);
  return std::pow(1 - std::pow(clear_after_one, settings), hash_count_);
}

unsigned long BloomFilter::_calcHash(const crfp_digest_t& fingerprint, unsigned int i) const {
  return hash_bits(bytes_of(fingerprint), i) & hash_mask_;
}

bool BloomFilter::_matches(unsigned long bit) const {
  return bit < bitmap_size_ && test(bloom_.get(), bit) != 0;
}

void BloomFilter::_insert(unsigned long bit) {
  if (bit < bitmap_size_) set(bloom_.get(), bit);
}
