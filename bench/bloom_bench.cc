// Bloom filters beside a textbook one with the same number of bits and hashes: double hashing of
// one 64-bit hash, which it gets for nothing. Filters are full, as large as they were planned, so
// that the counters of "match_new" show the worst rate of false positives: measured, and computed.
#include <kel/bloom.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

struct crfp_digest_t {
  uint64_t words[5];
};

namespace {

class TextbookFilter {
 public:
  explicit TextbookFilter(uint64_t bits) : mask_(bits - 1), words_(bits / 64) {}

  void insert(uint64_t hash) {
    const uint64_t step = hash >> 17 | hash << 47;
    for (int i = 0; i < 7; ++i, hash += step)
      words_[(hash & mask_) / 64] |= uint64_t{1} << (hash & mask_) % 64;
  }
  bool matches(uint64_t hash) const {
    const uint64_t step = hash >> 17 | hash << 47;
    for (int i = 0; i < 7; ++i, hash += step)
      if ((words_[(hash & mask_) / 64] >> (hash & mask_) % 64 & 1) == 0) return false;
    return true;
  }

 private:
  uint64_t mask_;
  std::vector<uint64_t> words_;
};

/// The fingerprint with a number: the digest of nothing, but as evenly spread (splitmix64).
crfp_digest_t fingerprint(uint64_t number) {
  crfp_digest_t digest;
  uint64_t state = number * 5;
  for (uint64_t& word : digest.words) {
    uint64_t z = ++state * 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    word = z ^ z >> 31;
  }
  return digest;
}

std::vector<crfp_digest_t> fingerprints(uint64_t first, uint64_t count) {
  std::vector<crfp_digest_t> all;
  all.reserve(count);
  for (uint64_t i = 0; i < count; ++i) all.push_back(fingerprint(first + i));
  return all;
}

constexpr uint64_t kNew = uint64_t{1} << 40;

/// Two full filters for `n` fingerprints, with some that they hold and some that they do not.
struct Full {
  explicit Full(uint64_t n)
      : kel(n, 0.03),
        textbook(8 * n),
        known(fingerprints(0, std::min(n, uint64_t{1} << 20))),
        fresh(fingerprints(kNew, uint64_t{1} << 20)) {
    for (uint64_t i = 0; i < n; ++i) {
      const crfp_digest_t digest = fingerprint(i);
      kel.Insert(digest);
      textbook.insert(digest.words[0]);
    }
  }

  BloomFilter kel;
  TextbookFilter textbook;
  std::vector<crfp_digest_t> known;
  std::vector<crfp_digest_t> fresh;
};

const Full& full(const benchmark::State& state) {
  static std::map<int64_t, std::unique_ptr<Full>> all;
  std::unique_ptr<Full>& entry = all[state.range(0)];
  if (entry == nullptr) entry = std::make_unique<Full>(static_cast<uint64_t>(state.range(0)));
  return *entry;
}

/// Calls `use` with one fingerprint an iteration, from the first to the last and again.
template <class Use>
void each(benchmark::State& state, const std::vector<crfp_digest_t>& digests, Use use) {
  const crfp_digest_t* next = digests.data();
  const crfp_digest_t* end = next + digests.size();
  for (auto _ : state) {
    use(*next);
    if (++next == end) next = digests.data();
  }
  state.SetItemsProcessed(state.iterations());
}

void kel_insert(benchmark::State& state) {
  BloomFilter filter(static_cast<uint64_t>(state.range(0)), 0.03);
  each(state, full(state).fresh, [&](const crfp_digest_t& digest) { filter.Insert(digest); });
}
void textbook_insert(benchmark::State& state) {
  TextbookFilter filter(8 * static_cast<uint64_t>(state.range(0)));
  each(state, full(state).fresh, [&](const crfp_digest_t& d) { filter.insert(d.words[0]); });
}

void kel_match(benchmark::State& state, std::vector<crfp_digest_t> Full::*digests) {
  const Full& filters = full(state);
  uint64_t hits = 0;
  each(state, filters.*digests, [&](const crfp_digest_t& d) { hits += filters.kel.Matches(d); });
  state.counters["matched"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
  if (digests == &Full::fresh)
    state.counters["computed"] = filters.kel.GetFalsePositiveProbability();
}
void textbook_match(benchmark::State& state, std::vector<crfp_digest_t> Full::*digests) {
  const Full& filters = full(state);
  uint64_t hits = 0;
  each(state, filters.*digests,
       [&](const crfp_digest_t& d) { hits += filters.textbook.matches(d.words[0]); });
  state.counters["matched"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
}

constexpr int64_t kSmall = 64 << 10;
constexpr int64_t kLarge = 64 << 20;

BENCHMARK(kel_insert)->Name("bloom_insert/64KiB/kel")->Arg(kSmall);
BENCHMARK(textbook_insert)->Name("bloom_insert/64KiB/textbook")->Arg(kSmall);
BENCHMARK(kel_insert)->Name("bloom_insert/64MiB/kel")->Arg(kLarge);
BENCHMARK(textbook_insert)->Name("bloom_insert/64MiB/textbook")->Arg(kLarge);

#define MATCH(function, digests, name, size) \
  BENCHMARK_CAPTURE(function, digests, &Full::digests)->Name(name)->Arg(size)
MATCH(kel_match, known, "bloom_match_known/64KiB/kel", kSmall);
MATCH(textbook_match, known, "bloom_match_known/64KiB/textbook", kSmall);
MATCH(kel_match, known, "bloom_match_known/64MiB/kel", kLarge);
MATCH(textbook_match, known, "bloom_match_known/64MiB/textbook", kLarge);
MATCH(kel_match, fresh, "bloom_match_new/64KiB/kel", kSmall);
MATCH(textbook_match, fresh, "bloom_match_new/64KiB/textbook", kSmall);
MATCH(kel_match, fresh, "bloom_match_new/64MiB/kel", kLarge);
MATCH(textbook_match, fresh, "bloom_match_new/64MiB/textbook", kLarge);

}  // namespace
