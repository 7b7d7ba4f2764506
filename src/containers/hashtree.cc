// Hash tree: the table of buckets, and records in nodes from the preallocator.
#include <kel/hashtree.h>

#include <cstdlib>
#include <cstring>

#include "containers/avl.h"
#include "containers/preallocator_blocks.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kNull[] = "%s: invalid NULL parameter";

/// No live node starts with this: its first word is a pointer.
constexpr uint64_t kFreeNodeMarker = UINT64_MAX;

/// Bytes per node; more than any slab has when records are too large for the sum.
uint64_t node_size(uint64_t record_size) noexcept {
  constexpr uint64_t kAlignment = 8;
  if (record_size > UINT64_MAX - kNodeDataOffset - kAlignment) return UINT64_MAX;
  return (record_size + kNodeDataOffset + kAlignment - 1) / kAlignment * kAlignment;
}

constexpr uint64_t kBucketSize = sizeof(KelHashTreeNode*);

uint64_t num_buckets(const KelHashTree* tree) noexcept { return uint64_t{1} << tree->bits; }

KelHashTreeNode** allocate_buckets(uint32_t bits) noexcept {
  return static_cast<KelHashTreeNode**>(std::calloc(size_t{1} << bits, kBucketSize));
}

KelHashTreeNode** bucket_of(const KelHashTree* tree, const void* record) {
  return tree->buckets + (tree->hash(tree->context, record) & (num_buckets(tree) - 1));
}

/// Copies a record; in line, without a loop, for the sizes of a fingerprint and what goes with it.
[[gnu::always_inline]] inline void copy_record(void* to, const void* from, uint64_t size) noexcept {
  if (size < 32 || size > 64) {
    std::memcpy(to, from, size);
    return;
  }
  auto* out = static_cast<char*>(to);
  const auto* in = static_cast<const char*>(from);
  std::memcpy(out, in, 32);
  std::memcpy(out + size - 32, in + size - 32, 32);
}

[[gnu::always_inline]] inline void copy_out(const KelHashTree* tree, const KelHashTreeNode* node,
                                            void* out) noexcept {
  if (out != nullptr) copy_record(out, record_of(node), tree->node_data_size);
}

/// The store's next free node, with a copy of the caller's record, so that the caller's functions
/// see nodes' records only; null after a report. It stays on the free list, whose words lie before
/// the record: there is nothing to give back, and only insert() may write to the node's head.
[[gnu::always_inline]] inline KelHashTreeNode* scratch_node(KelHashTree* tree, const void* record,
                                                            const char* function) {
  preallocator_t* store = tree->preallocator;
  if (store->free_blocks == nullptr && add_slab(store) != 0) [[unlikely]]
    return fail<KelHashTreeNode*>(nullptr, errno, "%s: unable to create new node: %s", function,
                                  std::strerror(errno));
  auto* node = reinterpret_cast<KelHashTreeNode*>(store->free_blocks);
  copy_record(record_of(node), record, tree->node_data_size);
  return node;
}

/// The result of a search that found nothing: 0, or -1 after a report when it failed.
int absent(const char* function) {
  if (errno == ENOENT) return 0;
  return fail(-1, errno, "%s: error occurred: %s", function, std::strerror(errno));
}

[[gnu::always_inline]] inline int find(KelHashTree* tree, const void* key, void* out,
                                       KelHashTreePath* path, const char* function) {
  if (tree == nullptr || key == nullptr) return fail(-1, EINVAL, kNull, function);
  empty_path(path);
  KelHashTreeNode** bucket = bucket_of(tree, key);
  KelHashTreeNode* scratch = scratch_node(tree, key, function);
  if (scratch == nullptr) return -1;
  const KelHashTreeNode* node =
      search(*bucket, record_of(scratch), tree->compare, tree->context, path);
  if (node == nullptr) return absent(function);
  copy_out(tree, node, out);
  return 1;
}

/// Where the record of an insertion is afterwards.
struct Insertion {
  KelHashTreeNode* node;  // null after an error
  bool inserted;
};

/// Finds or inserts the record in `scratch`, which the tree keeps when it was inserted.
Insertion insert(KelHashTree* tree, KelHashTreeNode** bucket, KelHashTreeNode* scratch,
                 KelHashTreePath* path) {
  preallocator_t* store = tree->preallocator;
  preallocator_block* rest = store->free_blocks->next;
  bool inserted = false;
  const Link* at = probe(bucket, scratch, tree->compare, tree->context, &inserted, path);
  if (at == nullptr) {
    report_error(errno, "KelHashTreeNodeFindOrInsert: unable to probe tree path: %s",
                 std::strerror(errno));
    return {nullptr, false};
  }
  if (inserted) {
    store->free_blocks = rest;
    if (rest != nullptr) rest->prev = nullptr;
    --store->num_free_blocks;
    ++tree->generation;
  }
  return {*at, inserted};
}

/// Goes to the outermost record of the first bucket that has one, from `index` on towards the end
/// of the table on the side `direction`.
int enter_bucket(const KelHashTree* tree, uint64_t index, Side direction, void* out,
                 KelHashTreePath* path, const char* function) {
  // Far enough ahead for a node to arrive from memory, near enough to be still there when used.
  constexpr uint64_t kAhead = 8;
  const uint64_t count = num_buckets(tree);
  const uint64_t step = direction == kAfter ? 1 : UINT64_MAX;
  for (; index < count; index += step) {
    if (const uint64_t ahead = index + step * kAhead; ahead < count)
      __builtin_prefetch(tree->buckets[ahead]);
    if (tree->buckets[index] == nullptr) continue;
    const KelHashTreeNode* node = outermost(tree->buckets[index], opposite(direction), path);
    if (node == nullptr) return absent(function);
    copy_out(tree, node, out);
    return 1;
  }
  empty_path(path);
  return fail_quietly(0, ENOENT);
}

/// The neighbour of `key` in its own bucket: along `path` if that leads to the key, else by search.
/// Null with errno ENOENT when there is none.
KelHashTreeNode* step_in_bucket(KelHashTree* tree, const void* key, KelHashTreePath* path,
                                Side direction, const char* function) {
  if (path != nullptr && path->depth != 0) {
    const Step step = step_along(path, direction);
    if (step == Step::kFound) return path->entries[path->depth - 1];
    if (step == Step::kEnd) return fail_quietly<KelHashTreeNode*>(nullptr, ENOENT);
    if (step == Step::kError) return nullptr;
  }
  KelHashTreeNode** bucket = bucket_of(tree, key);
  const KelHashTreeNode* scratch = scratch_node(tree, key, function);
  if (scratch == nullptr) return nullptr;
  const auto neighbour = direction == kAfter ? KelHashTreeNodeNext : KelHashTreeNodePrev;
  return neighbour(*bucket, scratch, tree->compare, tree->context, path);
}

int step(KelHashTree* tree, const void* key, void* out, KelHashTreePath* path, Side direction,
         const char* function) {
  if (tree == nullptr || key == nullptr) return fail(-1, EINVAL, kNull, function);
  if (const KelHashTreeNode* node = step_in_bucket(tree, key, path, direction, function)) {
    copy_out(tree, node, out);
    return 1;
  }
  if (errno != ENOENT) return absent(function);
  const auto bucket = static_cast<uint64_t>(bucket_of(tree, key) - tree->buckets);
  return enter_bucket(tree, direction == kAfter ? bucket + 1 : bucket - 1, direction, out, path,
                      function);
}

template <class Get>
uint64_t get(const KelHashTree* tree, const char* function, Get field) {
  return tree == nullptr ? fail(UINT64_MAX, EINVAL, kNull, function) : field(*tree);
}

}  // namespace

KelHashTree* KelHashTreeInit(KelHashTree* tree, uint32_t bits, uint64_t node_data_size,
                             KelHashTreeCompareFn compare, KelHashTreeHashFn hash, void* context,
                             uint64_t slab_size) {
  if (tree == nullptr || compare == nullptr || hash == nullptr || bits > KEL_HASHTREE_MAX_BITS)
    return fail<KelHashTree*>(nullptr, EINVAL, kNull, __func__);
  *tree = {.bits = bits,
           .slab_size = slab_size,
           .node_data_size = node_data_size,
           .compare = compare,
           .hash = hash,
           .context = context,
           .preallocator = nullptr,
           .buckets = nullptr,
           .num_deletes = 0,
           .generation = 0};
  tree->preallocator = preallocator_construct(slab_size, node_size(node_data_size), kFreeNodeMarker,
                                              0, nullptr, nullptr);
  if (tree->preallocator == nullptr)
    return fail<KelHashTree*>(nullptr, errno, "%s: failed to initialize preallocator", __func__);
  tree->buckets = allocate_buckets(bits);
  if (tree->buckets == nullptr) {
    report_error(errno, "%s: failed to allocate memory", __func__);
    const ErrnoGuard keep;
    KelHashTreeDeinit(tree);
    return nullptr;
  }
  return tree;
}

KelHashTree* KelHashTreeNew(uint32_t bits, uint64_t node_data_size, KelHashTreeCompareFn compare,
                            KelHashTreeHashFn hash, void* context, uint64_t slab_size) {
  auto* tree = static_cast<KelHashTree*>(std::malloc(sizeof(KelHashTree)));
  if (tree == nullptr) return fail_allocation(tree, sizeof(KelHashTree), __func__);
  if (KelHashTreeInit(tree, bits, node_data_size, compare, hash, context, slab_size) != nullptr)
    return tree;
  const ErrnoGuard keep;
  std::free(tree);
  return nullptr;
}

void KelHashTreeDeinit(KelHashTree* tree) {
  if (tree == nullptr) return;
  preallocator_destruct(tree->preallocator);
  tree->preallocator = nullptr;
  std::free(tree->buckets);
  tree->buckets = nullptr;
}

void KelHashTreeDelete(KelHashTree** tree) {
  if (tree == nullptr) return;
  KelHashTreeDeinit(*tree);
  std::free(*tree);
  *tree = nullptr;
}

int KelHashTreeEmpty(KelHashTree* tree) {
  if (tree == nullptr) return fail(-1, EINVAL, kNull, __func__);
  tree->num_deletes += preallocator_get_num_allocated_blocks(tree->preallocator);
  std::memset(tree->buckets, 0, num_buckets(tree) * kBucketSize);
  preallocator_reinit(tree->preallocator);
  return 0;
}

int KelHashTreeSetBits(KelHashTree* tree, uint32_t bits) {
  if (tree == nullptr || bits > KEL_HASHTREE_MAX_BITS)
    return fail(-1, EINVAL, "%s: invalid parameter", __func__);
  if (bits == tree->bits) return 0;
  KelHashTreeNode** buckets = allocate_buckets(bits);
  if (buckets == nullptr) return fail(-1, errno, "%s: could not allocate memory", __func__);
  std::free(tree->buckets);
  tree->buckets = buckets;
  tree->bits = bits;
  ++tree->generation;

  preallocator_iterator_t it;
  for (void* block = preallocator_iterator_first(&it, tree->preallocator); block != nullptr;
       block = preallocator_iterator_next(&it)) {
    auto* node = static_cast<KelHashTreeNode*>(block);
    uint32_t inserted = 0;
    KelHashTreeNodeProbe(bucket_of(tree, record_of(node)), node, tree->compare, tree->context,
                         &inserted, nullptr);
    if (inserted == 0) return fail(-1, EINVAL, "%s: failed to replace or insert node", __func__);
  }
  return 0;
}

int KelHashTreeFindOrInsert(KelHashTree* tree, const void* record, void* out) {
  if (tree == nullptr || record == nullptr) return fail(-1, EINVAL, kNull, __func__);
  KelHashTreeNode** bucket = bucket_of(tree, record);
  KelHashTreeNode* scratch = scratch_node(tree, record, __func__);
  if (scratch == nullptr) return -1;
  const auto [node, inserted] = insert(tree, bucket, scratch, nullptr);
  if (node == nullptr)
    return fail(-1, errno, "%s: unable to find or insert: %s", __func__, std::strerror(errno));
  if (!inserted) copy_out(tree, node, out);
  return inserted;
}

int KelHashTreeFindOrInsertNode(KelHashTree* tree, const void* record, void* out,
                                KelHashTreePath* path) {
  if (tree == nullptr || record == nullptr) return fail(-1, EINVAL, kNull, __func__);
  empty_path(path);
  KelHashTreeNode** bucket = bucket_of(tree, record);
  KelHashTreeNode* scratch = scratch_node(tree, record, __func__);
  if (scratch == nullptr) return -1;
  const auto [node, inserted] = insert(tree, bucket, scratch, path);
  if (node == nullptr)
    return fail(-1, errno, "%s: unable to find or insert node: %s", __func__, std::strerror(errno));
  copy_out(tree, node, out);
  return !inserted;
}

int KelHashTreeReplaceOrInsert(KelHashTree* tree, const void* record, void* out) {
  if (tree == nullptr || record == nullptr) return fail(-1, EINVAL, kNull, __func__);
  KelHashTreeNode** bucket = bucket_of(tree, record);
  KelHashTreeNode* scratch = scratch_node(tree, record, __func__);
  if (scratch == nullptr) return -1;
  const auto [node, inserted] = insert(tree, bucket, scratch, nullptr);
  if (node == nullptr) return fail(-1, errno, "%s: unable to replace or insert node", __func__);
  if (inserted) return 0;
  // The node stays where it is, so that paths and iterators that know it stay valid.
  copy_out(tree, node, out);
  std::memcpy(record_of(node), record_of(scratch), tree->node_data_size);
  return 1;
}

int KelHashTreeGet(KelHashTree* tree, const void* key, void* out) {
  return find(tree, key, out, nullptr, __func__);
}

int KelHashTreeFindNode(KelHashTree* tree, const void* key, void* out, KelHashTreePath* path) {
  return find(tree, key, out, path, __func__);
}

int KelHashTreeRemove(KelHashTree* tree, const void* key, void* out) {
  if (tree == nullptr || key == nullptr) return fail(-1, EINVAL, kNull, __func__);
  KelHashTreeNode** bucket = bucket_of(tree, key);
  const KelHashTreeNode* scratch = scratch_node(tree, key, __func__);
  if (scratch == nullptr) return -1;
  KelHashTreeNode* node = KelHashTreeNodeRemove(bucket, scratch, tree->compare, tree->context);
  if (node == nullptr) return absent(__func__);
  ++tree->num_deletes;
  copy_out(tree, node, out);
  give_block(tree->preallocator, node);
  return 1;
}

int KelHashTreeFirstNode(KelHashTree* tree, void* out, KelHashTreePath* path) {
  if (tree == nullptr) return fail(-1, EINVAL, kNull, __func__);
  return enter_bucket(tree, 0, kAfter, out, path, __func__);
}

int KelHashTreeLastNode(KelHashTree* tree, void* out, KelHashTreePath* path) {
  if (tree == nullptr) return fail(-1, EINVAL, kNull, __func__);
  return enter_bucket(tree, num_buckets(tree) - 1, kBefore, out, path, __func__);
}

int KelHashTreeNextNode(KelHashTree* tree, const void* key, void* out, KelHashTreePath* path) {
  return step(tree, key, out, path, kAfter, __func__);
}

int KelHashTreePrevNode(KelHashTree* tree, const void* key, void* out, KelHashTreePath* path) {
  return step(tree, key, out, path, kBefore, __func__);
}

uint32_t KelHashTreeGetBits(const KelHashTree* tree) {
  return tree == nullptr ? fail(UINT32_MAX, EINVAL, kNull, __func__) : tree->bits;
}
uint64_t KelHashTreeGetNumDeletes(const KelHashTree* tree) {
  return get(tree, __func__, [](const KelHashTree& t) { return t.num_deletes; });
}
uint64_t KelHashTreeGetNumUsedNodes(const KelHashTree* tree) {
  return get(tree, __func__, [](const KelHashTree& t) {
    return preallocator_get_num_allocated_blocks(t.preallocator);
  });
}
uint64_t KelHashTreeGetNumUnusedNodes(const KelHashTree* tree) {
  return get(tree, __func__,
             [](const KelHashTree& t) { return preallocator_get_num_free_blocks(t.preallocator); });
}
uint64_t KelHashTreeGetNumSlabs(const KelHashTree* tree) {
  return get(tree, __func__,
             [](const KelHashTree& t) { return preallocator_get_num_slabs(t.preallocator); });
}
uint64_t KelHashTreeGetNodeDataSize(const KelHashTree* tree) {
  return get(tree, __func__, [](const KelHashTree& t) { return t.node_data_size; });
}
uint64_t KelHashTreeGetNodeSize(const KelHashTree* tree) {
  return get(tree, __func__,
             [](const KelHashTree& t) { return preallocator_get_block_size(t.preallocator); });
}
uint64_t KelHashTreeGetSlabSize(const KelHashTree* tree) {
  return get(tree, __func__, [](const KelHashTree& t) { return t.slab_size; });
}
uint64_t KelHashTreeGetMemoryUsage(const KelHashTree* tree) {
  return get(tree, __func__, [](const KelHashTree& t) {
    return preallocator_get_num_slabs(t.preallocator) * t.slab_size +
           num_buckets(&t) * kBucketSize + sizeof t;
  });
}

uint64_t KelHashTreeSize(void) { return sizeof(KelHashTree); }

int KelHashTreeValidateCompletely(const KelHashTree* tree) {
  if (tree == nullptr) return fail(0, EINVAL, kNull, __func__);
  for (uint64_t index = 0; index < num_buckets(tree); ++index)
    if (KelHashTreeNodeValidate(tree->buckets[index]) == 0) return 0;
  return 1;
}
