// Bloom filters against a model that reads a fingerprint as one long number, bit by bit.
#include <kel/bloom.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <new>
#include <random>
#include <set>
#include <vector>

#include "support/import_hook.h"
#include "support/reports.h"

struct crfp_digest_t {
  unsigned char bytes[35];
};

namespace {

using kel::testing::error;
using kel::testing::Fault;
using kel::testing::ReportCapture;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

crfp_digest_t random_digest(std::mt19937_64& random) {
  crfp_digest_t digest;
  for (unsigned char& byte : digest.bytes) byte = static_cast<unsigned char>(random());
  return digest;
}

/// The positions of a fingerprint in a filter that uses 2^bits bits.
std::vector<uint64_t> positions(const crfp_digest_t& digest, unsigned bits) {
  std::vector<uint64_t> all;
  for (unsigned hash = 0; hash < 7; ++hash) {
    uint64_t position = 0;
    for (unsigned bit = 0; bit < bits; ++bit) {
      const unsigned at = 36 * hash + bit;
      position |= uint64_t{digest.bytes[at / 8]} >> at % 8 & 1 ? uint64_t{1} << bit : 0;
    }
    all.push_back(position);
  }
  return all;
}

bool is_set(const unsigned char* bitmap, uint64_t bit) {
  return (bitmap[bit / 8] & 1 << bit % 8) != 0;
}

TEST(Bloom, TakesItsBitsFromTheFingerprint) {
  // n, and log2 of the bits that are used
  const std::pair<unsigned long, unsigned> sizes[] = {
      {1, 3}, {2, 4}, {3, 4}, {1000, 12}, {1024, 13}, {1 << 20, 23}, {(1 << 21) - 1, 23}};
  std::mt19937_64 random(1);
  for (const auto& [n, bits] : sizes) {
    BloomFilter filter(n, 0.25);
    EXPECT_EQ(filter.GetBufferSize(), n);
    EXPECT_EQ(filter.GetBitmapSize(), 8 * n);
    EXPECT_EQ(filter.GetExpectedFingerprints(), n);
    EXPECT_EQ(filter.GetHashFunctionCount(), 7u);
    EXPECT_EQ(filter.GetMaxFalsePositive(), 0.25);
    std::set<uint64_t> model;
    for (int round = 0; round < 200; ++round) {
      const crfp_digest_t digest = random_digest(random);
      const std::vector<uint64_t> at = positions(digest, bits);
      const bool known =
          std::all_of(at.begin(), at.end(), [&](auto p) { return model.contains(p); });
      ASSERT_EQ(filter.Matches(digest), known);
      for (unsigned i = 0; i < 7; ++i) {
        ASSERT_EQ(filter._calcHash(digest, i), at[i]);
        ASSERT_EQ(filter._matches(at[i]), model.contains(at[i]));
      }
      filter.Insert(digest);
      model.insert(at.begin(), at.end());
      ASSERT_TRUE(filter.Matches(digest));
    }
    EXPECT_EQ(filter.GetInsertedFingerPrints(), 200u);
    EXPECT_EQ(filter.GetBitsSet(), model.size());
    for (uint64_t bit = 0; bit < std::min<uint64_t>(8 * n, 1 << 16); ++bit)
      ASSERT_EQ(is_set(filter.GetBloom(), bit), model.contains(bit)) << bit;
    EXPECT_FALSE(filter._matches(8 * n));
    filter._insert(8 * n);
    EXPECT_EQ(filter.GetBitsSet(), model.size());
    filter._insert(8 * n - 1);
    EXPECT_EQ(filter.GetBloom()[n - 1] & 0x80, 0x80);
  }
}

TEST(Bloom, WritesTheBytesOfTheFormat) {
  // The worked example of docs/formats/bloom-bitmap.md.
  crfp_digest_t digest;
  for (size_t i = 0; i < sizeof digest.bytes; ++i)
    digest.bytes[i] = static_cast<unsigned char>(i + 1);
  BloomFilter filter(8, 0);
  filter.Insert(digest);
  EXPECT_THAT(std::vector<unsigned char>(filter.GetBloom(), filter.GetBloom() + 8),
              ElementsAre(0x02, 0x04, 0x08, 0x10, 0x01, 0x00, 0x01, 0x00));
}

TEST(Bloom, FalsePositivesAreAsManyAsComputed) {
  constexpr unsigned long kExpected = 1 << 16;
  constexpr int kProbes = 400000;
  std::mt19937_64 random(2);
  BloomFilter filter(kExpected, 0.03);
  EXPECT_EQ(filter.GetFalsePositiveProbability(), 0);
  // The textbook's approximation, for loads of a half and of everything.
  for (const double load : {0.5, 1.0}) {
    while (static_cast<double>(filter.GetInsertedFingerPrints()) < load * kExpected)
      filter.Insert(random_digest(random));
    const double computed = filter.GetFalsePositiveProbability();
    const double approximation = std::pow(1 - std::exp(-7 * load / 8), 7);
    EXPECT_NEAR(computed, approximation, approximation * 1e-3);
    int positives = 0;
    for (int i = 0; i < kProbes; ++i) positives += filter.Matches(random_digest(random));
    const double deviation = std::sqrt(computed * (1 - computed) / kProbes);
    // Five deviations of the probes, and 2% for how evenly this filter happened to fill.
    EXPECT_NEAR(static_cast<double>(positives) / kProbes, computed,
                5 * deviation + computed * 0.02);
  }
}

TEST(Bloom, BitmapsMoveBetweenFilters) {
  ReportCapture reports;
  std::mt19937_64 random(3);
  std::vector<crfp_digest_t> digests(2000);
  for (crfp_digest_t& digest : digests) digest = random_digest(random);
  BloomFilter source(700, 0.1);
  for (int i = 0; i < 500; ++i) source.Insert(digests[static_cast<size_t>(i)]);

  BloomFilter loaded(700, 0.1);
  loaded.SetBloom(source.GetBloom());
  EXPECT_EQ(loaded.GetInsertedFingerPrints(), 0u);
  loaded.SetInsertedFingerPrints(500);
  EXPECT_EQ(loaded.GetFalsePositiveProbability(), source.GetFalsePositiveProbability());
  BloomFilter copy(source);
  const BloomFilter read(copy);
  for (const crfp_digest_t& digest : digests) {
    ASSERT_EQ(loaded.Matches(digest), source.Matches(digest));
    ASSERT_EQ(read.Matches(digest), source.Matches(digest));
  }

  const uint64_t bits = source.GetBitsSet();
  for (const crfp_digest_t& digest : digests) copy.Insert(digest);
  EXPECT_EQ(source.GetBitsSet(), bits);
  EXPECT_EQ(source.GetInsertedFingerPrints(), 500u);
  EXPECT_EQ(copy.GetInsertedFingerPrints(), 2500u);

  copy.Empty();
  loaded.Init();
  for (const BloomFilter* filter : {&copy, &loaded}) {
    EXPECT_EQ(filter->GetBitsSet(), 0u);
    EXPECT_EQ(filter->GetInsertedFingerPrints(), 0u);
    EXPECT_EQ(filter->GetFalsePositiveProbability(), 0);
    EXPECT_FALSE(filter->Matches(digests[0]));
  }
  source.SetBloom(nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(reports.take(), ElementsAre(error(22, "SetBloom: invalid NULL parameter")));
  EXPECT_EQ(source.GetBitsSet(), bits);
}

/// A filter without a bitmap must never say no to what was inserted.
TEST(Bloom, WithoutABitmapExcludesNothing) {
  ReportCapture reports;
  std::mt19937_64 random(4);
  const crfp_digest_t digest = random_digest(random);
  const auto use_all = [&](BloomFilter& filter) {
    const unsigned char byte = 0xff;
    filter.Insert(digest);
    filter._insert(0);
    filter.SetBloom(&byte);
    EXPECT_TRUE(filter.Matches(digest));
    EXPECT_FALSE(filter._matches(0));
    EXPECT_EQ(filter.GetBloom(), nullptr);
    EXPECT_EQ(filter.GetBufferSize(), 0u);
    EXPECT_EQ(filter.GetBitmapSize(), 0u);
    EXPECT_EQ(filter.GetBitsSet(), 0u);
    EXPECT_EQ(filter.GetFalsePositiveProbability(), 1);
    EXPECT_EQ(filter.GetInsertedFingerPrints(), 1u);
    BloomFilter copy(filter);
    EXPECT_TRUE(copy.Matches(digest));
    filter.Empty();
  };

  BloomFilter none(0, 0.5);
  EXPECT_FALSE(none.Matches(digest));
  EXPECT_EQ(none.GetFalsePositiveProbability(), 0);
  use_all(none);
  EXPECT_FALSE(none.Matches(digest));
  EXPECT_THAT(reports.take(), IsEmpty());

  for (const unsigned long n : {1ul << 32, (1ul << 32) + 8, ~0ul}) {
    errno = 0;
    BloomFilter huge(n, 0.5);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(huge.Matches(digest));
    EXPECT_EQ(huge.GetExpectedFingerprints(), n);
    use_all(huge);
    EXPECT_TRUE(huge.Matches(digest));
  }
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("BloomFilter: 4294967296 expected fingerprints exceed the limit of 4294967295",
                  HasSubstr("4294967304"), HasSubstr("18446744073709551615")));

  BloomFilter source(4096, 0.5);
  source.Insert(digest);
  source.SetInsertedFingerPrints(0);
  using NoMemory = Fault<"_ZnamRKSt9nothrow_t", void*(size_t, const std::nothrow_t&)>;
  const auto without_memory = [](auto make) {
    const NoMemory fault(1, nullptr, ENOMEM);
    return make();
  };
  BloomFilter poor = without_memory([] { return BloomFilter(4096, 0.5); });
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_TRUE(poor.Matches(digest));
  use_all(poor);
  BloomFilter poor_copy = without_memory([&] { return BloomFilter(source); });
  EXPECT_TRUE(poor_copy.Matches(digest));
  use_all(poor_copy);
  const auto texts = reports.take_texts();
  EXPECT_EQ(texts.size(), 2u);
  EXPECT_THAT(texts, Each(HasSubstr("Could not allocate 4096 bytes (BloomFilter at line")));
  poor.Init();
  EXPECT_EQ(poor.GetBufferSize(), 4096u);
  EXPECT_FALSE(poor.Matches(digest));
}

}  // namespace
