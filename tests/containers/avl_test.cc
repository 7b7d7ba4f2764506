// The AVL tree of one bucket.
#include <algorithm>
#include <deque>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>

#include "containers/hashtree_records.h"
#include "support/reports.h"

namespace {

using kel::testing::collect_keys;
using kel::testing::compare_records;
using kel::testing::error;
using kel::testing::Faults;
using kel::testing::Record;
using kel::testing::record_of;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Makes nodes, at addresses `offset` bytes off a multiple of 8, and keeps them.
class Nodes {
 public:
  explicit Nodes(size_t offset = 0) : offset_(offset) {}

  KelHashTreeNode* make(uint64_t key, uint32_t value = 0) {
    char* memory = reinterpret_cast<char*>(blocks_.emplace_back().words) + offset_;
    std::memset(memory, 0x5A, sizeof(KelHashTreeNode));
    auto* node = reinterpret_cast<KelHashTreeNode*>(memory);
    const Record record = {key, value};
    std::memcpy(KelHashTreeNodeGetNodeData(node), &record, sizeof record);
    return node;
  }

 private:
  struct Block {
    uint64_t words[6];
  };
  std::deque<Block> blocks_;
  size_t offset_;
};

/// A root with its checks.
struct Bucket {
  KelHashTreeNode* root = nullptr;
  Faults faults;

  KelHashTreeNode* insert(KelHashTreeNode* node, KelHashTreePath* path = nullptr) {
    return KelHashTreeNodeFindOrInsert(&root, node, compare_records, &faults, nullptr, path);
  }
  KelHashTreeNode* remove(const KelHashTreeNode* key) {
    return KelHashTreeNodeRemove(&root, key, compare_records, &faults);
  }
  KelHashTreeNode* find(const KelHashTreeNode* key, KelHashTreePath* path = nullptr) {
    return KelHashTreeNodeFind(root, key, compare_records, &faults, path);
  }
  KelHashTreeNode* next(const KelHashTreeNode* key, KelHashTreePath* path = nullptr) {
    return KelHashTreeNodeNext(root, key, compare_records, &faults, path);
  }
  KelHashTreeNode* prev(const KelHashTreeNode* key, KelHashTreePath* path = nullptr) {
    return KelHashTreeNodePrev(root, key, compare_records, &faults, path);
  }
  std::vector<uint64_t> keys() const {
    std::vector<uint64_t> result;
    const int height = collect_keys(root, &result);
    EXPECT_EQ(KelHashTreeNodeDepth(root), static_cast<uint64_t>(height));
    EXPECT_EQ(KelHashTreeNodeCount(root), result.size());
    EXPECT_EQ(KelHashTreeNodeValidate(root), 1);
    return result;
  }
};

TEST(Avl, EveryOrderOfInsertionAndEveryRemovalKeepsBalanceAndPaths) {
  std::vector<uint64_t> order(7);
  std::iota(order.begin(), order.end(), 1);
  do {
    for (uint64_t removed = 0; removed <= order.size(); removed += 1 + order[0] % 2) {
      Nodes nodes;
      Bucket bucket;
      KelHashTreePath path;
      for (const uint64_t key : order) {
        KelHashTreeNode* node = nodes.make(key);
        uint32_t inserted = 7;
        KelHashTreeNode** link =
            KelHashTreeNodeProbe(&bucket.root, node, compare_records, nullptr, &inserted, &path);
        ASSERT_EQ(*link, node);
        ASSERT_EQ(inserted, 1u);
        ASSERT_EQ(KelHashTreePathValidateCompletely(&path, bucket.root, node), 1);
        if (path.depth == 1)
          ASSERT_EQ(link, &bucket.root);
        else
          ASSERT_EQ(KelHashTreeNodeHasChild(path.entries[path.depth - 2], *link), 1);
      }
      std::set<uint64_t> expected(order.begin(), order.end());
      ASSERT_EQ(bucket.remove(nodes.make(removed)) != nullptr, expected.erase(removed) == 1);
      ASSERT_THAT(bucket.keys(), ::testing::ElementsAreArray(expected));
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Avl, RotatesOnceOrTwice) {
  for (const auto& order : {std::vector<uint64_t>{1, 2, 3}, {3, 1, 2}, {1, 3, 2}, {3, 2, 1}}) {
    Nodes nodes;
    Bucket bucket;
    for (const uint64_t key : order) bucket.insert(nodes.make(key));
    EXPECT_EQ(record_of(bucket.root).key, 2u);
    EXPECT_THAT(bucket.keys(), ElementsAre(1, 2, 3));
  }
}

/// The tree beside a std::map; `offset` misplaces the nodes.
void compare_with_map(uint32_t seed, size_t offset) {
  std::mt19937 random(seed);
  Nodes nodes(offset);
  Bucket bucket;
  std::map<uint64_t, KelHashTreeNode*> model;
  const auto node_at = [&](auto it) { return it == model.end() ? nullptr : it->second; };
  const auto node_before = [&](auto it) {
    return it == model.begin() ? nullptr : std::prev(it)->second;
  };
  KelHashTreePath path;
  KelHashTreePathInit(&path);
  for (int round = 0; round < 6000; ++round) {
    const uint64_t key = random() % 400;
    KelHashTreeNode* node = nodes.make(key, static_cast<uint32_t>(round));
    KelHashTreeNode* known = node_at(model.find(key));
    const bool growing = round / 1000 % 2 == 0;
    if (random() % 100 < (growing ? 60 : 25)) {
      if (random() % 2 == 0) {
        ASSERT_EQ(bucket.insert(node, &path), known != nullptr ? known : node);
        model.emplace(key, node);
      } else {
        uint32_t inserted = 7;
        ASSERT_EQ(KelHashTreeNodeReplaceOrInsert(&bucket.root, node, compare_records, nullptr,
                                                 &inserted, &path),
                  known != nullptr ? known : node);
        ASSERT_EQ(inserted, known == nullptr);
        model[key] = node;
      }
      ASSERT_EQ(KelHashTreePathValidateCompletely(&path, bucket.root, model[key]), 1);
    } else {
      errno = 0;
      ASSERT_EQ(bucket.remove(node), known);
      ASSERT_EQ(errno, known != nullptr ? 0 : ENOENT);
      model.erase(key);
    }

    const uint64_t wanted = random() % 402;
    const KelHashTreeNode* sought = nodes.make(wanted);
    known = node_at(model.find(wanted));
    ASSERT_EQ(bucket.find(sought), known);
    ASSERT_EQ(bucket.find(sought, &path), known);
    ASSERT_EQ(bucket.next(sought), node_at(model.upper_bound(wanted)));
    ASSERT_EQ(bucket.prev(sought), node_before(model.lower_bound(wanted)));
    // Along the path where the key was found, else by a search that fills it.
    const bool forward = random() % 2 == 0;
    KelHashTreeNode* there = forward ? bucket.next(sought, &path) : bucket.prev(sought, &path);
    ASSERT_EQ(there, forward ? node_at(model.upper_bound(wanted))
                             : node_before(model.lower_bound(wanted)));
    if (there == nullptr)
      ASSERT_EQ(path.depth, 0u);
    else
      ASSERT_EQ(KelHashTreePathValidateCompletely(&path, bucket.root, there), 1);

    if (round % 8 != 0) continue;
    std::vector<uint64_t> expected;
    for (const auto& entry : model) expected.push_back(entry.first);
    ASSERT_EQ(bucket.keys(), expected);
    ASSERT_EQ(KelHashTreeNodeFirst(bucket.root, &path), node_at(model.begin()));
    ASSERT_EQ(KelHashTreeNodeLast(bucket.root, &path), node_before(model.end()));
  }
}

TEST(Avl, AgreesWithStdMapOverRandomOperations) { compare_with_map(1, 0); }
TEST(Avl, WorksOnNodesAtAnyAddress) { compare_with_map(2, 4); }

TEST(Avl, StepsAlongAPathThatNoLongerFitsStartAgainFromTheRoot) {
  Nodes nodes;
  Bucket bucket;
  std::vector<KelHashTreeNode*> all;
  for (uint64_t key = 0; key < 15; ++key) all.push_back(bucket.insert(nodes.make(key)));
  KelHashTreePath path;
  for (const bool forward : {true, false}) {
    const KelHashTreeNode* leaf = bucket.find(all[forward ? 6 : 8], &path);
    ASSERT_EQ(path.depth, 4u);
    path.entries[2] = all[12];  // not the leaf's parent
    const KelHashTreeNode* there = forward ? bucket.next(leaf, &path) : bucket.prev(leaf, &path);
    EXPECT_EQ(there, all[7]);
    EXPECT_EQ(KelHashTreePathValidateCompletely(&path, bucket.root, all[7]), 1);
  }
}

TEST(Avl, AFailedComparisonLeavesTheTreeAsItWas) {
  ReportCapture reports;
  Nodes nodes;
  Bucket bucket;
  for (uint64_t key = 0; key < 20; ++key) bucket.insert(nodes.make(2 * key));
  const std::vector<uint64_t> before = bucket.keys();
  const KelHashTreeNode* inside = nodes.make(38);
  KelHashTreeNode* outside = nodes.make(37);
  KelHashTreePath path;
  const auto fails = [&](const char* text, auto operation) {
    int failed = 0;
    for (;; ++failed) {
      bucket.faults = {.comparisons = 0, .failing = failed + 1, .error = EIO};
      errno = 0;
      reports.take();
      KelHashTreePathInit(&path);
      const void* result = operation();
      if (bucket.faults.comparisons < bucket.faults.failing) break;
      EXPECT_EQ(result, nullptr);
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(reports.take().at(0), error(EIO, std::string(text) + ": Input/output error"));
      EXPECT_EQ(path.depth, 0u);
      EXPECT_EQ(bucket.keys(), before);
    }
    EXPECT_GE(failed, 4);
    bucket.faults = {};
  };
  fails("KelHashTreeNodeFind: bad comparison result", [&] { return bucket.find(inside, &path); });
  fails("KelHashTreeNodeNext: unable to compare tree nodes",
        [&] { return bucket.next(inside, &path); });
  fails("KelHashTreeNodePrev: unable to compare nodes", [&] { return bucket.prev(inside, &path); });
  fails("KelHashTreeNodeProbe: bad comparission value",
        [&] { return bucket.insert(outside, &path); });
  bucket.remove(outside);
  fails("KelHashTreeNodeProbe: bad comparission value", [&] {
    return KelHashTreeNodeReplaceOrInsert(&bucket.root, outside, compare_records, &bucket.faults,
                                          nullptr, &path);
  });
  bucket.remove(outside);
  fails("KelHashTreeNodeRemove: bad comparison result", [&] { return bucket.remove(inside); });

  bucket.faults = {.comparisons = 0, .failing = 1, .error = EIO};
  reports.take();
  bucket.insert(outside);
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("KelHashTreeNodeProbe: bad comparission value: Input/output error",
                  "KelHashTreeNodeFindOrInsert: unable to probe tree path: Input/output error"));
}

TEST(Avl, DamageIsReportedAndTooDeepATreeOverrunsNothing) {
  ReportCapture reports;
  Nodes nodes;
  std::vector<KelHashTreeNode*> chain;  // 80 levels that claim to be balanced
  for (uint64_t key = 0; key < 80; ++key) {
    KelHashTreeNode* node = nodes.make(key);
    node->link[0] = node->link[1] = nullptr;
    node->balance = 0;
    if (!chain.empty()) chain.back()->link[1] = node;
    chain.push_back(node);
  }
  Bucket bucket;
  bucket.root = chain[0];
  KelHashTreePath path;
  EXPECT_EQ(bucket.find(chain[79], &path), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(bucket.next(chain[78], &path), nullptr);
  EXPECT_EQ(bucket.insert(nodes.make(90), &path), nullptr);
  EXPECT_EQ(KelHashTreeNodeLast(bucket.root, &path), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(bucket.find(chain[60], &path), chain[60]);
  EXPECT_EQ(bucket.next(chain[60], &path), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(path.depth, 0u);
  for (const kel::testing::Report& report : reports.take())
    if (report.text.find("FindOrInsert") == std::string::npos) {
      EXPECT_EQ(report, error(105,
                              "KelHashTreePathPush: current depth (61) equal to max depth "
                              "allowed (61)"));
    }

  EXPECT_EQ(bucket.remove(chain[79]), nullptr);
  EXPECT_EQ(bucket.insert(nodes.make(90)), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(bucket.find(chain[79]), chain[79]);
  chain[50]->balance = 2;
  EXPECT_EQ(KelHashTreeNodeValidate(bucket.root), 0);
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("KelHashTreeNodeRemove: encountered invalid state",
                  "KelHashTreeNodeProbe: encountered invalid state",
                  "KelHashTreeNodeFindOrInsert: unable to probe tree path: Invalid argument",
                  "KelHashTreeNodeValidate: encountered invalid state"));
}

TEST(Avl, EmptyTreesAndMissingArguments) {
  ReportCapture reports;
  Nodes nodes;
  Bucket bucket;
  KelHashTreeNode* node = nodes.make(1);
  for (const KelHashTreeNode* none :
       {bucket.find(node), bucket.next(node), bucket.prev(node), bucket.remove(node),
        KelHashTreeNodeFirst(nullptr, nullptr), KelHashTreeNodeLast(nullptr, nullptr)}) {
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(errno, ENOENT);
  }
  EXPECT_EQ(KelHashTreeNodeDataOffset(), 24u);
  EXPECT_THAT(bucket.keys(), IsEmpty());
  EXPECT_THAT(reports.take(), IsEmpty());

  EXPECT_EQ(bucket.find(nullptr), nullptr);
  EXPECT_EQ(bucket.next(nullptr), nullptr);
  EXPECT_EQ(bucket.prev(nullptr), nullptr);
  EXPECT_EQ(bucket.remove(nullptr), nullptr);
  EXPECT_EQ(KelHashTreeNodeProbe(nullptr, node, compare_records, nullptr, nullptr, nullptr),
            nullptr);
  EXPECT_EQ(KelHashTreeNodeHasChild(nullptr, node), -1);
  EXPECT_EQ(errno, EINVAL);
  std::vector<kel::testing::Report> expected;
  for (const char* name : {"Find", "Next", "Prev", "Remove", "Probe", "HasChild"})
    expected.push_back(
        error(22, std::string("KelHashTreeNode") + name + ": invalid NULL parameter"));
  EXPECT_EQ(reports.take(), expected);
}

}  // namespace
