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
constexpr uint64_t kMaxBytes = UINT32_MAX;

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

/// Inline for speed, but the library also exports it.
[[gnu::used]] constexpr auto kMatches = &BloomFilter::Matches;

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
  if (bitmap == nullptr) return;
#pragma GCC unroll 7
  for (unsigned i = 0; i < kHashCount; ++i) Set(bitmap, Bit(fingerprint, i));
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
  if (bloom_ == nullptr) return MatchesWithoutBitmap() ? 1 : 0;
  const double clear_after_one = 1 - 1 / static_cast<double>(bitmap_size_);
  const double settings = static_cast<double>(hash_count_) * static_cast<double>(inserted_);
  return std::pow(1 - std::pow(clear_after_one, settings), hash_count_);
}

unsigned long BloomFilter::_calcHash(const crfp_digest_t& fingerprint, unsigned int i) const {
  return Bit(fingerprint, i);
}

bool BloomFilter::_matches(unsigned long bit) const {
  return bit < bitmap_size_ && Test(bloom_.get(), bit) != 0;
}

void BloomFilter::_insert(unsigned long bit) {
  if (bit < bitmap_size_) Set(bloom_.get(), bit);
}
