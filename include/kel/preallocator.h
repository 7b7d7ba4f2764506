/**
 * @file
 * Slab preallocator: blocks of one size, carved from large slabs of memory.
 *
 * Taking and giving back a block is a constant-time list operation without a system call; one slab
 * is mapped when the free list runs dry. Blocks carry no header. The most recently freed block is
 * handed out first. Slabs of 2 MiB and more ask the system for large pages. Allocated blocks can be
 * walked, moved together so that whole slabs return to the system, and checked against the
 * bookkeeping.
 *
 * A free block is known by its first word, which holds the preallocator's marker. So the owner of a
 * live block must never store the marker in its first 8 bytes: walks, checks and reclaiming would
 * take the block for a free one. Choose a marker that cannot be there, for instance all ones where
 * blocks start with a pointer.
 *
 * Alignment: blocks are laid downward from the end of the slab, which starts at a page (at 16 bytes
 * when memory had to come from malloc). Where both `slab_size` and `block_size` are multiples of 8,
 * so are the blocks' addresses; and so on for 16, 32 and 64. A size from
 * preallocator_calc_slab_size() wastes nothing but puts blocks at addresses 4 off a multiple of 8:
 * round it up where blocks hold anything that must be aligned. The preallocator itself works at any
 * alignment.
 *
 * Threads: one at a time, or under the caller's lock. Several preallocators in different threads
 * may share one quota of slabs, which has a lock of its own.
 *
 * Functions without a word on null arguments require valid ones.
 *
 * @code
 * preallocator_t *a = preallocator_construct(1 << 20, 64, UINT64_MAX, 0, NULL, NULL);
 * struct item *item = preallocator_alloc(a);    // 64 bytes; the first word is 0
 * preallocator_free(a, item);
 * preallocator_destruct(a);
 * @endcode
 */
#ifndef KEL_PREALLOCATOR_H
#define KEL_PREALLOCATOR_H

#include <kel/export.h>

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

/** Flag: every slab is locked into memory (mlock(2); a refusal by the system is ignored). */
#define PREALLOCATOR_MLOCK 0x1u

KEL_BEGIN_DECLS

struct preallocator_slab;
struct preallocator_block;

/** State of one preallocator. To be read, at most; it changes through the functions below. */
typedef struct preallocator_t {
  uint32_t flags;                         /**< #PREALLOCATOR_MLOCK; other bits are only kept */
  uint64_t free_block_marker;             /**< first word of every free block */
  uint64_t block_size;                    /**< bytes, at least 24 */
  uint64_t blocks_per_slab;               /**< (slab_size - 12) / block_size */
  uint64_t slab_size;                     /**< bytes, with the 12 of a slab's header */
  struct preallocator_slab* slabs;        /**< singly linked, newest first */
  uint64_t num_slabs;                     /**< length of `slabs` */
  struct preallocator_block* free_blocks; /**< doubly linked, next to be handed out first */
  uint64_t num_free_blocks;               /**< length of `free_blocks` */
  uint64_t* slab_quota;                   /**< slabs that may still be made; null: no limit */
  pthread_mutex_t* slab_quota_lock;       /**< guards `*slab_quota` */
} preallocator_t;

/** Cursor of a walk over the allocated blocks; owned by the caller, nothing to release. */
typedef struct preallocator_iterator_t {
  preallocator_t* allocator;
  struct preallocator_slab* slab; /**< where the walk is */
  void* block;                    /**< the current block; null when the walk has ended */
} preallocator_iterator_t;

/**
 * Moves a live block during reclaiming: copies its `size` bytes from `from` to `to` and redirects
 * every reference. Must not call the preallocator.
 */
typedef void (*preallocator_move_fn)(void* from, void* to, uint64_t size, void* context);

/** @name Sizes
 * @{ */
/**
 * The size of a slab that holds exactly `num_blocks` blocks: num_blocks * block_size + 12. See
 * above for what it means for alignment.
 *
 * @return bytes; 0 with ERANGE (reported) when num_blocks exceeds (2^64 - 5) / block_size
 */
KEL_API uint64_t preallocator_calc_slab_size(uint64_t num_blocks, uint64_t block_size);
/**
 * The number of blocks that a slab holds.
 *
 * @return 0 with ERANGE (reported) when not one block fits or `block_size` is below 24
 */
KEL_API uint64_t preallocator_calc_num_blocks_per_slab(uint64_t slab_size, uint64_t block_size);
/** @} */

/** @name Life cycle
 * @{ */
/**
 * Makes a preallocator without slabs.
 *
 * @param slab_size          bytes per slab, at least block_size + 12
 * @param block_size         bytes per block, at least 24
 * @param free_block_marker  first word of free blocks; see above
 * @param flags              #PREALLOCATOR_MLOCK or 0
 * @param slab_quota         count of slabs that may still be made, lowered by each new slab and
 *                           raised by each one released; may be shared; null: no limit
 * @param slab_quota_lock    locked around each change of `*slab_quota`; null when one thread alone
 *                           uses the quota
 * @return owned by the caller, for preallocator_destruct(); null with EINVAL for a bad size or
 *         ENOMEM, reported
 */
KEL_API preallocator_t* preallocator_construct(uint64_t slab_size, uint64_t block_size,
                                               uint64_t free_block_marker, uint32_t flags,
                                               uint64_t* slab_quota,
                                               pthread_mutex_t* slab_quota_lock);
/** Releases all slabs and the preallocator itself; null is ignored. */
KEL_API void preallocator_destruct(preallocator_t* a);
/** Releases all slabs and keeps the settings: every block becomes invalid. Null is ignored. */
KEL_API void preallocator_reinit(preallocator_t* a);
/** Makes every block of every slab free again; the slabs stay. Touches every block. */
KEL_API void preallocator_reset(preallocator_t* a);
/**
 * Adds slabs until at least `num_blocks` blocks are free.
 *
 * @return 0, or -1 as preallocator_alloc() fails; slabs already added stay
 */
KEL_API int preallocator_preallocate(preallocator_t* a, uint64_t num_blocks);
/** @} */

/** @name Blocks
 * @{ */
/**
 * Takes a block. Its first word is the marker plus one, the rest is what was left there. A new
 * slab is used from its lowest block upward, then older free blocks.
 *
 * @return null when a slab is needed and cannot be had: ENOSPC when the quota is used up (not
 *         reported), ENOMEM (reported); nothing has changed then
 */
KEL_API void* preallocator_alloc(preallocator_t* a);
/**
 * Gives a block back. It is not examined (see preallocator_validate_block()); null is ignored. Its
 * first 24 bytes are overwritten.
 */
KEL_API void preallocator_free(preallocator_t* a, void* block);
/** @} */

/** Locks or unlocks all slabs, present and future, after #PREALLOCATOR_MLOCK in `flags`; other bits
 * are ignored. Returns 0. */
KEL_API int preallocator_set_flags(preallocator_t* a, uint32_t flags);

/** @name Settings and counters
 * 0 with EINVAL (reported) for null. @{ */
KEL_API uint32_t preallocator_get_flags(const preallocator_t* a);
KEL_API uint64_t preallocator_get_block_size(const preallocator_t* a);
KEL_API uint64_t preallocator_get_slab_size(const preallocator_t* a);
KEL_API uint64_t preallocator_get_num_blocks_per_slab(const preallocator_t* a);
KEL_API uint64_t preallocator_get_num_slabs(const preallocator_t* a);
KEL_API uint64_t preallocator_get_num_free_blocks(const preallocator_t* a);
KEL_API uint64_t preallocator_get_num_allocated_blocks(const preallocator_t* a);
/** @} */

/** @name Walk over the allocated blocks
 * Newest slab first, each from its topmost block downward. Blocks that are taken or given back
 * during the walk are met as they are when the walk gets there; releasing or resetting slabs ends
 * the iterator's validity. Null at the end; null with EINVAL (reported) for null arguments. @{ */
KEL_API void* preallocator_iterator_first(preallocator_iterator_t* it, preallocator_t* a);
KEL_API void* preallocator_iterator_next(preallocator_iterator_t* it);
/** @} */

/** @name Compaction
 * @{ */
/**
 * Empties the newest slab by moving its live blocks into free blocks of others, and releases it.
 * Costs a pass over the slab.
 *
 * @param move     called once for each live block of the slab; may be null when there are none
 * @param context  handed to `move`
 * @return 1, or 0 when there are fewer free blocks than a slab holds
 */
KEL_API int preallocator_slab_reclaim(preallocator_t* a, preallocator_move_fn move, void* context);
/** Reclaims slabs while it is possible; returns their number. */
KEL_API uint64_t preallocator_slab_reclaim_all(preallocator_t* a, preallocator_move_fn move,
                                               void* context);
/** @} */

/** @name Diagnostics
 * Print to `out`; when it is null they print nothing, with the same result. @{ */
/** 0 when `block` is the start of an allocated block, else -1. */
KEL_API int preallocator_validate_block(FILE* out, const preallocator_t* a, const void* block);
/** 0 when slabs, counters, markers and free list agree, else -1. Reads every block, and looks for
 * the slab of every free one. */
KEL_API int preallocator_validate(FILE* out, const preallocator_t* a);
/** The settings, and a map of each slab from its lowest block upward: '*' allocated, '_' free. */
KEL_API void preallocator_print(FILE* out, const preallocator_t* a);
/** @} */

KEL_END_DECLS

#endif
