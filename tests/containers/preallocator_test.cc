#include <kel/preallocator.h>

#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/import_hook.h"
#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::fail_each;
using kel::testing::Hooked;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

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

TEST(Preallocator, SizesAreCheckedAndReported) {
  ReportCapture reports;
  EXPECT_EQ(preallocator_calc_slab_size(100, 64), 6412u);
  EXPECT_EQ(preallocator_calc_num_blocks_per_slab(6412, 64), 100u);
  EXPECT_EQ(preallocator_calc_num_blocks_per_slab(6411, 64), 99u);
  EXPECT_EQ(preallocator_calc_slab_size((UINT64_MAX - 4) / 64, 64), UINT64_MAX - 51);
  EXPECT_EQ(preallocator_calc_slab_size(5, 0), 12u);
  EXPECT_THAT(reports.take(), IsEmpty());

  errno = 0;
  EXPECT_EQ(preallocator_calc_slab_size((UINT64_MAX - 4) / 64 + 1, 64), 0u);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(preallocator_calc_num_blocks_per_slab(75, 64), 0u);
  EXPECT_EQ(preallocator_calc_num_blocks_per_slab(1000, 23), 0u);
  EXPECT_EQ(preallocator_calc_num_blocks_per_slab(20, 23), 0u);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(
          error(34, "preallocator_calc_slab_size: too many blocks per slab"),
          error(34, "preallocator_calc_num_blocks_per_slab: slab size smaller than block size"),
          error(34, "preallocator_calc_num_blocks_per_slab: block size smaller than block"),
          error(34, "preallocator_calc_num_blocks_per_slab: slab size smaller than block size")));

  EXPECT_EQ(make(35, 24), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(make(1000, 23), nullptr);
  // A block size near 2^64 must not pass as a small one.
  EXPECT_EQ(make(4096, UINT64_MAX - 7), nullptr);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(22, "preallocator_construct: slab size smaller than block size"),
                          error(22, "preallocator_construct: block size smaller than block"),
                          error(22, "preallocator_construct: slab size smaller than block size")));

  const Preallocator smallest = make(36, 24);
  EXPECT_EQ(preallocator_get_num_blocks_per_slab(smallest.get()), 1u);
  EXPECT_NE(preallocator_alloc(smallest.get()), nullptr);
  EXPECT_NE(preallocator_alloc(smallest.get()), nullptr);
  EXPECT_EQ(preallocator_get_num_slabs(smallest.get()), 2u);
}

TEST(Preallocator, HandsOutANewSlabUpwardAndReusesTheLastBlockFreed) {
  const Preallocator a = make(4096, 100);  // 40 blocks behind a remainder of 84 bytes
  std::vector<char*> blocks;
  for (int i = 0; i < 40; ++i) blocks.push_back(static_cast<char*>(preallocator_alloc(a.get())));
  const char* slab = reinterpret_cast<char*>(a->slabs);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(blocks[static_cast<size_t>(i)], slab + 96 + 100 * i);
  EXPECT_EQ(first_word(blocks[0]), 0u);

  preallocator_free(a.get(), nullptr);
  preallocator_free(a.get(), blocks[7]);
  preallocator_free(a.get(), blocks[3]);
  EXPECT_EQ(preallocator_get_num_free_blocks(a.get()), 2u);
  EXPECT_EQ(preallocator_get_num_allocated_blocks(a.get()), 38u);
  EXPECT_EQ(preallocator_preallocate(a.get(), 2), 0);
  EXPECT_EQ(preallocator_get_num_slabs(a.get()), 1u);
  EXPECT_EQ(preallocator_preallocate(a.get(), 43), 0);  // one more than a second slab gives
  EXPECT_EQ(preallocator_get_num_slabs(a.get()), 3u);
  EXPECT_EQ(preallocator_alloc(a.get()), reinterpret_cast<char*>(a->slabs) + 96);
  EXPECT_EQ(preallocator_validate(nullptr, a.get()), 0);

  preallocator_reset(a.get());
  EXPECT_EQ(preallocator_get_num_free_blocks(a.get()), 120u);
  EXPECT_THAT(walk(a.get()), IsEmpty());
  EXPECT_EQ(preallocator_alloc(a.get()), slab + 96);  // the oldest slab was freed last
  EXPECT_EQ(preallocator_validate(nullptr, a.get()), 0);

  preallocator_reinit(a.get());
  EXPECT_EQ(preallocator_get_num_slabs(a.get()), 0u);
  EXPECT_EQ(preallocator_get_num_free_blocks(a.get()), 0u);
  EXPECT_EQ(preallocator_slab_reclaim(a.get(), nullptr, nullptr), 0);
  preallocator_reset(a.get());
  EXPECT_NE(preallocator_alloc(a.get()), nullptr);
}

TEST(Preallocator, NullArgumentsOfGettersAndWalksAreReported) {
  ReportCapture reports;
  EXPECT_EQ(preallocator_get_flags(nullptr), 0u);
  EXPECT_EQ(preallocator_get_block_size(nullptr), 0u);
  EXPECT_EQ(preallocator_get_slab_size(nullptr), 0u);
  EXPECT_EQ(preallocator_get_num_blocks_per_slab(nullptr), 0u);
  EXPECT_EQ(preallocator_get_num_slabs(nullptr), 0u);
  EXPECT_EQ(preallocator_get_num_free_blocks(nullptr), 0u);
  EXPECT_EQ(preallocator_get_num_allocated_blocks(nullptr), 0u);
  preallocator_iterator_t it;
  EXPECT_EQ(preallocator_iterator_first(&it, nullptr), nullptr);
  EXPECT_EQ(preallocator_iterator_next(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  std::vector<kel::testing::Report> expected;
  for (const char* name :
       {"get_flags", "get_block_size", "get_slab_size", "get_num_blocks_per_slab", "get_num_slabs",
        "get_num_free_blocks", "get_num_allocated_blocks", "iterator_first", "iterator_next"})
    expected.push_back(error(22, std::string("preallocator_") + name + ": invalid NULL parameter"));
  EXPECT_EQ(reports.take(), expected);
  preallocator_destruct(nullptr);
  preallocator_reinit(nullptr);
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

TEST(Preallocator, ReclaimMovesNothingOutOfAnEmptySlab) {
  const Preallocator a = make(1024, 32);  // 31 blocks
  void* kept = preallocator_alloc(a.get());
  EXPECT_EQ(preallocator_slab_reclaim(a.get(), nullptr, nullptr), 0);
  EXPECT_EQ(preallocator_preallocate(a.get(), 31), 0);
  EXPECT_EQ(preallocator_slab_reclaim(a.get(), nullptr, nullptr), 1);
  EXPECT_EQ(preallocator_get_num_free_blocks(a.get()), 30u);
  EXPECT_THAT(walk(a.get()), ElementsAre(kept));
  preallocator_free(a.get(), kept);
  EXPECT_EQ(preallocator_slab_reclaim_all(a.get(), nullptr, nullptr), 1u);
  EXPECT_EQ(preallocator_get_num_slabs(a.get()), 0u);
}

TEST(Preallocator, QuotaIsSharedReturnedAndSilentWhenUsedUp) {
  ReportCapture reports;
  uint64_t quota = 0;
  const Preallocator none = make(1024, 32, &quota);
  errno = 0;
  EXPECT_EQ(preallocator_preallocate(none.get(), 1), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(preallocator_alloc(none.get()), nullptr);

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
  using MapHook = Hooked<"mmap", void*(void*, size_t, int, int, int, off_t)>;
  const MapHook no_map([](void*, size_t, int, int, int, off_t) {
    errno = ENOMEM;
    return MAP_FAILED;
  });
  ReportCapture reports;
  uint64_t quota = 3;
  const Preallocator a = make(4096, 64, &quota);
  const long failed = fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, [&] {
    errno = 0;
    if (preallocator_preallocate(a.get(), 126) == 0) return;
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_THAT(reports.take_texts(),
                ElementsAre(StartsWith("preallocator_slab_add: could not allocate memory (")));
    EXPECT_EQ(quota, 3 - preallocator_get_num_slabs(a.get()));
    EXPECT_EQ(preallocator_validate(stderr, a.get()), 0);
  });
  EXPECT_EQ(failed, 2);
  EXPECT_EQ(quota, 1u);
  preallocator_reinit(a.get());
  EXPECT_EQ(quota, 3u);

  const long unmade = fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, [&] {
    if (make(4096, 64) != nullptr) return;
    EXPECT_THAT(reports.take(),
                ElementsAre(error(ENOMEM, "preallocator_construct: could not allocate memory")));
  });
  EXPECT_EQ(unmade, 1);
}

TEST(Preallocator, LocksAndUnlocksEverySlab) {
  static int locked;
  static size_t size;
  const Hooked<"mlock", int(const void*, size_t)> lock([](const void*, size_t bytes) {
    ++locked;
    size = bytes;
    return -1;  // as for a process without the right to; ignored
  });
  const Hooked<"munlock", int(const void*, size_t)> unlock([](const void*, size_t bytes) {
    --locked;
    size = bytes;
    return 0;
  });
  locked = 0;
  Preallocator a(
      preallocator_construct(5000, 64, kMarker, 0xF0 | PREALLOCATOR_MLOCK, nullptr, nullptr));
  EXPECT_EQ(preallocator_preallocate(a.get(), 200), 0);
  EXPECT_EQ(locked, 3);
  EXPECT_EQ(size, 5000u);
  EXPECT_EQ(preallocator_set_flags(a.get(), 0x0E), 0);
  EXPECT_EQ(locked, 0);
  EXPECT_EQ(preallocator_get_flags(a.get()), 0xF0u);
  EXPECT_EQ(preallocator_set_flags(a.get(), PREALLOCATOR_MLOCK), 0);
  EXPECT_EQ(preallocator_set_flags(a.get(), PREALLOCATOR_MLOCK), 0);
  EXPECT_EQ(locked, 3);
  EXPECT_EQ(preallocator_get_flags(a.get()), 0xF0u | PREALLOCATOR_MLOCK);
  a.reset();
  EXPECT_EQ(locked, 0);
}

std::string pointer_text(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", pointer);
  return text;
}

TEST(Preallocator, DiagnosticsSayWhatIsWrong) {
  const Preallocator a = make(12 + 5 + 4 * 32, 32);
  auto* low = static_cast<char*>(preallocator_alloc(a.get()));
  auto* freed = static_cast<char*>(preallocator_alloc(a.get()));
  preallocator_free(a.get(), freed);
  char* slab = low - 17;
  const std::string range = pointer_text(slab) + "-" + pointer_text(slab + 145);
  const auto check_block = [&](const void* block) {
    return printed([&](FILE* out) {
      const int result = preallocator_validate_block(out, a.get(), block);
      EXPECT_EQ(preallocator_validate_block(nullptr, a.get(), block), result);
    });
  };
  EXPECT_EQ(check_block(low), "");
  EXPECT_EQ(check_block(slab + 145), "Error: the specified block " + pointer_text(slab + 145) +
                                         " is not inside any slab of the preallocator.\n");
  for (const char* inside : {slab, slab + 12, low + 1, low - 1, slab + 144})
    EXPECT_EQ(check_block(inside), "Error: the specified block " + pointer_text(inside) +
                                       " is inside slab " + range +
                                       " but does not point to the begin of a block.\n");
  EXPECT_EQ(check_block(freed), "Error: the specified block " + pointer_text(freed) +
                                    " is not allocated (it's free_block_marker is set).");
  EXPECT_EQ(printed([&](FILE* out) { preallocator_print(out, a.get()); }),
            "a->flags = 0x00000000\na->free_block_marker = 0xffffffffffffffff\n"
            "a->block_size = 32\na->blocks_per_slab = 4\na->slab_size = 145\na->num_slabs = 1\n"
            "a->num_free_blocks = 3\nslab " +
                pointer_text(slab) + " (end " + pointer_text(slab + 145) +
                "): *___ (3 blocks free, 1 used)\n");
  preallocator_print(nullptr, a.get());
}

TEST(Preallocator, ValidationFindsEachKindOfDamage) {
  const Preallocator a = make(12 + 4 * 32, 32);
  auto* live = static_cast<char*>(preallocator_alloc(a.get()));
  auto* head = reinterpret_cast<char*>(a->free_blocks);
  const auto validate = [&](int expected = -1) {
    return printed([&](FILE* out) { EXPECT_EQ(preallocator_validate(out, a.get()), expected); });
  };
  const auto swap_word = [](char* at, uint64_t value) {
    uint64_t before;
    std::memcpy(&before, at, sizeof before);
    std::memcpy(at, &value, sizeof value);
    return before;
  };
  EXPECT_EQ(validate(0), "");

  a->num_slabs = 0;
  EXPECT_EQ(validate(),
            "Error: 1 slabs counted, a->num_slabs = 0"
            "Error: 0 blocks with free block markers found, a->num_free_blocks = 3\n");
  a->num_slabs = 2;
  EXPECT_EQ(validate(), "Error: a->num_slabs = 2, but found only 1 slabs in a->slabs\n");
  a->num_slabs = 1;

  a->num_free_blocks = 2;
  EXPECT_EQ(validate(),
            "Error: 3 blocks with free block markers found, a->num_free_blocks = 2\n"
            "Error: more than a->num_free_blocks = 2 blocks in a->free_blocks\n");
  a->num_free_blocks = 4;
  EXPECT_EQ(validate(),
            "Error: 3 blocks with free block markers found, a->num_free_blocks = 4\n"
            "Error: a->num_free_blocks = 4, but found only 3 blocks in a->free_blocks\n");
  a->num_free_blocks = 3;

  swap_word(live, kMarker);
  EXPECT_EQ(validate(), "Error: 4 blocks with free block markers found, a->num_free_blocks = 3\n");
  swap_word(live, 0);

  const std::string of_head = pointer_text(head) + "\n";
  uint64_t saved = swap_word(head + 8, 1);
  EXPECT_THAT(validate(), HasSubstr("Error: block->next->prev != block->next in a->free_blocks for "
                                    "block " +
                                    of_head));
  swap_word(head + 8, saved);
  saved = swap_word(head, 5);
  EXPECT_THAT(validate(), HasSubstr("Error: block->free_block_marker != a->free_block_marker in "
                                    "a->free_blocks for block " +
                                    of_head));
  swap_word(head, saved);

  uint64_t stray[3] = {kMarker, 0, 0};
  a->free_blocks = reinterpret_cast<preallocator_block*>(stray);
  EXPECT_EQ(validate(),
            "Error: block " + pointer_text(stray) +
                " in a->free_blocks but not in any slab\n"
                "Error: a->num_free_blocks = 3, but found only 1 blocks in a->free_blocks\n");
  a->free_blocks = reinterpret_cast<preallocator_block*>(head);
  EXPECT_EQ(validate(0), "");
}

}  // namespace
