// Bloom filters against a model that reads a fingerprint as one long number, bit by bit.
#include <kel/bloom.h>

#include <cmath>
#include <new>
#include <set>

struct crfp_digest_t {
  unsigned char bytes[35];
};

#include "support/test.h"

namespace {

using namespace kel::testing;

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

TEST(Bloom, TakesItsBitsFromTheFingerprint) {
  // n, and log2 of the bits that are used
  const std::pair<unsigned long, unsigned> sizes[] = {
      {1, 3}, {2, 4}, {3, 4}, {1000, 12}, {1024, 13}, {1 << 20, 23}, {(1 << 21) - 1, 23}};
  std::mt19937_64 random(1);
  for (const auto& [n, bits] : sizes) {
    BloomFilter filter(n, 0.25);
    EXPECT_EQ(filter.GetBufferSize(), n);
    EXPECT_EQ(filter.GetBitmapSize(), 8 * n);
    std::set<uint64_t> model;
    for (int round = 0; round < 200; ++round) {
      const crfp_digest_t digest = random_digest(random);
      const std::vector<uint64_t> at = positions(digest, bits);
      ASSERT_EQ(filter.Matches(digest),
                std::all_of(at.begin(), at.end(), [&](auto p) { return model.contains(p); }));
      for (unsigned i = 0; i < 7; ++i) {
        ASSERT_EQ(filter._calcHash(digest, i), at[i]);
        ASSERT_EQ(filter._matches(at[i]), model.contains(at[i]));
      }
      filter.Insert(digest);
      model.insert(at.begin(), at.end());
      ASSERT_TRUE(filter.Matches(digest));
    }
    EXPECT_EQ(filter.GetBitsSet(), model.size());
    for (uint64_t bit = 0; bit < std::min<uint64_t>(8 * n, 1 << 16); ++bit)
      ASSERT_EQ((filter.GetBloom()[bit / 8] & 1 << bit % 8) != 0, model.contains(bit)) << bit;
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
  constexpr int kProbes = 100000;
  std::mt19937_64 random(2);
  BloomFilter filter(kExpected, 0.03);
  EXPECT_EQ(filter.GetFalsePositiveProbability(), 0);
  while (filter.GetInsertedFingerPrints() < kExpected) filter.Insert(random_digest(random));
  const double computed = filter.GetFalsePositiveProbability();
  EXPECT_NEAR(computed, std::pow(1 - std::exp(-7.0 / 8), 7), computed * 1e-3);
  int positives = 0;
  for (int i = 0; i < kProbes; ++i) positives += filter.Matches(random_digest(random));
  EXPECT_NEAR(static_cast<double>(positives) / kProbes, computed, computed * 0.1);
}

TEST(Bloom, BitmapsMoveBetweenFilters) {
  ReportCapture reports;
  std::mt19937_64 random(3);
  std::vector<crfp_digest_t> digests(2000);
  for (crfp_digest_t& digest : digests) digest = random_digest(random);
  BloomFilter source(700, 0.1);
  for (size_t i = 0; i < 500; ++i) source.Insert(digests[i]);

  BloomFilter loaded(700, 0.1);
  loaded.SetBloom(source.GetBloom());
  EXPECT_EQ(loaded.GetInsertedFingerPrints(), 0u);
  loaded.SetInsertedFingerPrints(500);
  EXPECT_EQ(loaded.GetFalsePositiveProbability(), source.GetFalsePositiveProbability());
  BloomFilter copy(source);
  const BloomFilter read(copy);
  for (const crfp_digest_t& digest : digests) {
    copy.Insert(digest);
    ASSERT_EQ(loaded.Matches(digest), source.Matches(digest));
    ASSERT_EQ(read.Matches(digest), source.Matches(digest));
  }
  EXPECT_EQ(source.GetInsertedFingerPrints(), 500u);
  EXPECT_EQ(copy.GetInsertedFingerPrints(), 2500u);

  copy.Empty();
  loaded.Init();
  for (const BloomFilter* filter : {&copy, &loaded})
    EXPECT_EQ(filter->GetBitsSet() + filter->GetInsertedFingerPrints(), 0u);
  source.SetBloom(nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(source.Matches(digests[0]));
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
    EXPECT_TRUE(BloomFilter(filter).Matches(digest));
    EXPECT_FALSE(filter._matches(0));
    EXPECT_EQ(filter.GetBloom(), nullptr);
    EXPECT_EQ(filter.GetFalsePositiveProbability(), 1);
    filter.Empty();
  };
  BloomFilter none(0, 0.5);
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(none.Matches(digest));
    use_all(none);
  }
  for (const unsigned long n : {1ul << 32, ~0ul}) {
    errno = 0;
    BloomFilter huge(n, 0.5);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(reports.take().size(), 1u);
    EXPECT_TRUE(huge.Matches(digest));
    use_all(huge);
    EXPECT_TRUE(huge.Matches(digest));
  }
  BloomFilter source(4096, 0.5);
  source.Insert(digest);
  source.SetInsertedFingerPrints(0);
  using NewArray = void*(size_t, const std::nothrow_t&);
  const auto without_memory = [](auto make) {
    const Fault<"_ZnamRKSt9nothrow_t", NewArray> fault(1, nullptr, ENOMEM);
    return make();
  };
  BloomFilter poor = without_memory([] { return BloomFilter(4096, 0.5); });
  EXPECT_EQ(errno, ENOMEM);
  BloomFilter poor_copy = without_memory([&] { return BloomFilter(source); });
  for (BloomFilter* filter : {&poor, &poor_copy}) {
    EXPECT_TRUE(filter->Matches(digest));
    use_all(*filter);
  }
  poor.Init();
  EXPECT_EQ(poor.GetBufferSize(), 4096u);
  EXPECT_FALSE(poor.Matches(digest));
}

}  // namespace
