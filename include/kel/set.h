/**
 * @file
 * Object set: a bounded set of the caller's own objects, told apart by the caller's comparison.
 *
 * The set keeps pointers and nothing else: it never copies, changes or frees an object. An object
 * must stay where it is, and what compare and hash look at must stay as it is, from its insertion
 * until its removal. To look something up, hand in any object that compares equal to it.
 *
 * Underneath is a hash tree (kel/hashtree.h) of pointers with about one bucket per 16 objects of
 * the set's limit; an object costs 32 bytes, in slabs of 8 KiB. Without a hash function there is
 * one bucket, so that a walk goes through the objects in the order of comparison; with one it is
 * faster, and the walk goes by buckets and in order within each.
 *
 * Functions that return an object return null when there is none: `errno` is then ENOENT and
 * nothing is reported. They also return null for an error, which is reported and in `errno`: EINVAL
 * for a null argument ("invalid NULL parameter"), else what the tree or the caller's comparison
 * gave.
 *
 * Threads: a set is used by one thread at a time, searches and its walk included.
 *
 * @code
 * static int32_t compare(void *context, const void *a, const void *b) {
 *   const int order = strcmp(((const struct volume *)a)->name, ((const struct volume *)b)->name);
 *   return (order > 0) - (order < 0);          // any value but -2
 * }
 *
 * KelSet *set = KelSetNew(compare, NULL, NULL, 1000);
 * uint32_t inserted;
 * struct volume *known = KelSetFindOrInsert(set, volume, &inserted);
 * if (known != NULL && !inserted) merge(known, volume);
 * for (known = KelSetGetFirstObject(set); known != NULL; known = KelSetGetNextObject(set))
 *   free(KelSetRemove(set, known));
 * KelSetDelete(&set);
 * @endcode
 */
#ifndef KEL_SET_H
#define KEL_SET_H

#include <kel/export.h>
#include <kel/hashtree.h>

#include <stdint.h>

KEL_BEGIN_DECLS

/** Orders two objects, as #KelHashTreeCompareFn does records: -2 is a comparison that failed. */
typedef int32_t (*KelSetCompareFn)(void* context, const void* object_a, const void* object_b);
/** Spreads objects, by the high bits of the result; equal objects have equal hashes. */
typedef uint32_t (*KelSetHashFn)(void* context, const void* object);

/** A set. Its fields may be read; they change through the functions. It must not be moved in memory
 * between KelSetInit() and KelSetDeinit(). */
typedef struct KelSet {
  KelHashTree* tree;             /**< of object pointers; owned */
  KelHashTreeIterator* iterator; /**< the walk; owned */
  KelSetCompareFn compare;       /**< order of objects */
  KelSetHashFn hash;             /**< spread of objects; may be null */
  void* context;                 /**< handed to both; may be null */
  uint64_t max_objects;          /**< most objects that the set accepts */
  int32_t ahead; /**< 1: the walk's next object is the one that the iterator is on; 0: the one
                      behind; negative: an `errno` value, negated, that ended the walk */
} KelSet;

/** sizeof(KelSet) in the library. */
KEL_API uint64_t KelSetSize(void);

/** @name Set-up and teardown
 * @{ */
/**
 * Sets up an empty set.
 *
 * @param set          embedded by the caller; what it holds is not looked at
 * @param compare      order of objects
 * @param hash         spread of objects; null: none, one ordered tree
 * @param context      handed to both; may be null
 * @param max_objects  most objects that the set accepts; with `hash` it also sizes the table, at
 *                     most 2^24 buckets of 8 bytes
 * @return `set`; null with nothing left to release: EINVAL for a null `set` or `compare`, ENOMEM
 */
KEL_API KelSet* KelSetInit(KelSet* set, KelSetCompareFn compare, KelSetHashFn hash, void* context,
                           uint64_t max_objects);
/** As KelSetInit() on memory of its own, for KelSetDelete(). */
KEL_API KelSet* KelSetNew(KelSetCompareFn compare, KelSetHashFn hash, void* context,
                          uint64_t max_objects);
/** Releases what the set owns, but not the set object and no object in it; null is ignored. */
KEL_API void KelSetDeinit(KelSet* set);
/** Deinitialises and frees `*set` and sets it to null; a null pointer there is ignored. */
KEL_API void KelSetDelete(KelSet** set);
/** Forgets all objects and releases their nodes; settings stay, the walk starts anew. 0 or -1. */
KEL_API int KelSetReset(KelSet* set);
/** 1 when `set` is there with its tree, iterator and comparison; else 0 with EINVAL, not reported.
 */
KEL_API int KelSetValidate(const KelSet* set);
/** @} */

/** @name Objects
 * @{ */
/**
 * The stored object that equals `object`, which is inserted when there is none.
 *
 * @param object    kept by the set if it is inserted
 * @param inserted  receives 1 when `object` was inserted, 0 when another one was there; not written
 *                  on error; may be null
 * @return `object` or the equal one; null on error. A set that holds `max_objects` objects always
 *         fails with ENOBUFS, even when it holds an equal one: ask KelSetFind() first where that
 *         matters
 */
KEL_API void* KelSetFindOrInsert(KelSet* set, void* object, uint32_t* inserted);
/** The stored object that equals `object`. */
KEL_API void* KelSetFind(KelSet* set, const void* object);
/** Removes the stored object that equals `object` and returns it; it may be freed at once, also in
 * the middle of a walk. */
KEL_API void* KelSetRemove(KelSet* set, const void* object);
/** The number of stored objects; all ones (-1) for a null set. */
KEL_API uint64_t KelSetGetNumObjects(const KelSet* set);
/** @} */

/** @name The walk
 * A set has one walk. It sees every object that is in the set all the time once; objects may be
 * removed meanwhile, the one just returned too, and inserted: new ones are seen or not, depending
 * on where they belong. Null with ENOENT at the end. When the comparison fails as the walk gets out
 * of the way of a removal, the walk ends with that `errno` instead. @{ */
/** Starts the walk anew and returns its first object. */
KEL_API void* KelSetGetFirstObject(KelSet* set);
/** The walk's next object; in a new or reset set the first one. */
KEL_API void* KelSetGetNextObject(KelSet* set);
/** @} */

KEL_END_DECLS

#endif
