/**
 * @file
 * Hash tree: the in-memory index for records of one size.
 *
 * A table of 2^bits buckets, chosen by the caller's hash of a record; each bucket is an AVL tree in
 * the order of the caller's comparison. Records are copied in and out by value and lie in nodes
 * from a slab preallocator (kel/preallocator.h): millions of records cost one table and a few large
 * slabs, and no malloc each. Slabs of 2 MiB and more lie in large pages where the system has them:
 * fewer faults while the tree grows. Walks go through the buckets by index and through each bucket
 * in the order of comparison; with a bucket count of 1 that is a sorted walk.
 *
 * The family has three layers: trees (`KelHashTree...`), the AVL tree of one bucket for callers
 * that keep roots of their own (`KelHashTreeNode...`), and paths and iterators, which make a step
 * of a walk cheap. All objects are plain structures that callers may embed, with Init and Deinit,
 * or take from New and give to Delete. Their fields may be read; they change through the functions.
 *
 * Results, unless said otherwise: 1 for yes or found, 0 for no (`errno` is ENOENT, nothing is
 * reported), -1 or null for an error, which is reported and in `errno`. A null argument that has to
 * be there is reported as "invalid NULL parameter" with EINVAL.
 *
 * Threads: a tree with its paths and iterators is used by one thread at a time, searches included
 * (they borrow a node from the store).
 *
 * @code
 * static int32_t compare(void *context, const void *a, const void *b) {
 *   const int order = memcmp(a, b, 32);       // any value but -2
 *   return (order > 0) - (order < 0);
 * }
 * static uint32_t hash(void *context, const void *record) {
 *   uint32_t value;                           // a fingerprint's bits are evenly spread
 *   memcpy(&value, record, sizeof value);
 *   return value;
 * }
 *
 * KelHashTree *tree = KelHashTreeNew(20, sizeof(struct item), compare, hash, NULL, 1 << 20);
 * KelHashTreeFindOrInsert(tree, &item, NULL);
 * if (KelHashTreeGet(tree, &key, &item) == 1) use(&item);
 * KelHashTreeDelete(&tree);
 * @endcode
 */
#ifndef KEL_HASHTREE_H
#define KEL_HASHTREE_H

#include <kel/export.h>
#include <kel/preallocator.h>

#include <stdint.h>

/** The most buckets: 2^29, a table of 4 GiB. */
#define KEL_HASHTREE_MAX_BITS 29u
/** The most entries of a path; an AVL tree of that height has more than 10^12 nodes. */
#define KEL_HASHTREE_MAX_DEPTH 61u

KEL_BEGIN_DECLS

/**
 * Orders two records: negative, 0 or positive as `a` comes before, equals or comes after `b`. -2 is
 * reserved for a comparison that failed (the function sets `errno`): it ends the operation without
 * a change to the tree. So results of memcmp() and the like must be reduced to their sign.
 *
 * Both functions see records in nodes or, for the hash, the caller's; they must not call functions
 * of the tree. They are most of what a search costs where memory answers quickly: compare what
 * differs first, in words rather than bytes.
 */
typedef int32_t (*KelHashTreeCompareFn)(void* context, const void* a, const void* b);
/** Spreads records over buckets, by the low bits of the result; equal records have equal hashes. */
typedef uint32_t (*KelHashTreeHashFn)(void* context, const void* record);

/**
 * A node; its record follows it directly. Where the slab size is no multiple of 8, the nodes of a
 * tree, and so the records that the caller's functions see, lie at odd addresses: hence packed. */
typedef struct KelHashTreeNode {
  struct KelHashTreeNode* link[2]; /**< subtrees of the records before and after this one */
  int8_t balance;                  /**< height of link[1] minus height of link[0]: -1, 0 or 1 */
  uint8_t padding[7];
} __attribute__((packed)) KelHashTreeNode;

/** A tree. */
typedef struct KelHashTree {
  uint32_t bits;                /**< log2 of the number of buckets */
  uint64_t slab_size;           /**< bytes per slab of the node store */
  uint64_t node_data_size;      /**< bytes per record */
  KelHashTreeCompareFn compare; /**< order of records */
  KelHashTreeHashFn hash;       /**< choice of the bucket */
  void* context;                /**< handed to both; may be null */
  preallocator_t* preallocator; /**< the node store, owned */
  KelHashTreeNode** buckets;    /**< 2^bits roots, owned */
  uint64_t num_deletes;         /**< records removed since initialisation */
  uint64_t generation;          /**< raised when insertion or SetBits may have moved nodes */
} KelHashTree;

/** The nodes from a bucket's root down to one node, each a child of the one before. */
typedef struct KelHashTreePath {
  KelHashTreeNode* entries[KEL_HASHTREE_MAX_DEPTH];
  uint64_t depth; /**< number of valid entries */
} KelHashTreePath;

/** A position in the walk over a tree. */
typedef struct KelHashTreeIterator {
  KelHashTree* tree;     /**< not owned */
  void* current;         /**< copy of the current record, or of the key last searched; owned */
  KelHashTreePath* path; /**< to the current record; owned */
  uint64_t num_deletes;  /**< the tree's count when the position was established */
  uint32_t state;        /**< 0 on a record, 1 before the first, 2 after the last */
  uint64_t generation;   /**< the tree's generation when the path was filled */
} KelHashTreeIterator;

/** @name Trees: set-up and teardown
 * @{ */
/**
 * Sets up a tree without records.
 *
 * @param tree            embedded by the caller; what it holds is not looked at
 * @param bits            log2 of the number of buckets, 0 to #KEL_HASHTREE_MAX_BITS; a bucket a
 *                        record or so is fast and costs 8 bytes a record
 * @param node_data_size  bytes per record; a node takes 24 bytes more, rounded up to 8
 * @param compare,hash    the caller's functions
 * @param context         handed to both; may be null
 * @param slab_size       bytes per slab of nodes, at least 12 more than a node; should be a
 *                        multiple of 8 and hold hundreds of nodes
 * @return `tree`; null with nothing left to release: EINVAL for a null argument or too many bits,
 *         as preallocator_construct() for sizes, ENOMEM
 */
KEL_API KelHashTree* KelHashTreeInit(KelHashTree* tree, uint32_t bits, uint64_t node_data_size,
                                     KelHashTreeCompareFn compare, KelHashTreeHashFn hash,
                                     void* context, uint64_t slab_size);
/** As KelHashTreeInit() on memory of its own, for KelHashTreeDelete(). */
KEL_API KelHashTree* KelHashTreeNew(uint32_t bits, uint64_t node_data_size,
                                    KelHashTreeCompareFn compare, KelHashTreeHashFn hash,
                                    void* context, uint64_t slab_size);
/** Releases nodes and table, but not the tree object; null is ignored. */
KEL_API void KelHashTreeDeinit(KelHashTree* tree);
/** Deinitialises and frees `*tree` and sets it to null; a null pointer there is ignored. */
KEL_API void KelHashTreeDelete(KelHashTree** tree);
/** Removes all records and releases all slabs; the delete count grows by the records. 0 or -1. */
KEL_API int KelHashTreeEmpty(KelHashTree* tree);
/**
 * Changes the number of buckets to 2^bits. Nodes are linked anew, not copied, so all there is to
 * allocate is the table; walks that are under way go on in the new order.
 *
 * @return 0; -1 with the tree unchanged when the table cannot be had or `bits` is above
 *         #KEL_HASHTREE_MAX_BITS; -1 with EINVAL when the caller's functions fail or contradict
 *         themselves half-way: records that were not reached yet are then no longer found
 */
KEL_API int KelHashTreeSetBits(KelHashTree* tree, uint32_t bits);
/** @} */

/** @name Trees: records
 * `record` and `key` point to a record; only what compare and hash look at matters in a key. `out`
 * receives a whole record, may be the same memory as the key, and may be null. `path` may be null;
 * it is emptied first. All but the removal raise the store by a slab when no node is free, since
 * the record is copied into a node before anything else; -1 with ENOMEM when that fails. @{ */
/** 1: inserted, `out` is untouched; 0: an equal record was there and is copied to `out`. */
KEL_API int KelHashTreeFindOrInsert(KelHashTree* tree, const void* record, void* out);
/** 0: inserted; 1: an equal record was there. Either way `out` receives the record that is now in
 * the tree, and `path` ends there. */
KEL_API int KelHashTreeFindOrInsertNode(KelHashTree* tree, const void* record, void* out,
                                        KelHashTreePath* path);
/** 0: inserted; 1: an equal record was there, is copied to `out` and overwritten in its node. */
KEL_API int KelHashTreeReplaceOrInsert(KelHashTree* tree, const void* record, void* out);
/** 1: found and copied to `out`; 0: not found. */
KEL_API int KelHashTreeGet(KelHashTree* tree, const void* key, void* out);
/** As KelHashTreeGet(); `path` ends at the record, and is empty when there is none. */
KEL_API int KelHashTreeFindNode(KelHashTree* tree, const void* key, void* out,
                                KelHashTreePath* path);
/** 1: removed, the old record is copied to `out`, the delete count grows by one; 0: not found. */
KEL_API int KelHashTreeRemove(KelHashTree* tree, const void* key, void* out);
/** @} */

/** @name Trees: order
 * By bucket index, and within a bucket by comparison. `out` and `path` may be null. @{ */
/** The first record; 0 when there is none. `path` is emptied and then ends at the record. */
KEL_API int KelHashTreeFirstNode(KelHashTree* tree, void* out, KelHashTreePath* path);
/** The last record, likewise. */
KEL_API int KelHashTreeLastNode(KelHashTree* tree, void* out, KelHashTreePath* path);
/**
 * The record behind `key`, which need not be in the tree; 0 at the end.
 *
 * @param out   may be the same memory as `key`
 * @param path  when not empty, ends at `key`: the step then starts from there without a search.
 * Ends at the found record; is emptied at the end of the walk. Valid as long as nothing is removed
 * or inserted; iterators look after that by themselves
 */
KEL_API int KelHashTreeNextNode(KelHashTree* tree, const void* key, void* out,
                                KelHashTreePath* path);
/** The record before `key`, likewise. */
KEL_API int KelHashTreePrevNode(KelHashTree* tree, const void* key, void* out,
                                KelHashTreePath* path);
/** @} */

/** @name Trees: counters and sizes
 * All ones, with EINVAL reported, for a null tree. @{ */
KEL_API uint32_t KelHashTreeGetBits(const KelHashTree* tree);
KEL_API uint64_t KelHashTreeGetNumDeletes(const KelHashTree* tree);
/** The number of records. */
KEL_API uint64_t KelHashTreeGetNumUsedNodes(const KelHashTree* tree);
KEL_API uint64_t KelHashTreeGetNumUnusedNodes(const KelHashTree* tree);
KEL_API uint64_t KelHashTreeGetNumSlabs(const KelHashTree* tree);
/** Bytes per record. */
KEL_API uint64_t KelHashTreeGetNodeDataSize(const KelHashTree* tree);
/** Bytes per node. */
KEL_API uint64_t KelHashTreeGetNodeSize(const KelHashTree* tree);
KEL_API uint64_t KelHashTreeGetSlabSize(const KelHashTree* tree);
/** Bytes in slabs, table and tree object. */
KEL_API uint64_t KelHashTreeGetMemoryUsage(const KelHashTree* tree);
/** @} */
/** sizeof(KelHashTree) in the library. */
KEL_API uint64_t KelHashTreeSize(void);
/** 1 when every node of every bucket has a balance from -1 to 1; else 0, reported. */
KEL_API int KelHashTreeValidateCompletely(const KelHashTree* tree);

/** @name Nodes
 * One AVL tree. `root` is its root, null when it is empty; `link` is where that root is kept, for
 * operations that may change it. Nodes are the caller's: each is a KelHashTreeNode with a record
 * behind it. `compare` gets `context` and two records. A `key_node` serves for its record only.
 * `path` may be null. @{ */
/** Bytes from a node to its record: 24. */
KEL_API uint64_t KelHashTreeNodeDataOffset(void);
/** The record of a node. */
KEL_API void* KelHashTreeNodeGetNodeData(const KelHashTreeNode* node);
/**
 * Finds the node that equals `new_node`, or inserts `new_node`.
 *
 * @param inserted  receives 1 when `new_node` was inserted, else 0; may be null
 * @param path      leads from the root to that node as the tree stands afterwards
 * @return where that node is linked; null on error, with the tree unchanged
 */
KEL_API KelHashTreeNode** KelHashTreeNodeProbe(KelHashTreeNode** link, KelHashTreeNode* new_node,
                                               KelHashTreeCompareFn compare, void* context,
                                               uint32_t* inserted, KelHashTreePath* path);
/** As KelHashTreeNodeProbe(); the result is the node itself. */
KEL_API KelHashTreeNode* KelHashTreeNodeFindOrInsert(KelHashTreeNode** link,
                                                     KelHashTreeNode* new_node,
                                                     KelHashTreeCompareFn compare, void* context,
                                                     uint32_t* inserted, KelHashTreePath* path);
/** Puts `new_node` into the tree, in the place of an equal node if there is one. Returns `new_node`
 * when it was inserted, else the old node, which is no longer part of the tree. */
KEL_API KelHashTreeNode* KelHashTreeNodeReplaceOrInsert(KelHashTreeNode** link,
                                                        KelHashTreeNode* new_node,
                                                        KelHashTreeCompareFn compare, void* context,
                                                        uint32_t* inserted, KelHashTreePath* path);
/** The node equal to `key_node`, where `path` then ends; else null, and `path` is empty. */
KEL_API KelHashTreeNode* KelHashTreeNodeFind(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                                             KelHashTreeCompareFn compare, void* context,
                                             KelHashTreePath* path);
/** Unlinks and returns the node equal to `key_node`. */
KEL_API KelHashTreeNode* KelHashTreeNodeRemove(KelHashTreeNode** link,
                                               const KelHashTreeNode* key_node,
                                               KelHashTreeCompareFn compare, void* context);
/** The first node of the tree; `path` is emptied and then ends there. */
KEL_API KelHashTreeNode* KelHashTreeNodeFirst(KelHashTreeNode* root, KelHashTreePath* path);
/** The last node of the tree, likewise. */
KEL_API KelHashTreeNode* KelHashTreeNodeLast(KelHashTreeNode* root, KelHashTreePath* path);
/**
 * The first node behind `key_node`. A path that is not empty has to end at the node from which to
 * step; then `key_node` matters only if the path turns out not to fit the tree. `path` ends at the
 * result, and is empty when there is none.
 */
KEL_API KelHashTreeNode* KelHashTreeNodeNext(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                                             KelHashTreeCompareFn compare, void* context,
                                             KelHashTreePath* path);
/** The last node before `key_node`, likewise. */
KEL_API KelHashTreeNode* KelHashTreeNodePrev(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                                             KelHashTreeCompareFn compare, void* context,
                                             KelHashTreePath* path);
/** Number of nodes; visits all. */
KEL_API uint64_t KelHashTreeNodeCount(const KelHashTreeNode* root);
/** Height of the tree, from the balances; 0 for null. */
KEL_API uint64_t KelHashTreeNodeDepth(const KelHashTreeNode* root);
/** 1 when `child` is one of the two links of `node`, else 0; -1 for a null `node`. */
KEL_API int KelHashTreeNodeHasChild(const KelHashTreeNode* node, const KelHashTreeNode* child);
/** 1 when every balance is from -1 to 1; else 0 with EINVAL, reported. */
KEL_API int KelHashTreeNodeValidate(const KelHashTreeNode* root);
/** @} */

/** @name Paths
 * @{ */
/** sizeof(KelHashTreePath) in the library. */
KEL_API uint64_t KelHashTreePathSize(void);
/** Makes `path` an empty path and returns it. */
KEL_API KelHashTreePath* KelHashTreePathInit(KelHashTreePath* path);
/** Empties `path`; there is nothing to release. Null is ignored. */
KEL_API void KelHashTreePathDeinit(KelHashTreePath* path);
/** An empty path for KelHashTreePathDelete(); null with ENOMEM. */
KEL_API KelHashTreePath* KelHashTreePathNew(void);
/** Frees `*path` and sets it to null. */
KEL_API void KelHashTreePathDelete(KelHashTreePath** path);
/** Empties `path`; 0 or -1. */
KEL_API int KelHashTreePathEmpty(KelHashTreePath* path);
/** Appends `node` and returns it; null with ENOBUFS when the path is full. */
KEL_API KelHashTreeNode* KelHashTreePathPush(KelHashTreePath* path, KelHashTreeNode* node);
/** Takes the last entry off; null with ENOENT (reported) when there is none. */
KEL_API KelHashTreeNode* KelHashTreePathPop(KelHashTreePath* path);
/** The last entry; null with ENOENT (reported) when there is none. */
KEL_API KelHashTreeNode* KelHashTreePathPeek(const KelHashTreePath* path);
/** Entry `index`, from 0 at the root; null with ENOENT (reported) at or beyond the depth. */
KEL_API KelHashTreeNode* KelHashTreePathGet(const KelHashTreePath* path, uint64_t index);
/** Number of entries; all ones for null. */
KEL_API uint64_t KelHashTreePathGetDepth(const KelHashTreePath* path);
/** Cuts the path to `depth` entries and returns it; null with EINVAL when it has fewer. */
KEL_API KelHashTreePath* KelHashTreePathSetDepth(KelHashTreePath* path, uint64_t depth);
/** Takes out and returns entry `index`; later entries move up. Errors as KelHashTreePathGet(). */
KEL_API KelHashTreeNode* KelHashTreePathRemove(KelHashTreePath* path, uint64_t index);
/** Stores `node` as entry `index` and returns the old one. Errors as KelHashTreePathGet(). */
KEL_API KelHashTreeNode* KelHashTreePathReplace(KelHashTreePath* path, uint64_t index,
                                                KelHashTreeNode* node);
/** 1 when `path` leads from `root` to `node` from child to child; else 0 with EINVAL, reported. */
KEL_API int KelHashTreePathValidateCompletely(const KelHashTreePath* path,
                                              const KelHashTreeNode* root,
                                              const KelHashTreeNode* node);
/** @} */

/** @name Iterators
 * An iterator keeps a copy of its record and the path to it, and steps along the path. After any
 * change to the tree (removals, insertions, another number of buckets) it goes on by searching
 * for its record's place, so a walk may go on while the tree changes: it sees every record that was
 * there all the time once, and what comes and goes as it is when the walk gets there. After a
 * removal every step searches, until the iterator is put on the first or last record again.
 *
 * When the current record is removed, KelHashTreeIteratorNext() and KelHashTreeIteratorPrev() still
 * find its neighbours. The tree must outlive the iterator. `out` receives a record; may be null. @{
 */
/** sizeof(KelHashTreeIterator) in the library. */
KEL_API uint64_t KelHashTreeIteratorSize(void);
/** Sets up `it` before the first record and returns it; null with EINVAL or ENOMEM. */
KEL_API KelHashTreeIterator* KelHashTreeIteratorInitBegin(KelHashTreeIterator* it,
                                                          KelHashTree* tree);
/** Sets up `it` after the last record, likewise. */
KEL_API KelHashTreeIterator* KelHashTreeIteratorInitEnd(KelHashTreeIterator* it, KelHashTree* tree);
/** Sets up `it` on the first record; null for an empty tree (ENOENT, reported) and on error. */
KEL_API KelHashTreeIterator* KelHashTreeIteratorInitFirst(KelHashTreeIterator* it,
                                                          KelHashTree* tree, void* out);
/** Sets up `it` on the last record, likewise. */
KEL_API KelHashTreeIterator* KelHashTreeIteratorInitLast(KelHashTreeIterator* it, KelHashTree* tree,
                                                         void* out);
/**
 * Sets up `it` at `key`. When the tree has no such record the iterator is still returned, placed
 * where the key would be: `errno` is then ENOENT (reported), else 0.
 */
KEL_API KelHashTreeIterator* KelHashTreeIteratorInitFind(KelHashTreeIterator* it, KelHashTree* tree,
                                                         const void* key, void* out);
/** @} */

/** @name Iterators on memory of their own
 * As the Init functions, for KelHashTreeIteratorDelete(). @{ */
KEL_API KelHashTreeIterator* KelHashTreeIteratorNewBegin(KelHashTree* tree);
KEL_API KelHashTreeIterator* KelHashTreeIteratorNewEnd(KelHashTree* tree);
KEL_API KelHashTreeIterator* KelHashTreeIteratorNewFirst(KelHashTree* tree, void* out);
KEL_API KelHashTreeIterator* KelHashTreeIteratorNewLast(KelHashTree* tree, void* out);
KEL_API KelHashTreeIterator* KelHashTreeIteratorNewFind(KelHashTree* tree, const void* key,
                                                        void* out);
/** @} */

/** @name Iterator steps
 * 1 with a record in `out`, 0, or -1; after an error the iterator is where it was. @{ */
/** Releases what the iterator owns, but not the iterator; null is ignored. */
KEL_API void KelHashTreeIteratorDeinit(KelHashTreeIterator* it);
/** Deinitialises and frees `*it` and sets it to null. */
KEL_API void KelHashTreeIteratorDelete(KelHashTreeIterator** it);
/** Goes before the first record; 0. */
KEL_API int KelHashTreeIteratorBegin(KelHashTreeIterator* it);
/** Goes after the last record; 0. */
KEL_API int KelHashTreeIteratorEnd(KelHashTreeIterator* it);
/** Goes to the first record; for an empty tree 0, and the iterator stays. */
KEL_API int KelHashTreeIteratorFirst(KelHashTreeIterator* it, void* out);
/** Goes to the last record, likewise. */
KEL_API int KelHashTreeIteratorLast(KelHashTreeIterator* it, void* out);
/** Goes to the next record; 0 at the end, where the iterator is then after the last record. */
KEL_API int KelHashTreeIteratorNext(KelHashTreeIterator* it, void* out);
/** Goes to the previous record; 0 at the start, where the iterator is then before the first. */
KEL_API int KelHashTreeIteratorPrev(KelHashTreeIterator* it, void* out);
/** The current record as it is in the tree; 0 when there is none or it was removed. */
KEL_API int KelHashTreeIteratorCurrent(KelHashTreeIterator* it, void* out);
/** Goes to the record equal to `key`; when there is none 0, and the iterator is where the key would
 * be: steps lead to its neighbours. */
KEL_API int KelHashTreeIteratorFind(KelHashTreeIterator* it, const void* key, void* out);
/** @} */

KEL_END_DECLS

#endif
