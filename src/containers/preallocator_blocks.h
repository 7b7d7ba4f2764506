// Slabs and free blocks as they lie in memory, and the fast paths that the hash tree shares.
#pragma once

#include <kel/preallocator.h>

#include <cstddef>

/// Head of a slab; its blocks end exactly at the slab's end.
struct [[gnu::packed]] preallocator_slab {
  preallocator_slab* next;
  uint32_t flags;
};
static_assert(sizeof(preallocator_slab) == 12);

/// A block while it is free. The slab's size decides where blocks lie, so they may have any
/// alignment, and their words have been anything while the block was in use.
struct [[gnu::packed, gnu::may_alias]] preallocator_block {
  uint64_t free_block_marker;
  preallocator_block* prev;
  preallocator_block* next;
};
static_assert(sizeof(preallocator_block) == 24);

namespace kel::internal {

inline constexpr uint64_t kSlabHeaderSize = sizeof(preallocator_slab);
inline constexpr uint64_t kMinBlockSize = sizeof(preallocator_block);

/// Adds one slab and puts its blocks on the free list; 0, or -1 with errno set.
int add_slab(preallocator_t* a) noexcept;
/// Returns a slab, already taken out of the list, to the system and to the quota.
void release_slab(preallocator_t* a, preallocator_slab* slab) noexcept;

inline char* slab_begin(preallocator_slab* slab) noexcept { return reinterpret_cast<char*>(slab); }
inline char* slab_end(const preallocator_t* a, preallocator_slab* slab) noexcept {
  return slab_begin(slab) + a->slab_size;
}

/// The block at `index`, counted from 1 for the topmost block of the slab.
inline preallocator_block* block_at(const preallocator_t* a, preallocator_slab* slab,
                                    uint64_t index) noexcept {
  return reinterpret_cast<preallocator_block*>(slab_end(a, slab) - index * a->block_size);
}

inline bool is_free(const preallocator_t* a, const preallocator_block* block) noexcept {
  return block->free_block_marker == a->free_block_marker;
}

inline void* take_free_block(preallocator_t* a) noexcept {
  preallocator_block* block = a->free_blocks;
  // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): there is a free block, or a slab was added
  preallocator_block* next = block->next;
  a->free_blocks = next;
  if (next != nullptr) next->prev = nullptr;
  --a->num_free_blocks;
  ++block->free_block_marker;
  return block;
}

/// As take_free_block() after adding a slab, apart so that the common case saves no registers; null
/// with errno when there can be none.
[[gnu::noinline, gnu::cold]] void* take_block_of_new_slab(preallocator_t* a) noexcept;

inline void* take_block(preallocator_t* a) noexcept {
  if (a->free_blocks == nullptr) [[unlikely]]
    return take_block_of_new_slab(a);
  return take_free_block(a);
}

inline void give_block(preallocator_t* a, void* memory) noexcept {
  auto* block = static_cast<preallocator_block*>(memory);
  // Starts to fetch the block, which has often left the cache, before stores queue up behind it.
  __builtin_prefetch(block, 1);
  block->free_block_marker = a->free_block_marker;
  block->prev = nullptr;
  block->next = a->free_blocks;
  if (block->next != nullptr) block->next->prev = block;
  a->free_blocks = block;
  ++a->num_free_blocks;
}

}  // namespace kel::internal
