// Trees: table, store and order.
#include <kel/hashtree.h>

#include <sys/mman.h>

#include <map>

#include "containers/hashtree_records.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

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
    const Record untouched = {1u << 20, 0};
    Record out = untouched;
    const auto growth = random_() % 2 + (steps_++ / 4000 % 2 == 0 ? 1 : 0);
    const auto dice = random_() % 5 + growth;
    if (dice <= 1) {
      ASSERT_EQ(KelHashTreeRemove(tree_.get(), &record, &out), exists);
      deletes_ += exists;
      if (exists) records_.erase(known);
    } else if (dice == 2) {
      ASSERT_EQ(KelHashTreeGet(tree_.get(), &record, &out), exists);
    } else if (dice == 3) {
      ASSERT_EQ(KelHashTreeFindOrInsert(tree_.get(), &record, &out), !exists);
      records_.emplace(place(key), record);
    } else if (dice == 4) {
      ASSERT_EQ(KelHashTreeFindOrInsertNode(tree_.get(), &record, &out, &path_), exists);
      ASSERT_EQ(record_of(KelHashTreePathPeek(&path_)), old);
      check_path();
      records_.emplace(place(key), record);
    } else {
      ASSERT_EQ(KelHashTreeReplaceOrInsert(tree_.get(), &record, &out), exists);
      records_[place(key)] = record;
    }
    ASSERT_EQ(out, exists || dice == 4 ? old : untouched);
  }

  void check_neighbours() {
    Record key = {random_() % 3002, 0};
    const auto after = records_.upper_bound(place(key.key));
    const auto before = records_.lower_bound(place(key.key));
    Record out = {};
    const bool known = KelHashTreeFindNode(tree_.get(), &key, &out, &path_) == 1;
    ASSERT_EQ(known, records_.contains(place(key.key)));
    ASSERT_EQ(path_.depth != 0, known);
    // Along the path where the key was found, else by a search that fills it.
    KelHashTreePath* path = random_() % 2 == 0 ? &path_ : nullptr;
    const bool forward = random_() % 2 == 0;
    const bool there = forward ? after != records_.end() : before != records_.begin();
    ASSERT_EQ(forward ? KelHashTreeNextNode(tree_.get(), &key, &key, path)
                      : KelHashTreePrevNode(tree_.get(), &key, &key, path),
              there);
    if (!there) return;
    ASSERT_EQ(key, (forward ? after : std::prev(before))->second);
    if (path != nullptr) check_path();
  }

  void check_walks() {
    ASSERT_EQ(KelHashTreeValidateCompletely(tree_.get()), 1);
    ASSERT_EQ(KelHashTreeGetNumDeletes(tree_.get()), deletes_);
    ASSERT_EQ(KelHashTreeGetNumUsedNodes(tree_.get()), records_.size());
    std::vector<Record> expected;
    std::vector<uint64_t> keys, expected_keys;
    for (const auto& [where, record] : records_) {
      expected.push_back(record);
      expected_keys.push_back(record.key);
    }
    for (uint64_t bucket = 0; bucket < uint64_t{1} << bits_; ++bucket) {
      const KelHashTreeNode* root = tree_->buckets[bucket];
      const uint64_t before = keys.size();
      ASSERT_EQ(KelHashTreeNodeDepth(root), static_cast<uint64_t>(collect_keys(root, &keys)));
      ASSERT_EQ(KelHashTreeNodeCount(root), keys.size() - before);
    }
    ASSERT_EQ(keys, expected_keys);
    for (KelHashTreePath* path : {&path_, static_cast<KelHashTreePath*>(nullptr)}) {
      std::vector<Record> forward, backward;
      Record record;
      for (int found = KelHashTreeFirstNode(tree_.get(), &record, path); found == 1;
           found = KelHashTreeNextNode(tree_.get(), &record, &record, path))
        forward.push_back(record);
      ASSERT_EQ(errno, ENOENT);
      for (int found = KelHashTreeLastNode(tree_.get(), &record, path); found == 1;
           found = KelHashTreePrevNode(tree_.get(), &record, &record, path))
        backward.push_back(record);
      ASSERT_EQ(forward, expected);
      ASSERT_EQ(backward, std::vector(expected.rbegin(), expected.rend()));
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
  Place place(uint64_t key) const { return place_of(key, bits_); }
  void check_path() {
    const KelHashTreeNode* node = KelHashTreePathPeek(&path_);
    const KelHashTreeNode* root = tree_->buckets[place(record_of(node).key).first];
    ASSERT_EQ(KelHashTreePathValidateCompletely(&path_, root, node), 1);
  }

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
        if (round % 1000 == 999) model.check_walks();
        if (round == 7000) model.set_bits(8 - bits / 2);
        if (round == 12000) model.set_bits(bits);
        if (round == 15000) model.clear();
      }
    }
  }
}

TEST(HashTree, SettingsMakeItsSizeOrAreRefused) {
  ReportCapture reports;
  const Tree tree = make_tree(3, nullptr, 1000);  // nodes of 40 bytes, 24 a slab
  for (Record record = {}; record.key < 30; ++record.key)
    KelHashTreeFindOrInsert(tree.get(), &record, nullptr);
  EXPECT_EQ(KelHashTreeGetNumUnusedNodes(tree.get()), 18u);
  EXPECT_EQ(KelHashTreeGetMemoryUsage(tree.get()), 2 * 1000 + 8 * 8 + KelHashTreeSize());
  KelHashTree odd;  // a record of 17 bytes takes a node of 48
  ASSERT_EQ(KelHashTreeInit(&odd, 0, 17, compare_records, hash_record, nullptr, 4096), &odd);
  EXPECT_EQ(KelHashTreeGetNodeSize(&odd), 48u);
  KelHashTreeDeinit(&odd);
  KelHashTreeDeinit(&odd);

  const auto make = [&](uint32_t bits, KelHashTreeCompareFn compare, KelHashTreeHashFn hash) {
    return KelHashTreeNew(bits, 8, compare, hash, nullptr, 4096);
  };
  expect_refused(reports, EINVAL,
                 {[&] { return !make(0, nullptr, hash_record); },
                  [&] { return !make(0, compare_records, nullptr); },
                  [&] { return !make(30, compare_records, hash_record); },
                  [&] { return KelHashTreeSetBits(tree.get(), 30) == -1; },
                  [&] { return KelHashTreeSetBits(nullptr, 1) == -1; }});
  // A record size near 2^64 must not wrap into a small node.
  for (const uint64_t size : {uint64_t{4096}, UINT64_MAX - 24, UINT64_MAX}) {
    EXPECT_EQ(KelHashTreeNew(0, size, compare_records, hash_record, nullptr, 4096), nullptr);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(KelHashTreeSetBits(tree.get(), 3), 0);
}

TEST(HashTree, MissingArgumentsAreReported) {
  ReportCapture reports;
  const Tree tree = make_tree(2);
  Record r = {};
  for (const bool without_tree : {true, false}) {
    KelHashTree* t = without_tree ? nullptr : tree.get();
    const Record* key = without_tree ? &r : nullptr;
    expect_refused(reports, EINVAL,
                   {[&] { return KelHashTreeFindOrInsert(t, key, &r) == -1; },
                    [&] { return KelHashTreeReplaceOrInsert(t, key, &r) == -1; },
                    [&] { return KelHashTreeGet(t, key, &r) == -1; },
                    [&] { return KelHashTreeRemove(t, key, &r) == -1; },
                    [&] { return KelHashTreeNextNode(t, key, &r, nullptr) == -1; }});
  }
  KelHashTreeNode* root = nullptr;
  KelHashTreePath path;
  const auto compare = compare_records;
  expect_refused(reports, EINVAL,
                 {[&] { return KelHashTreeGetNumUsedNodes(nullptr) == UINT64_MAX; },
                  [] { return !KelHashTreePathPop(nullptr); },
                  [&] { return !KelHashTreePathPush(&path, nullptr); },
                  [&] { return !KelHashTreeNodeFind(root, nullptr, compare, nullptr, &path); },
                  [&] { return !KelHashTreeNodeNext(root, nullptr, compare, nullptr, &path); },
                  [&] { return !KelHashTreeNodeRemove(&root, nullptr, compare, nullptr); },
                  [&] { return !KelHashTreeIteratorInitEnd(nullptr, tree.get()); },
                  [&] { return KelHashTreeIteratorNext(nullptr, &r) == -1; }});
  // Releasing nothing is no mistake.
  KelHashTreeDelete(nullptr);
  KelHashTreePathDelete(nullptr);
  KelHashTreeIteratorDelete(nullptr);
}

TEST(HashTree, AFailedComparisonLeavesTheTreeAsItWas) {
  ReportCapture reports;
  Faults faults;
  const Tree tree = make_tree(0, &faults);
  KelHashTree* t = tree.get();
  Record r = {};
  for (; r.key < 40; r.key += 2) KelHashTreeFindOrInsert(t, &r, nullptr);
  std::vector<uint64_t> before;
  collect_keys(t->buckets[0], &before);
  const uint64_t unused = KelHashTreeGetNumUnusedNodes(t);
  const Record inside = {38, 0}, outside = {37, 0};
  KelHashTreePath path;
  for (const std::function<int()>& operation : std::initializer_list<std::function<int()>>{
           [&] { return KelHashTreeFindOrInsert(t, &outside, &r); },
           [&] { return KelHashTreeFindOrInsertNode(t, &outside, &r, &path); },
           [&] { return KelHashTreeReplaceOrInsert(t, &outside, &r); },
           [&] { return KelHashTreeGet(t, &inside, &r); },
           [&] { return KelHashTreeNextNode(t, &inside, &r, &path); },
           [&] { return KelHashTreePrevNode(t, &inside, &r, &path); },
           [&] { return KelHashTreeRemove(t, &inside, &r); }}) {
    for (long nth = 1;; ++nth) {
      KelHashTreePathInit(&path);
      faults.fail(nth);
      const int result = operation();
      if (faults.comparisons < nth) {
        EXPECT_GE(nth, 4);
        break;
      }
      EXPECT_EQ(result, -1);
      EXPECT_EQ(errno, EIO);
      EXPECT_THAT(reports.take(), Each(Field(&Report::code, EIO)));
      EXPECT_EQ(path.depth, 0u);
      EXPECT_EQ(KelHashTreeGetNumUnusedNodes(t), unused);
      std::vector<uint64_t> keys;
      collect_keys(t->buckets[0], &keys);
      EXPECT_EQ(keys, before);
    }
    faults = {};
    KelHashTreeRemove(t, &outside, nullptr);
  }
  faults.fail(3);
  EXPECT_EQ(KelHashTreeSetBits(t, 1), -1);
}

TEST(HashTree, EveryFailedAllocationHasAWayOut) {
  ReportCapture reports;
  const auto build = [&] {
    errno = 0;
    const Tree made = make_tree(4);
    EXPECT_EQ(errno, made == nullptr ? ENOMEM : 0);
  };
  EXPECT_EQ(fail_each_malloc(build), 2);
  EXPECT_EQ(fail_each_calloc(build), 1);

  const Tree tree = make_tree(4);
  Record r = {5, 6};
  {
    const Hooked<"mmap", void*(void*, size_t, int, int, int, off_t)> no_map(
        [](void*, size_t, int, int, int, off_t) { return MAP_FAILED; });
    const auto insert = [&] {
      if (KelHashTreeFindOrInsert(tree.get(), &r, nullptr) == 1) return;
      EXPECT_EQ(errno, ENOMEM);
      EXPECT_EQ(KelHashTreeGetNumUsedNodes(tree.get()), 0u);
    };
    EXPECT_EQ(fail_each_malloc(insert), 1);
  }
  const auto rehash = [&] {
    const bool done = KelHashTreeSetBits(tree.get(), 6) == 0;
    EXPECT_EQ(KelHashTreeGetBits(tree.get()), done ? 6u : 4u);
  };
  EXPECT_EQ(fail_each_calloc(rehash), 1);
  EXPECT_EQ(KelHashTreeGet(tree.get(), &r, &r), 1);
}

}  // namespace
