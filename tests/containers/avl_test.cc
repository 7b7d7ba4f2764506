// The AVL tree of one bucket, where the calls of the whole tree do not reach it.
#include <deque>

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
TEST(Avl, WalksBothWaysAndReplacesANodeInItsPlace) {
  Nodes nodes;
  KelHashTreeNode* root = nullptr;
  KelHashTreePath path;
  std::vector<uint64_t> keys = {1, 2, 3, 4, 5, 6, 7};
  for (const uint64_t key : keys) insert(&root, nodes.make(key), &path);
  KelHashTreeNode* twin = nodes.make(6);
  uint32_t inserted = 7;
  const KelHashTreeNode* replaced =
      KelHashTreeNodeReplaceOrInsert(&root, twin, compare_records, nullptr, &inserted, &path);
  EXPECT_TRUE(replaced != twin && record_of(replaced).key == 6 && inserted == 0);
  EXPECT_EQ(KelHashTreePathValidateCompletely(&path, root, twin), 1);
  EXPECT_EQ(KelHashTreeNodeValidate(root), 1);
  for (const bool forward : {true, false}) {
    const auto start = forward ? KelHashTreeNodeFirst : KelHashTreeNodeLast;
    const auto step = forward ? KelHashTreeNodeNext : KelHashTreeNodePrev;
    std::vector<uint64_t> walked;
    for (const KelHashTreeNode* at = start(root, &path); at != nullptr;
         at = step(root, at, compare_records, nullptr, &path))
      walked.push_back(record_of(at).key);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(walked, keys);
    std::ranges::reverse(keys);
  }
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
  EXPECT_EQ(KelHashTreeNodeHasChild(root, chain[1]), 1);
  KelHashTreePath path;
  EXPECT_EQ(find(root, chain[60], &path), chain[60]);
  expect_refused(
      reports, ENOBUFS,
      {[&] { return !KelHashTreeNodeNext(root, chain[60], compare_records, nullptr, &path); },
       [&] { return !find(root, chain[79], &path); },
       [&] { return !KelHashTreeNodeNext(root, chain[78], compare_records, nullptr, &path); },
       [&] { return !KelHashTreeNodeLast(root, &path); }});
  EXPECT_EQ(insert(&root, nodes.make(90), &path), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_EQ(path.depth, 0u);
  EXPECT_EQ(find(root, chain[79], nullptr), chain[79]);

  EXPECT_EQ(KelHashTreeNodeRemove(&root, chain[79], compare_records, nullptr), nullptr);
  EXPECT_EQ(insert(&root, nodes.make(90), nullptr), nullptr);
  EXPECT_EQ(KelHashTreeNodeReplaceOrInsert(&root, nodes.make(90), compare_records, nullptr, nullptr,
                                           nullptr),
            nullptr);
  EXPECT_EQ(errno, EINVAL);
  chain[50]->balance = 2;
  EXPECT_EQ(KelHashTreeNodeValidate(root), 0);
}

}  // namespace
