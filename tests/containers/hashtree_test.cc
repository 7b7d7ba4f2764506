// Trees: table, store and order.
#include <kel/hashtree.h>

#include <sys/mman.h>

#include <map>
#include <random>
#include <string>

#include "containers/hashtree_records.h"
#include "support/import_hook.h"
#include "support/reports.h"

namespace {

using kel::testing::compare_records;
using kel::testing::error;
using kel::testing::fail_each;
using kel::testing::Faults;
using kel::testing::hash_record;
using kel::testing::hash_value;
using kel::testing::Hooked;
using kel::testing::make_tree;
using kel::testing::Record;
using kel::testing::ReportCapture;
using kel::testing::Tree;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Where a record stands in a walk: its bucket, then its key.
using Place = std::pair<uint32_t, uint64_t>;

/// A tree beside a std::map in the order of the walk.
class Model {
 public:
  Model(uint32_t bits, uint64_t slab_size, uint32_t seed)
      : tree_(make_tree(bits, nullptr, slab_size)), bits_(bits), random_(seed) {
    KelHashTreePathInit(&path_);
  }

  void step() {
    const uint64_t key = random_() % 3000;
    const Record record = {key, static_cast<uint32_t>(random_())};
    const auto known = records_.find(place(key));
    const bool exists = known != records_.end();
    const Record old = exists ? known->second : record;
    Record out = {1u << 20, 0};
    const Record untouched = out;
    const auto growth = random_() % 2 + (steps_++ / 4000 % 2 == 0 ? 1 : 0);
    switch (random_() % 5 + growth) {
      case 0:
      case 1:
        ASSERT_EQ(KelHashTreeRemove(tree_.get(), &record, &out), exists);
        ASSERT_EQ(out, exists ? old : untouched);
        deletes_ += exists;
        if (exists) records_.erase(known);
        break;
      case 2:
        ASSERT_EQ(KelHashTreeGet(tree_.get(), &record, &out), exists);
        ASSERT_EQ(out, exists ? old : untouched);
        break;
      case 3:
        ASSERT_EQ(KelHashTreeFindOrInsert(tree_.get(), &record, &out), !exists);
        ASSERT_EQ(out, exists ? old : untouched);
        records_.emplace(place(key), record);
        break;
      case 4:
        ASSERT_EQ(KelHashTreeFindOrInsertNode(tree_.get(), &record, &out, &path_), exists);
        ASSERT_EQ(out, old);
        ASSERT_EQ(kel::testing::record_of(KelHashTreePathPeek(&path_)), old);
        records_.emplace(place(key), record);
        break;
      default:
        ASSERT_EQ(KelHashTreeReplaceOrInsert(tree_.get(), &record, &out), exists);
        ASSERT_EQ(out, exists ? old : untouched);
        records_[place(key)] = record;
        break;
    }
  }

  void check_neighbours() {
    Record key = {random_() % 3002, 0};
    const auto after = records_.upper_bound(place(key.key));
    const auto before = records_.lower_bound(place(key.key));
    Record out = {};
    const bool known = KelHashTreeFindNode(tree_.get(), &key, &out, &path_) == 1;
    ASSERT_EQ(known, records_.contains(place(key.key)));
    ASSERT_EQ(path_.depth != 0, known);
    KelHashTreePath* path = random_() % 2 == 0 ? &path_ : nullptr;
    if (random_() % 2 == 0) {
      ASSERT_EQ(KelHashTreeNextNode(tree_.get(), &key, &key, path), after != records_.end());
      if (after != records_.end()) {
        ASSERT_EQ(key, after->second);
      }
    } else {
      ASSERT_EQ(KelHashTreePrevNode(tree_.get(), &key, &key, path), before != records_.begin());
      if (before != records_.begin()) {
        ASSERT_EQ(key, std::prev(before)->second);
      }
    }
  }

  void check_walks() {
    ASSERT_EQ(KelHashTreeValidateCompletely(tree_.get()), 1);
    ASSERT_EQ(KelHashTreeGetNumUsedNodes(tree_.get()), records_.size());
    ASSERT_EQ(KelHashTreeGetNumDeletes(tree_.get()), deletes_);
    for (KelHashTreePath* path : {&path_, static_cast<KelHashTreePath*>(nullptr)}) {
      Record record;
      int found = KelHashTreeFirstNode(tree_.get(), &record, path);
      for (const auto& [where, expected] : records_) {
        ASSERT_EQ(found, 1);
        ASSERT_EQ(record, expected);
        found = KelHashTreeNextNode(tree_.get(), &record, &record, path);
      }
      ASSERT_EQ(found, 0);
      ASSERT_EQ(errno, ENOENT);
      found = KelHashTreeLastNode(tree_.get(), &record, path);
      for (auto it = records_.rbegin(); it != records_.rend(); ++it) {
        ASSERT_EQ(found, 1);
        ASSERT_EQ(record, it->second);
        found = KelHashTreePrevNode(tree_.get(), &record, &record, path);
      }
      ASSERT_EQ(found, 0);
    }
  }

  void set_bits(uint32_t bits) {
    ASSERT_EQ(KelHashTreeSetBits(tree_.get(), bits), 0);
    ASSERT_EQ(KelHashTreeGetBits(tree_.get()), bits);
    bits_ = bits;
    std::map<Place, Record> moved;
    for (const auto& [where, record] : records_) moved.emplace(place(record.key), record);
    records_ = std::move(moved);
  }

  void clear() {
    ASSERT_EQ(KelHashTreeEmpty(tree_.get()), 0);
    ASSERT_EQ(KelHashTreeGetNumSlabs(tree_.get()), 0u);
    deletes_ += records_.size();
    records_.clear();
  }

 private:
  Place place(uint64_t key) const { return {hash_value(key) & ((1u << bits_) - 1), key}; }

  Tree tree_;
  uint32_t bits_;
  std::mt19937 random_;
  std::map<Place, Record> records_;
  KelHashTreePath path_;
  uint64_t deletes_ = 0;
  long steps_ = 0;
};

TEST(HashTree, AgreesWithStdMapOverRandomOperations) {
  // The second slab size leaves the nodes at odd addresses.
  for (const uint64_t slab_size : {uint64_t{4096}, preallocator_calc_slab_size(9, 40)}) {
    for (const uint32_t bits : {0u, 5u, 12u}) {
      Model model(bits, slab_size, bits + 3);
      for (int round = 0; round < 20000 && !HasFatalFailure(); ++round) {
        model.step();
        model.check_neighbours();
        if (round % 2000 == 1999) model.check_walks();
        if (round == 7000) model.set_bits(8 - bits / 2);
        if (round == 12000) model.set_bits(bits);
        if (round == 15000) model.clear();
      }
    }
  }
}

TEST(HashTree, CountsAndSizes) {
  const Tree tree = make_tree(3, nullptr, 1000);  // nodes of 40 bytes, 24 a slab
  for (uint64_t key = 0; key < 30; ++key) {
    const Record record = {key, 0};
    KelHashTreeFindOrInsert(tree.get(), &record, nullptr);
  }
  EXPECT_EQ(KelHashTreeGetNodeDataSize(tree.get()), sizeof(Record));
  EXPECT_EQ(KelHashTreeGetNodeSize(tree.get()), 40u);
  EXPECT_EQ(KelHashTreeGetSlabSize(tree.get()), 1000u);
  EXPECT_EQ(KelHashTreeGetNumUsedNodes(tree.get()), 30u);
  EXPECT_EQ(KelHashTreeGetNumUnusedNodes(tree.get()), 18u);
  EXPECT_EQ(KelHashTreeGetNumSlabs(tree.get()), 2u);
  EXPECT_EQ(KelHashTreeGetMemoryUsage(tree.get()), 2 * 1000 + 8 * 8 + sizeof(KelHashTree));
  EXPECT_EQ(KelHashTreeSize(), sizeof(KelHashTree));
  EXPECT_EQ(KelHashTreeSetBits(tree.get(), 3), 0);

  KelHashTree odd;  // a record of 17 bytes takes a node of 48
  ASSERT_EQ(KelHashTreeInit(&odd, 0, 17, compare_records, hash_record, nullptr, 4096), &odd);
  EXPECT_EQ(KelHashTreeGetNodeSize(&odd), 48u);
  KelHashTreeDeinit(&odd);
  KelHashTreeDeinit(&odd);
  KelHashTreeDeinit(nullptr);
  KelHashTree* none = nullptr;
  KelHashTreeDelete(&none);
}

TEST(HashTree, BadSettingsAreRefused) {
  ReportCapture reports;
  KelHashTree tree;
  EXPECT_EQ(KelHashTreeNew(0, 8, nullptr, hash_record, nullptr, 4096), nullptr);
  EXPECT_EQ(KelHashTreeNew(0, 8, compare_records, nullptr, nullptr, 4096), nullptr);
  EXPECT_EQ(KelHashTreeInit(nullptr, 0, 8, compare_records, hash_record, nullptr, 4096), nullptr);
  EXPECT_EQ(KelHashTreeInit(&tree, 30, 8, compare_records, hash_record, nullptr, 4096), nullptr);
  EXPECT_EQ(errno, EINVAL);
  const kel::testing::Report null = error(22, "KelHashTreeInit: invalid NULL parameter");
  EXPECT_THAT(reports.take(), ElementsAre(null, null, null, null));

  // A record size near 2^64 must not wrap into a small node.
  for (const uint64_t size : {uint64_t{4096}, UINT64_MAX - 24, UINT64_MAX}) {
    EXPECT_EQ(KelHashTreeNew(0, size, compare_records, hash_record, nullptr, 4096), nullptr);
    EXPECT_THAT(reports.take(),
                ElementsAre(error(22, "preallocator_construct: slab size smaller than block size"),
                            error(22, "KelHashTreeInit: failed to initialize preallocator")));
  }

  const Tree good = make_tree(2);
  EXPECT_EQ(KelHashTreeSetBits(good.get(), 30), -1);
  EXPECT_EQ(KelHashTreeSetBits(nullptr, 1), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(reports.take(), ElementsAre(error(22, "KelHashTreeSetBits: invalid parameter"),
                                          error(22, "KelHashTreeSetBits: invalid parameter")));
}

TEST(HashTree, MissingArgumentsAreReported) {
  ReportCapture reports;
  const Tree tree = make_tree(2);
  KelHashTree* t = tree.get();
  Record r = {};
  const auto expect = [&](const char* name) {
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(),
                ElementsAre(error(22, std::string(name) + ": invalid NULL parameter")));
    errno = 0;
  };
  struct Row {
    const char* name;
    int (*call)(KelHashTree*, Record*);
  };
  const Row rows[] = {
      {"KelHashTreeFindOrInsert",
       [](auto* a, auto* b) { return KelHashTreeFindOrInsert(a, b, b); }},
      {"KelHashTreeFindOrInsertNode",
       [](auto* a, auto* b) { return KelHashTreeFindOrInsertNode(a, b, b, nullptr); }},
      {"KelHashTreeReplaceOrInsert",
       [](auto* a, auto* b) { return KelHashTreeReplaceOrInsert(a, b, b); }},
      {"KelHashTreeGet", [](auto* a, auto* b) { return KelHashTreeGet(a, b, b); }},
      {"KelHashTreeFindNode",
       [](auto* a, auto* b) { return KelHashTreeFindNode(a, b, b, nullptr); }},
      {"KelHashTreeRemove", [](auto* a, auto* b) { return KelHashTreeRemove(a, b, b); }},
      {"KelHashTreeNextNode",
       [](auto* a, auto* b) { return KelHashTreeNextNode(a, b, b, nullptr); }},
      {"KelHashTreePrevNode",
       [](auto* a, auto* b) { return KelHashTreePrevNode(a, b, b, nullptr); }},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.call(nullptr, &r), -1);
    expect(row.name);
    EXPECT_EQ(row.call(t, nullptr), -1);
    expect(row.name);
  }
  EXPECT_EQ(KelHashTreeFirstNode(nullptr, &r, nullptr), -1);
  expect("KelHashTreeFirstNode");
  EXPECT_EQ(KelHashTreeLastNode(nullptr, &r, nullptr), -1);
  expect("KelHashTreeLastNode");
  EXPECT_EQ(KelHashTreeEmpty(nullptr), -1);
  expect("KelHashTreeEmpty");
  EXPECT_EQ(KelHashTreeValidateCompletely(nullptr), 0);
  expect("KelHashTreeValidateCompletely");
  EXPECT_EQ(KelHashTreeGetBits(nullptr), UINT32_MAX);
  expect("KelHashTreeGetBits");
  EXPECT_EQ(KelHashTreeGetNumUsedNodes(nullptr), UINT64_MAX);
  expect("KelHashTreeGetNumUsedNodes");
  EXPECT_EQ(KelHashTreeGetMemoryUsage(nullptr), UINT64_MAX);
  expect("KelHashTreeGetMemoryUsage");
}

TEST(HashTree, FailedComparisonsSurfaceWithTheCallersLine) {
  ReportCapture reports;
  Faults faults;
  const Tree tree = make_tree(0, &faults);
  Record r = {};
  for (r.key = 0; r.key < 10; ++r.key) KelHashTreeFindOrInsert(tree.get(), &r, nullptr);
  r.key = 4;
  const uint64_t unused = KelHashTreeGetNumUnusedNodes(tree.get());
  const auto fails = [&](const char* line, auto operation) {
    faults = {.comparisons = 0, .failing = 2, .error = EIO};
    EXPECT_EQ(operation(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(reports.take().back(), error(EIO, line));
    EXPECT_EQ(KelHashTreeGetNumUnusedNodes(tree.get()), unused);
  };
  KelHashTree* t = tree.get();
  fails("KelHashTreeFindOrInsert: unable to find or insert: Input/output error",
        [&] { return KelHashTreeFindOrInsert(t, &r, &r); });
  fails("KelHashTreeFindOrInsertNode: unable to find or insert node: Input/output error",
        [&] { return KelHashTreeFindOrInsertNode(t, &r, &r, nullptr); });
  fails("KelHashTreeReplaceOrInsert: unable to replace or insert node",
        [&] { return KelHashTreeReplaceOrInsert(t, &r, &r); });
  fails("KelHashTreeGet: error occurred: Input/output error",
        [&] { return KelHashTreeGet(t, &r, &r); });
  fails("KelHashTreeRemove: error occurred: Input/output error",
        [&] { return KelHashTreeRemove(t, &r, &r); });
  fails("KelHashTreeNextNode: error occurred: Input/output error",
        [&] { return KelHashTreeNextNode(t, &r, &r, nullptr); });
  fails("KelHashTreePrevNode: error occurred: Input/output error",
        [&] { return KelHashTreePrevNode(t, &r, &r, nullptr); });
  EXPECT_EQ(KelHashTreeValidateCompletely(t), 1);
  EXPECT_EQ(KelHashTreeGetNumUsedNodes(t), 10u);

  faults = {.comparisons = 0, .failing = 3, .error = EIO};
  EXPECT_EQ(KelHashTreeSetBits(t, 1), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(reports.take().back(),
            error(22, "KelHashTreeSetBits: failed to replace or insert node"));
}

TEST(HashTree, EveryFailedAllocationHasAWayOut) {
  ReportCapture reports;
  EXPECT_EQ((fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM,
                                                [&] {
                                                  errno = 0;
                                                  if (make_tree(4) == nullptr) {
                                                    EXPECT_EQ(errno, ENOMEM);
                                                  }
                                                })),
            2);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(HasSubstr("Could not allocate"),
                          "preallocator_construct: could not allocate memory",
                          "KelHashTreeInit: failed to initialize preallocator"));
  EXPECT_EQ((fail_each<"calloc", void*(size_t, size_t)>(nullptr, ENOMEM, [&] { make_tree(4); })),
            1);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENOMEM, "KelHashTreeInit: failed to allocate memory")));

  const Tree tree = make_tree(4);
  Record r = {5, 6};
  {
    const Hooked<"mmap", void*(void*, size_t, int, int, int, off_t)> no_map(
        [](void*, size_t, int, int, int, off_t) { return MAP_FAILED; });
    const auto insert = [&] {
      if (KelHashTreeFindOrInsert(tree.get(), &r, nullptr) == 1) return;
      EXPECT_EQ(errno, ENOMEM);
      EXPECT_EQ(reports.take().back(),
                error(ENOMEM,
                      "KelHashTreeFindOrInsert: unable to create new node: Cannot "
                      "allocate memory"));
      EXPECT_EQ(KelHashTreeGetNumUsedNodes(tree.get()), 0u);
    };
    EXPECT_EQ((fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, insert)), 1);
  }
  const auto rehash = [&] {
    if (KelHashTreeSetBits(tree.get(), 6) == 0) return;
    EXPECT_THAT(reports.take(),
                ElementsAre(error(ENOMEM, "KelHashTreeSetBits: could not allocate memory")));
    EXPECT_EQ(KelHashTreeGetBits(tree.get()), 4u);
  };
  EXPECT_EQ((fail_each<"calloc", void*(size_t, size_t)>(nullptr, ENOMEM, rehash)), 1);
  EXPECT_EQ(KelHashTreeGet(tree.get(), &r, &r), 1);
}

}  // namespace
