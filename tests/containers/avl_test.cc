// The AVL tree of one bucket.
#include <deque>
#include <numeric>
#include <set>

#include "containers/hashtree_records.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

/// Makes nodes, not cleared, and keeps them.
class Nodes {
 public:
  KelHashTreeNode* make(uint64_t key) {
    char* memory = blocks_.emplace_back().bytes;
    std::memset(memory, 0x5A, sizeof(KelHashTreeNode));
    auto* node = reinterpret_cast<KelHashTreeNode*>(memory);
    const Record record = {key, 0};
    std::memcpy(KelHashTreeNodeGetNodeData(node), &record, sizeof record);
    return node;
  }

 private:
  struct Block {
    alignas(8) char bytes[40];
  };
  std::deque<Block> blocks_;
};

KelHashTreeNode* insert(KelHashTreeNode** root, KelHashTreeNode* node, KelHashTreePath* path) {
  return KelHashTreeNodeFindOrInsert(root, node, compare_records, nullptr, nullptr, path);
}
KelHashTreeNode* find(KelHashTreeNode* root, KelHashTreeNode* key, KelHashTreePath* path) {
  return KelHashTreeNodeFind(root, key, compare_records, nullptr, path);
}
KelHashTreeNode* next(KelHashTreeNode* root, KelHashTreeNode* key, KelHashTreePath* path) {
  return KelHashTreeNodeNext(root, key, compare_records, nullptr, path);
}

TEST(Avl, EveryOrderOfInsertionAndEveryRemovalKeepsBalanceAndPaths) {
  std::vector<uint64_t> order(7);
  std::iota(order.begin(), order.end(), 1);
  do {
    for (uint64_t removed = 0; removed <= order.size(); removed += 1 + order[0] % 2) {
      Nodes nodes;
      KelHashTreeNode* root = nullptr;
      KelHashTreePath path;
      uint32_t inserted = 7;
      for (const uint64_t key : order) {
        KelHashTreeNode* node = nodes.make(key);
        KelHashTreeNode** link =
            KelHashTreeNodeProbe(&root, node, compare_records, nullptr, &inserted, &path);
        ASSERT_TRUE(*link == node && inserted == 1);
        ASSERT_EQ(KelHashTreePathValidateCompletely(&path, root, node), 1);
        if (path.depth == 1)
          ASSERT_EQ(link, &root);
        else
          ASSERT_EQ(KelHashTreeNodeHasChild(path.entries[path.depth - 2], *link), 1);
      }
      KelHashTreeNode* twin = nodes.make(order[3]);
      const KelHashTreeNode* replaced =
          KelHashTreeNodeReplaceOrInsert(&root, twin, compare_records, nullptr, &inserted, &path);
      ASSERT_EQ(record_of(replaced).key, order[3]);
      ASSERT_TRUE(replaced != twin && inserted == 0);
      ASSERT_EQ(KelHashTreePathValidateCompletely(&path, root, twin), 1);

      std::set<uint64_t> expected(order.begin(), order.end());
      ASSERT_EQ(
          KelHashTreeNodeRemove(&root, nodes.make(removed), compare_records, nullptr) != nullptr,
          expected.erase(removed) == 1);
      std::vector<uint64_t> keys;
      const int height = collect_keys(root, &keys);
      ASSERT_THAT(keys, ElementsAreArray(expected));
      ASSERT_EQ(KelHashTreeNodeDepth(root), static_cast<uint64_t>(height));
      ASSERT_EQ(KelHashTreeNodeCount(root), keys.size());
      ASSERT_EQ(KelHashTreeNodeValidate(root), 1);

      for (const bool forward : {true, false}) {
        const auto start = forward ? KelHashTreeNodeFirst : KelHashTreeNodeLast;
        const auto step = forward ? KelHashTreeNodeNext : KelHashTreeNodePrev;
        std::vector<uint64_t> walked;
        for (const KelHashTreeNode* at = start(root, &path); at != nullptr;
             at = step(root, at, compare_records, nullptr, &path)) {
          ASSERT_EQ(KelHashTreePathValidateCompletely(&path, root, at), 1);
          walked.push_back(record_of(at).key);
        }
        ASSERT_EQ(errno, ENOENT);
        ASSERT_EQ(path.depth, 0u);
        ASSERT_EQ(walked, keys);
        std::ranges::reverse(keys);
      }
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Avl, StepsAlongAPathThatNoLongerFitsStartAgainFromTheRoot) {
  Nodes nodes;
  KelHashTreeNode* root = nullptr;
  std::vector<KelHashTreeNode*> all;
  KelHashTreePath path;
  for (uint64_t key = 0; key < 15; ++key) all.push_back(insert(&root, nodes.make(key), &path));
  for (const bool forward : {true, false}) {
    KelHashTreeNode* leaf = find(root, all[forward ? 6 : 8], &path);
    ASSERT_EQ(path.depth, 4u);
    path.entries[2] = all[12];  // not the leaf's parent
    const auto step = forward ? KelHashTreeNodeNext : KelHashTreeNodePrev;
    EXPECT_EQ(step(root, leaf, compare_records, nullptr, &path), all[7]);
    EXPECT_EQ(KelHashTreePathValidateCompletely(&path, root, all[7]), 1);
  }
}

TEST(Avl, DamageIsReportedAndTooDeepATreeOverrunsNothing) {
  ReportCapture reports;
  EXPECT_EQ(KelHashTreeNodeDataOffset(), sizeof(KelHashTreeNode));
  Nodes nodes;
  std::vector<KelHashTreeNode*> chain;  // 80 levels that claim to be balanced
  for (uint64_t key = 0; key < 80; ++key) {
    KelHashTreeNode* node = nodes.make(key);
    node->link[0] = node->link[1] = nullptr;
    node->balance = 0;
    if (!chain.empty()) chain.back()->link[1] = node;
    chain.push_back(node);
  }
  KelHashTreeNode* root = chain[0];
  KelHashTreePath path;
  EXPECT_EQ(find(root, chain[60], &path), chain[60]);
  EXPECT_EQ(next(root, chain[60], &path), nullptr);
  EXPECT_EQ(path.depth, 0u);
  EXPECT_EQ(find(root, chain[79], &path), nullptr);
  EXPECT_EQ(next(root, chain[78], &path), nullptr);
  EXPECT_EQ(KelHashTreeNodeLast(root, &path), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_THAT(reports.take_texts(),
              Each("KelHashTreePathPush: current depth (61) equal to max depth allowed (61)"));
  EXPECT_EQ(insert(&root, nodes.make(90), &path), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  reports.take();

  EXPECT_EQ(KelHashTreeNodeRemove(&root, chain[79], compare_records, nullptr), nullptr);
  EXPECT_EQ(insert(&root, nodes.make(90), nullptr), nullptr);
  EXPECT_EQ(KelHashTreeNodeReplaceOrInsert(&root, nodes.make(90), compare_records, nullptr, nullptr,
                                           nullptr),
            nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(find(root, chain[79], nullptr), chain[79]);
  chain[50]->balance = 2;
  EXPECT_EQ(KelHashTreeNodeValidate(root), 0);
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("KelHashTreeNodeRemove: encountered invalid state",
                  "KelHashTreeNodeProbe: encountered invalid state",
                  "KelHashTreeNodeFindOrInsert: unable to probe tree path: Invalid argument",
                  "KelHashTreeNodeProbe: encountered invalid state",
                  "KelHashTreeNodeReplaceOrInsert: unable to probe tree path: Invalid argument",
                  "KelHashTreeNodeValidate: encountered invalid state"));
}

}  // namespace
