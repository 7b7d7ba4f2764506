// Containers beside what a user would take instead: blocks beside malloc and mimalloc, hash trees
// beside absl::node_hash_map, std::unordered_map and, for walks in order, std::set.
#include <kel/hashtree.h>
#include <kel/preallocator.h>

#include <absl/container/node_hash_map.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace {

// Blocks: one of the live blocks, chosen at random, is given back and another one taken.

constexpr size_t kLiveBlocks = 100'000;
constexpr size_t kBlockSize = 64;

template <class Take, class Give>
void replace_blocks(benchmark::State& state, Take take, Give give) {
  constexpr size_t kChoices = 1 << 16;
  std::mt19937 random(1);
  std::vector<uint32_t> choices(kChoices);
  for (uint32_t& choice : choices) choice = static_cast<uint32_t>(random() % kLiveBlocks);
  std::vector<void*> live(kLiveBlocks);
  for (void*& block : live) block = take();
  std::shuffle(live.begin(), live.end(), random);
  size_t n = 0;
  for (auto _ : state) {
    void*& block = live[choices[n++ % kChoices]];
    give(block);
    block = take();
  }
  for (void* block : live) give(block);
}

void blocks_kel(benchmark::State& state) {
  preallocator_t* a = preallocator_construct(1 << 20, kBlockSize, UINT64_MAX, 0, nullptr, nullptr);
  replace_blocks(
      state, [&] { return preallocator_alloc(a); }, [&](void* p) { preallocator_free(a, p); });
  preallocator_destruct(a);
}
BENCHMARK(blocks_kel)->Name("block_replace/64B/kel");

void blocks_malloc(benchmark::State& state) {
  replace_blocks(
      state,
      [] {
        void* block = std::malloc(kBlockSize);
        benchmark::DoNotOptimize(block);
        return block;
      },
      [](void* p) { std::free(p); });
}
BENCHMARK(blocks_malloc)->Name("block_replace/64B/malloc");

/// Loaded by hand: a program that is linked with mimalloc has no other malloc().
void blocks_mimalloc(benchmark::State& state) {
  void* library = dlopen("libmimalloc.so.2", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return state.SkipWithError(dlerror());
  const auto take = reinterpret_cast<void* (*)(size_t)>(dlsym(library, "mi_malloc"));
  const auto give = reinterpret_cast<void (*)(void*)>(dlsym(library, "mi_free"));
  replace_blocks(
      state, [=] { return take(kBlockSize); }, [=](void* p) { give(p); });
}
BENCHMARK(blocks_mimalloc)->Name("block_replace/64B/mimalloc");

// Indexes of records under a fingerprint, whose bits are evenly spread.

struct Fingerprint {
  unsigned char bytes[32];
  bool operator==(const Fingerprint& other) const {
    return std::memcmp(bytes, other.bytes, sizeof bytes) == 0;
  }
  bool operator<(const Fingerprint& other) const {
    return std::memcmp(bytes, other.bytes, sizeof bytes) < 0;
  }
};

struct Record {
  Fingerprint key;
  uint64_t value;
};
static_assert(sizeof(Record) == 40);

struct FirstBytes {
  size_t operator()(const Fingerprint& key) const {
    size_t hash;
    std::memcpy(&hash, key.bytes, sizeof hash);
    return hash;
  }
};

/// The first eight bytes nearly always decide.
int32_t compare(void*, const void* a, const void* b) {
  for (size_t at = 0; at < sizeof(Fingerprint); at += 8) {
    uint64_t x, y;
    std::memcpy(&x, static_cast<const char*>(a) + at, sizeof x);
    std::memcpy(&y, static_cast<const char*>(b) + at, sizeof y);
    if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
  }
  return 0;
}

uint32_t hash(void*, const void* record) {
  uint32_t value;
  std::memcpy(&value, record, sizeof value);
  return value;
}

/// Records in the order of their insertion, and the same in another order for searches; made once
/// for each count.
struct Records {
  std::vector<Record> all;
  std::vector<Record> shuffled;

  explicit Records(size_t count) : all(count) {
    std::mt19937_64 random(count);
    for (Record& record : all) {
      for (size_t at = 0; at < sizeof record.key; at += 8) {
        const uint64_t word = random();
        std::memcpy(record.key.bytes + at, &word, sizeof word);
      }
      record.value = random();
    }
    shuffled = all;
    std::shuffle(shuffled.begin(), shuffled.end(), random);
  }

  static const Records& of(size_t count) {
    static std::unique_ptr<Records> last;
    if (last == nullptr || last->all.size() != count) {
      last.reset();
      last = std::make_unique<Records>(count);
    }
    return *last;
  }
};

/// Buckets for about one record each.
uint32_t bits_for(size_t count) {
  uint32_t bits = 0;
  while ((size_t{2} << bits) * 2 <= count * 3) ++bits;
  return bits;
}

class KelIndex {
 public:
  explicit KelIndex(size_t count) : KelIndex(count, bits_for(count)) {}
  KelIndex(size_t count, uint32_t bits)
      : tree_(KelHashTreeNew(bits, sizeof(Record), compare, hash, nullptr, slab_size(count))) {}
  ~KelIndex() { KelHashTreeDelete(&tree_); }
  KelIndex(const KelIndex&) = delete;
  KelIndex& operator=(const KelIndex&) = delete;

  void insert(const Record& record) { KelHashTreeFindOrInsert(tree_, &record, nullptr); }
  uint64_t find(const Record& key) {
    Record found;
    return KelHashTreeGet(tree_, &key, &found) == 1 ? found.value : 0;
  }
  KelHashTree* tree() { return tree_; }

 private:
  /// For a tenth of the records, and the node that a search borrows: a multiple of 64, so that a
  /// node of 64 bytes is one line of the cache.
  static uint64_t slab_size(size_t count) {
    constexpr uint64_t kNodeSize = sizeof(KelHashTreeNode) + sizeof(Record);
    return preallocator_calc_slab_size(count / 10 + 1, kNodeSize) / 64 * 64 + 64;
  }

  KelHashTree* tree_;
};

/// A map of the standard library's kind; with as many buckets from the start as it will need.
template <class Map>
class MapIndex {
 public:
  explicit MapIndex(size_t count) { map_.reserve(count); }
  void insert(const Record& record) { map_.emplace(record.key, record.value); }
  uint64_t find(const Record& key) {
    const auto found = map_.find(key.key);
    return found == map_.end() ? 0 : found->second;
  }

 private:
  Map map_;
};
using AbslIndex = MapIndex<absl::node_hash_map<Fingerprint, uint64_t, FirstBytes>>;
using StdIndex = MapIndex<std::unordered_map<Fingerprint, uint64_t, FirstBytes>>;

void count_records(benchmark::State& state, size_t count) {
  state.counters["per_record"] =
      benchmark::Counter(static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}

template <class Index, size_t Count>
void insert(benchmark::State& state) {
  const Records& records = Records::of(Count);
  for (auto _ : state) {
    state.PauseTiming();
    auto index = std::make_unique<Index>(Count);
    state.ResumeTiming();
    for (const Record& record : records.all) index->insert(record);
    state.PauseTiming();
    if constexpr (std::is_same_v<Index, KelIndex>)
      state.counters["bytes_per_record"] =
          static_cast<double>(KelHashTreeGetMemoryUsage(index->tree())) / Count;
    index.reset();
    state.ResumeTiming();
  }
  count_records(state, Count);
}

template <class Index, size_t Count>
void find(benchmark::State& state) {
  const Records& records = Records::of(Count);
  Index index(Count);
  for (const Record& record : records.all) index.insert(record);
  for (auto _ : state) {
    uint64_t wrong = 0;
    for (const Record& record : records.shuffled) wrong += index.find(record) != record.value;
    if (wrong != 0) state.SkipWithError("a record was not found");
  }
  count_records(state, Count);
}

template <size_t Count>
void add_index(const char* size) {
  const auto add = [size](const char* task, const char* who, void (*run)(benchmark::State&)) {
    benchmark::RegisterBenchmark((std::string(task) + "/" + size + "/" + who).c_str(), run)
        ->Unit(benchmark::kMillisecond);
  };
  add("index_insert", "kel", insert<KelIndex, Count>);
  add("index_insert", "absl_node", insert<AbslIndex, Count>);
  add("index_insert", "std_unordered", insert<StdIndex, Count>);
  add("index_find", "kel", find<KelIndex, Count>);
  add("index_find", "absl_node", find<AbslIndex, Count>);
  add("index_find", "std_unordered", find<StdIndex, Count>);
}

[[maybe_unused]] const bool added = [] {
  add_index<100'000>("1e5");
  add_index<1'000'000>("1e6");
  add_index<10'000'000>("1e7");
  return true;
}();

// A walk over all records from the first to the last.

constexpr size_t kWalked = 1'000'000;

void walk_kel(benchmark::State& state, uint32_t bits) {
  KelIndex index(kWalked, bits);
  for (const Record& record : Records::of(kWalked).all) index.insert(record);
  for (auto _ : state) {
    KelHashTreeIterator it;
    KelHashTreeIteratorInitBegin(&it, index.tree());
    size_t count = 0;
    uint64_t sum = 0;
    Record record;
    for (; KelHashTreeIteratorNext(&it, &record) == 1; ++count) sum += record.value;
    benchmark::DoNotOptimize(sum);
    KelHashTreeIteratorDeinit(&it);
    if (count != kWalked) state.SkipWithError("the walk was not complete");
  }
  count_records(state, kWalked);
}
BENCHMARK_CAPTURE(walk_kel, buckets, 20)
    ->Name("walk_20_bits/1e6/kel")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(walk_kel, sorted, 0)->Name("walk_sorted/1e6/kel")->Unit(benchmark::kMillisecond);

void walk_set(benchmark::State& state) {
  const auto before = [](const Record& a, const Record& b) { return a.key < b.key; };
  std::set<Record, decltype(before)> set(before);
  for (const Record& record : Records::of(kWalked).all) set.insert(record);
  for (auto _ : state) {
    uint64_t sum = 0;
    for (const Record& record : set) sum += record.value;
    benchmark::DoNotOptimize(sum);
  }
  count_records(state, kWalked);
}
BENCHMARK(walk_set)->Name("walk_20_bits/1e6/std_set")->Unit(benchmark::kMillisecond);
BENCHMARK(walk_set)->Name("walk_sorted/1e6/std_set")->Unit(benchmark::kMillisecond);

}  // namespace
