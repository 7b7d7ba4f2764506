// Records, nodes and checks that the tests of the hash tree and the set share.
#pragma once

#include <kel/hashtree.h>

#include "support/test.h"

namespace kel::testing {

struct Record {
  uint64_t key;
  uint32_t value;

  friend bool operator==(const Record&, const Record&) = default;
};

/// Context of the caller's functions: lets a comparison fail.
struct Faults {
  long comparisons = 0;
  long failing = 0;  // the number of the comparison that fails; 0 for none

  void fail(long nth) { *this = {.comparisons = 0, .failing = nth}; }
};

inline int32_t compare_records(void* context, const void* a, const void* b) {
  auto* faults = static_cast<Faults*>(context);
  if (faults != nullptr && ++faults->comparisons == faults->failing) {
    errno = EIO;
    return -2;
  }
  Record left;
  Record right;
  std::memcpy(&left, a, sizeof left);  // records of nodes may lie anywhere
  std::memcpy(&right, b, sizeof right);
  if (left.key == right.key) return 0;
  return left.key < right.key ? -3 : 5;
}

inline uint32_t hash_value(uint64_t key) { return static_cast<uint32_t>(key * 2654435761u); }

inline uint32_t hash_record(void*, const void* record) {
  Record r;
  std::memcpy(&r, record, sizeof r);
  return hash_value(r.key);
}

/// Where a record stands in a walk over 2^bits buckets: its bucket, then its key.
using Place = std::pair<uint32_t, uint64_t>;
inline Place place_of(uint64_t key, uint32_t bits) {
  return {hash_value(key) & ((1u << bits) - 1), key};
}

struct DeleteTree {
  void operator()(KelHashTree* tree) const { KelHashTreeDelete(&tree); }
};
using Tree = std::unique_ptr<KelHashTree, DeleteTree>;

inline Tree make_tree(uint32_t bits, Faults* faults = nullptr, uint64_t slab_size = 4096) {
  return Tree(
      KelHashTreeNew(bits, sizeof(Record), compare_records, hash_record, faults, slab_size));
}

inline Record record_of(const KelHashTreeNode* node) {
  Record r;
  std::memcpy(&r, KelHashTreeNodeGetNodeData(node), sizeof r);
  return r;
}

/// Appends the keys of a subtree in order and returns its height; checks every balance.
inline int collect_keys(const KelHashTreeNode* root, std::vector<uint64_t>* keys) {
  if (root == nullptr) return 0;
  const int before = collect_keys(root->link[0], keys);
  keys->push_back(record_of(root).key);
  const int after = collect_keys(root->link[1], keys);
  EXPECT_EQ(root->balance, after - before);
  return 1 + std::max(before, after);
}

}  // namespace kel::testing
