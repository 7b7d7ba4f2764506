#include <kel/preallocator.h>

#include <pthread.h>
#include <sys/mman.h>

#include <cstdlib>
#include <map>
#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;

struct Destruct {
  void operator()(preallocator_t* a) const { preallocator_destruct(a); }
};
using Preallocator = std::unique_ptr<preallocator_t, Destruct>;

constexpr uint64_t kMarker = UINT64_MAX;

Preallocator make(uint64_t slab_size, uint64_t block_size, uint64_t* quota = nullptr,
                  pthread_mutex_t* lock = nullptr) {
  return Preallocator(preallocator_construct(slab_size, block_size, kMarker, 0, quota, lock));
}

/// What a diagnostic prints.
template <class Print>
std::string printed(Print print) {
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  print(out);
  std::fclose(out);
  std::string result(text, size);
  std::free(text);
  return result;
}

std::vector<void*> walk(preallocator_t* a) {
  std::vector<void*> blocks;
  preallocator_iterator_t it;
  for (void* block = preallocator_iterator_first(&it, a); block != nullptr;
       block = preallocator_iterator_next(&it))
    blocks.push_back(block);
  EXPECT_EQ(preallocator_iterator_next(&it), nullptr);
  return blocks;
}

uint64_t first_word(const void* block) {
  uint64_t word;
  std::memcpy(&word, block, sizeof word);
  return word;
}

TEST(Preallocator, SizesAndArgumentsAreCheckedAndReported) {
  ReportCapture reports;
  constexpr uint64_t kMost = (UINT64_MAX - 4) / 64;
  EXPECT_EQ(preallocator_calc_slab_size(100, 64), 6412u);
  EXPECT_EQ(preallocator_calc_num_blocks_per_slab(6412, 64), 100u);
  EXPECT_EQ(preallocator_calc_num_blocks_per_slab(6411, 64), 99u);
  EXPECT_EQ(preallocator_calc_slab_size(kMost, 64), UINT64_MAX - 51);
  EXPECT_EQ(preallocator_calc_slab_size(5, 0), 12u);
  EXPECT_EQ(preallocator_get_num_blocks_per_slab(make(36, 24).get()), 1u);

  expect_refused(reports, ERANGE,
                 {[] { return preallocator_calc_slab_size(kMost + 1, 64) == 0; },
                  [] { return preallocator_calc_num_blocks_per_slab(75, 64) == 0; },
                  [] { return preallocator_calc_num_blocks_per_slab(1000, 23) == 0; }});
  preallocator_iterator_t it;
  expect_refused(reports, EINVAL,
                 {[] { return make(35, 24) == nullptr; }, [] { return make(1000, 23) == nullptr; },
                  // A block size near 2^64 must not pass as a small one.
                  [] { return make(4096, UINT64_MAX - 7) == nullptr; },
                  [] { return preallocator_get_flags(nullptr) == 0; },
                  [] { return preallocator_get_num_blocks_per_slab(nullptr) == 0; },
                  [] { return preallocator_get_num_allocated_blocks(nullptr) == 0; },
                  [&] { return preallocator_iterator_first(&it, nullptr) == nullptr; },
                  [] { return preallocator_iterator_next(nullptr) == nullptr; }});
  preallocator_destruct(nullptr);
  preallocator_reinit(nullptr);
}

TEST(Preallocator, ReusesTheLastBlockFreedAndHasWhatWasAskedFor) {
  const Preallocator owner = make(4096, 100);  // 40 blocks a slab
  preallocator_t* a = owner.get();
  std::vector<void*> blocks;
  for (int i = 0; i < 40; ++i) blocks.push_back(preallocator_alloc(a));
  preallocator_free(a, nullptr);
  preallocator_free(a, blocks[7]);
  preallocator_free(a, blocks[3]);
  EXPECT_EQ(preallocator_preallocate(a, 2), 0);
  EXPECT_EQ(preallocator_get_num_slabs(a), 1u);
  EXPECT_EQ(preallocator_alloc(a), blocks[3]);
  EXPECT_EQ(preallocator_preallocate(a, 42), 0);  // one more than a second slab gives
  EXPECT_EQ(preallocator_get_num_slabs(a), 3u);

  preallocator_reset(a);
  EXPECT_EQ(preallocator_alloc(a), blocks[0]);  // the oldest slab was freed last
  EXPECT_EQ(preallocator_slab_reclaim_all(a, nullptr, nullptr), 2u);  // nothing is to be moved
  EXPECT_THAT(walk(a), ElementsAre(blocks[0]));
}

/// A preallocator and what its live blocks hold.
class Model {
 public:
  Model(uint64_t slab_size, uint64_t block_size, uint32_t seed)
      : a_(make(slab_size, block_size)), block_size_(block_size), random_(seed) {}

  void step() {
    const int dice = static_cast<int>(random_() % 1000);
    if (dice < 520 + growth_)
      allocate();
    else if (dice < 990)
      release();
    else if (dice < 993)
      reclaim();
    else if (dice < 996)
      EXPECT_EQ(preallocator_preallocate(a_.get(), random_() % 60), 0);
    else if (dice == 996 && random_() % 4 == 0)
      clear();
    else
      growth_ = random_() % 2 == 0 ? -300 : 100;
  }

  void check() {
    ASSERT_EQ(preallocator_validate(stderr, a_.get()), 0);
    ASSERT_EQ(preallocator_get_num_allocated_blocks(a_.get()), live_.size());
    std::vector<void*> walked = walk(a_.get());
    std::sort(walked.begin(), walked.end());
    std::vector<void*> expected;
    for (const auto& [block, contents] : live_) {
      expected.push_back(block);
      ASSERT_EQ(std::memcmp(block, contents.data(), block_size_), 0);
    }
    ASSERT_EQ(walked, expected);
  }

  long moved() const { return moved_; }

 private:
  void allocate() {
    void* block = preallocator_alloc(a_.get());
    ASSERT_EQ(first_word(block), 0u);
    std::string contents(block_size_, static_cast<char>(random_() % 255));
    std::memcpy(block, contents.data(), block_size_);
    ASSERT_TRUE(live_.emplace(block, std::move(contents)).second);
    ASSERT_EQ(preallocator_validate_block(stderr, a_.get(), block), 0);
  }

  void release() {
    if (live_.empty()) return;
    auto victim = live_.lower_bound(random_() % 2 == 0 ? live_.rbegin()->first : recent_);
    if (victim == live_.end()) victim = live_.begin();
    recent_ = static_cast<char*>(victim->first) + random_() % 8192;
    preallocator_free(a_.get(), victim->first);
    ASSERT_EQ(preallocator_validate_block(nullptr, a_.get(), victim->first), -1);
    live_.erase(victim);
  }

  void reclaim() {
    const uint64_t free_blocks = preallocator_get_num_free_blocks(a_.get());
    const uint64_t per_slab = preallocator_get_num_blocks_per_slab(a_.get());
    const auto move = [](void* from, void* to, uint64_t size, void* context) {
      auto* model = static_cast<Model*>(context);
      std::memcpy(to, from, size);
      auto entry = model->live_.extract(from);
      ASSERT_FALSE(entry.empty());
      entry.key() = to;
      ASSERT_TRUE(model->live_.insert(std::move(entry)).inserted);
      ++model->moved_;
    };
    if (random_() % 2 == 0)
      ASSERT_EQ(preallocator_slab_reclaim(a_.get(), move, this), free_blocks >= per_slab);
    else
      ASSERT_EQ(preallocator_slab_reclaim_all(a_.get(), move, this), free_blocks / per_slab);
  }

  void clear() {
    live_.clear();
    if (random_() % 2 == 0)
      preallocator_reset(a_.get());
    else
      preallocator_reinit(a_.get());
  }

  Preallocator a_;
  uint64_t block_size_;
  std::mt19937 random_;
  std::map<void*, std::string> live_;
  void* recent_ = nullptr;
  int growth_ = 0;  // how much likelier a block is taken than given back
  long moved_ = 0;
};

TEST(Preallocator, AgreesWithAModelOverRandomOperations) {
  const std::pair<uint64_t, uint64_t> sizes[] = {
      {36, 24}, {4096, 64}, {preallocator_calc_slab_size(5, 40), 40}, {1001, 37}};
  for (const auto& [slab_size, block_size] : sizes) {
    SCOPED_TRACE(block_size);
    Model model(slab_size, block_size, 7);
    for (int i = 0; i < 4000 && !HasFatalFailure(); ++i) {
      model.step();
      model.check();
    }
    EXPECT_GT(model.moved(), 0);
  }
}

TEST(Preallocator, QuotaIsSharedReturnedAndSilentWhenUsedUp) {
  ReportCapture reports;
  uint64_t quota = 0;
  const Preallocator none = make(1024, 32, &quota);
  EXPECT_EQ(preallocator_preallocate(none.get(), 1), -1);
  EXPECT_EQ(errno, ENOSPC);

  quota = 500;
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  const auto work = [&] {
    const Preallocator a = make(76, 64, &quota, &lock);
    for (int round = 0; round < 20; ++round) {
      while (preallocator_alloc(a.get()) != nullptr) {
      }
      preallocator_reinit(a.get());
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(quota, 500u);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Preallocator, FallsBackToMallocAndReportsWhenThatFailsToo) {
  const Hooked<"mmap", void*(void*, size_t, int, int, int, off_t)> no_map(
      [](void*, size_t, int, int, int, off_t) {
        errno = ENOMEM;
        return MAP_FAILED;
      });
  ReportCapture reports;
  uint64_t quota = 3;
  const Preallocator a = make(4096, 64, &quota);
  const auto fill_two_slabs = [&] {
    errno = 0;
    if (preallocator_preallocate(a.get(), 126) == 0) return;
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(quota, 3 - preallocator_get_num_slabs(a.get()));
    EXPECT_EQ(preallocator_validate(stderr, a.get()), 0);
  };
  EXPECT_EQ(fail_each_malloc(fill_two_slabs), 2);
  EXPECT_EQ(quota, 1u);
  preallocator_reinit(a.get());
  EXPECT_EQ(quota, 3u);
  EXPECT_EQ(fail_each_malloc([] { make(4096, 64); }), 1);
  EXPECT_THAT(reports.take(), Each(Field(&Report::code, ENOMEM)));
}

TEST(Preallocator, LocksAndUnlocksEverySlab) {
  static size_t locked;  // bytes
  const Hooked<"mlock", int(const void*, size_t)> lock([](const void*, size_t bytes) {
    locked += bytes;
    return -1;  // as for a process without the right to; ignored
  });
  const Hooked<"munlock", int(const void*, size_t)> unlock([](const void*, size_t bytes) {
    locked -= bytes;
    return 0;
  });
  locked = 0;
  Preallocator a(
      preallocator_construct(5000, 64, kMarker, 0xF0 | PREALLOCATOR_MLOCK, nullptr, nullptr));
  EXPECT_EQ(preallocator_preallocate(a.get(), 200), 0);
  EXPECT_EQ(locked, 15000u);
  EXPECT_EQ(preallocator_set_flags(a.get(), 0x0E), 0);
  EXPECT_EQ(locked, 0u);
  EXPECT_EQ(preallocator_get_flags(a.get()), 0xF0u);
  for (int again = 0; again < 2; ++again)
    EXPECT_EQ(preallocator_set_flags(a.get(), PREALLOCATOR_MLOCK), 0);
  EXPECT_EQ(locked, 15000u);
  a.reset();
  EXPECT_EQ(locked, 0u);
}

TEST(Preallocator, DiagnosticsSayWhatIsWrong) {
  const Preallocator a = make(12 + 5 + 4 * 32, 32);
  auto* low = static_cast<char*>(preallocator_alloc(a.get()));
  auto* freed = static_cast<char*>(preallocator_alloc(a.get()));
  preallocator_free(a.get(), freed);
  char* slab = low - 17;
  for (const auto& [block, fault] : {std::pair{slab - 1, "not inside any slab"},
                                     {slab + 145, "not inside any slab"},
                                     {slab, "does not point to the begin of a block"},
                                     {slab + 12, "does not point"},
                                     {low + 1, "does not point"},
                                     {low - 1, "does not point"},
                                     {slab + 144, "does not point"},
                                     {freed, "not allocated"}})
    EXPECT_THAT(printed([&, at = block](FILE* out) {
                  EXPECT_EQ(preallocator_validate_block(out, a.get(), at), -1);
                }),
                HasSubstr(fault));
  EXPECT_THAT(printed([&](FILE* out) { preallocator_print(out, a.get()); }),
              EndsWith(": *___ (3 blocks free, 1 used)\n"));
  preallocator_print(nullptr, a.get());
}

TEST(Preallocator, ValidationFindsEachKindOfDamage) {
  const Preallocator a = make(16 + 4 * 32, 32);  // one slab, three blocks of it free
  auto* live = static_cast<uint64_t*>(preallocator_alloc(a.get()));
  auto* words = reinterpret_cast<uint64_t*>(a->free_blocks);  // the marker, then the block before
  auto* head = reinterpret_cast<uint64_t*>(&a->free_blocks);
  uint64_t stray[3] = {kMarker, 0, 0};
  struct Row {
    uint64_t *place, wrong;
    const char* finding;
  };
  for (const Row& row :
       {Row{&a->num_slabs, 0, "1 slabs counted"}, Row{&a->num_slabs, 2, "found only 1 slabs"},
        Row{&a->num_free_blocks, 2, "more than a->num_free_blocks = 2"},
        Row{&a->num_free_blocks, 4, "found only 3 blocks"},
        Row{live, kMarker, "4 blocks with free block markers"},
        Row{&words[1], 1, "block->next->prev != block->next"},
        Row{&words[0], 5, "block->free_block_marker != a->free_block_marker"},
        Row{head, reinterpret_cast<uint64_t>(stray), "not in any slab"}}) {
    EXPECT_EQ(preallocator_validate(stderr, a.get()), 0);
    const uint64_t right = std::exchange(*row.place, row.wrong);
    EXPECT_THAT(printed([&](FILE* out) { EXPECT_EQ(preallocator_validate(out, a.get()), -1); }),
                HasSubstr(row.finding));
    *row.place = right;
  }
}

}  // namespace
