/**
 * @file
 * Bloom filter over fingerprints: whether a fingerprint may have been seen before, in a fixed
 * amount of memory.
 *
 * A filter takes one byte per expected fingerprint and nothing else. "No" is always right; "yes" is
 * wrong for about 2.3% of the fingerprints that were never inserted once as many were inserted as
 * expected, and for 0.07% at half of that. Fingerprints are digests already (kel/digest.h), evenly
 * spread, so their own bits are the hash values and nothing is computed; a look-up costs at most 7
 * cache misses, which overlap, and mostly one where the filter has room and the fingerprint is new.
 *
 * **Choose a power of two.** Of the 8 * n bits of a filter for n fingerprints only the first 2^t
 * are used, the largest power of two that fits. Just below a power of two nearly half of the memory
 * lies idle, the other half fills twice as fast, and "yes" is wrong for 26% at the end.
 * GetFalsePositiveProbability() computes with all 8 * n bits: that is right for powers of two and
 * too low for other sizes.
 *
 * The bitmap is a format (docs/formats/bloom-bitmap.md): its bytes can be stored or sent, and
 * loaded into a filter that was made for the same n. Take the count of inserted fingerprints along.
 *
 * Limits: n from 1 to 2^32 - 1. A larger n is reported (EINVAL), and so is a lack of memory
 * (ENOMEM): such a filter has no bitmap and excludes nothing, so that its answers are useless but
 * never wrong; GetBloom() is null, and all its sizes and counts of bits are 0. A filter for n = 0
 * has no bitmap either; it excludes everything as long as nothing was inserted, and then nothing.
 *
 * Threads: any number may ask at a time while none changes the filter.
 *
 * @code
 * struct crfp_digest_t { unsigned char bytes[40]; };    // the caller's; at least 35 bytes
 *
 * BloomFilter seen(1 << 26, 0.03);                      // 64 MiB
 * if (!seen.Matches(digest) || !index.Find(digest)) {   // most new ones never reach the index
 *   index.Add(digest);
 *   seen.Insert(digest);
 * }
 * @endcode
 */
#ifndef KEL_BLOOM_H
#define KEL_BLOOM_H

#include <kel/export.h>

#ifdef __cplusplus

#include <stdint.h>
#include <string.h>

#include <memory>

/**
 * A fingerprint: a record of the caller's that starts with at least 35 readable bytes of evenly
 * spread bits. A digest that is shorter (32 bytes) needs 3 more bytes of such bits behind it, for
 * instance its first three again.
 */
struct crfp_digest_t;

/** A Bloom filter with 7 hash values. Copies share nothing. */
class KEL_API BloomFilter {
 public:
  /**
   * Makes an empty filter.
   *
   * @param expected            how many fingerprints are going to be inserted: the size in bytes
   * @param max_false_positive  kept for GetMaxFalsePositive(); does not influence the size
   */
  BloomFilter(unsigned long expected, double max_false_positive);
  /** Copies the bitmap too. Without memory for it the copy excludes nothing (ENOMEM, reported). */
  BloomFilter(const BloomFilter& other);
  BloomFilter& operator=(const BloomFilter&) = delete;
  virtual ~BloomFilter();

  /** Remembers a fingerprint, and counts it even if it had been inserted before. */
  void Insert(const crfp_digest_t& fingerprint);
  /** False: this fingerprint was never inserted. True: it was, or it looks so by chance. */
  KEL_API bool Matches(const crfp_digest_t& fingerprint) const;
  /** Forgets all fingerprints, and their count. */
  void Empty();
  /** Starts over as the constructor does, with an empty bitmap of its own: a filter that found no
   * memory gets another chance. Pointers from GetBloom() become invalid. */
  void Init();

  /** @name The bitmap
   * Bit b is bit b mod 8, counted from the least significant, of byte b / 8. @{ */
  /** GetBufferSize() bytes, owned by the filter; null when there is no bitmap. May be written to,
   * for instance to load a stored bitmap in place. */
  unsigned char* GetBloom() const;
  /** Loads the GetBufferSize() bytes at `bitmap`; the count of inserted fingerprints stays. */
  void SetBloom(const unsigned char* bitmap) const;
  /** Size of the bitmap in bytes: the expected fingerprints. */
  uint32_t GetBufferSize() const;
  /** Size of the bitmap in bits. */
  uint64_t GetBitmapSize() const;
  /** Number of bits that are set; reads the whole bitmap. */
  uint64_t GetBitsSet() const;
  /** @} */

  /** Hash values per fingerprint: 7. */
  uint32_t GetHashFunctionCount() const;
  /** As given to the constructor. */
  uint64_t GetExpectedFingerprints() const;
  /** As given to the constructor. */
  double GetMaxFalsePositive() const;
  /** Calls of Insert() since the filter was last empty. */
  uint64_t GetInsertedFingerPrints() const;
  /** Sets that count, for a filter whose bitmap was loaded. */
  void SetInsertedFingerPrints(unsigned long count);
  /** The chance that Matches() is true for a fingerprint that was not inserted, from the number i
   * of inserted ones and m = GetBitmapSize(): (1 - (1 - 1/m)^(7i))^7. See above for sizes that are
   * no powers of two. Without a bitmap 1, or 0 where Matches() is false. */
  double GetFalsePositiveProbability() const;

  /** @name One hash value, one bit
   * @{ */
  /** The bit that stands for `fingerprint` in hash `i`, which is below GetHashFunctionCount(). */
  unsigned long _calcHash(const crfp_digest_t& fingerprint, unsigned int i) const;
  /** Whether a bit is set; false beyond the bitmap. */
  bool _matches(unsigned long bit) const;
  /** Sets a bit; nothing beyond the bitmap. */
  void _insert(unsigned long bit);
  /** @} */

 private:
  static constexpr unsigned kHashCount = 7;
  static constexpr unsigned kHashDistance = 36;  // of two hashes in a fingerprint, in bits

  // Little-endian words: the library is for x86-64.
  static uint64_t Load(const unsigned char* from) {
    uint64_t word;
    memcpy(&word, from, sizeof word);
    return word;
  }
  uint64_t Bit(const crfp_digest_t& fingerprint, unsigned i) const {
    const unsigned first = kHashDistance * i;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&fingerprint);
    return Load(bytes + first / 8) >> first % 8 & hash_mask_;
  }
  // The word that holds a bit, as the bitmap is allocated in whole words.
  static unsigned char* WordOf(unsigned char* bitmap, uint64_t bit) {
    return bitmap + bit / 64 * 8;
  }
  static uint64_t Test(unsigned char* bitmap, uint64_t bit) {
    return Load(WordOf(bitmap, bit)) >> bit % 64 & 1;
  }
  static void Set(unsigned char* bitmap, uint64_t bit) {
    const uint64_t word = Load(WordOf(bitmap, bit)) | uint64_t{1} << bit % 64;
    memcpy(WordOf(bitmap, bit), &word, sizeof word);
  }
  bool MatchesWithoutBitmap() const { return expected_ != 0 || inserted_ != 0; }

  uint64_t expected_;
  double max_false_positive_;
  uint32_t buffer_size_ = 0;  // bytes
  uint64_t bitmap_size_ = 0;  // bits
  uint32_t hash_count_;
  std::unique_ptr<unsigned char[]> bloom_;
  uint64_t inserted_ = 0;
  uint64_t hash_mask_ = 0;  // 2^t - 1
};

inline bool BloomFilter::Matches(const crfp_digest_t& fingerprint) const {
  unsigned char* bitmap = bloom_.get();
  if (bitmap == nullptr) return MatchesWithoutBitmap();
  const auto hit = [&](unsigned i) { return Test(bitmap, Bit(fingerprint, i)); };
  // Bits that are tested together are fetched together, without a branch that would be mispredicted
  // half of the time; one bit alone tells most in a filter that is not full yet.
  return hit(0) != 0 && (hit(1) & hit(2)) != 0 && (hit(3) & hit(4) & hit(5) & hit(6)) != 0;
}

#endif
#endif
