// Compaction: empties the newest slab into free blocks elsewhere and returns it to the system.
#include <kel/logging.h>
#include <kel/preallocator.h>

#include "containers/preallocator_blocks.h"

using namespace kel::internal;

namespace {

void unlink_free_block(preallocator_t* a, preallocator_block* block) {
  // Alone and not the head: a block of the victim that was already taken off the list.
  if (block->prev == nullptr && a->free_blocks != block) return;
  (block->prev != nullptr ? block->prev->next : a->free_blocks) = block->next;
  if (block->next != nullptr) block->next->prev = block->prev;
  --a->num_free_blocks;
}

bool lies_in(const preallocator_t* a, preallocator_slab* slab, const void* block) {
  return block >= slab_begin(slab) && block < slab_end(a, slab);
}

/// A block outside `victim`. Free blocks inside it that come up are put aside: marked as free, so
/// that they are not moved, but on no list.
void* take_target(preallocator_t* a, preallocator_slab* victim) {
  for (;;) {
    auto* target = static_cast<preallocator_block*>(take_block(a));
    // A slab's worth of free blocks is enough for the victim's live blocks without its own.
    KEL_ASSERT(target != nullptr);
    if (!lies_in(a, victim, target)) return target;
    *target = {a->free_block_marker, nullptr, nullptr};
  }
}

}  // namespace

int preallocator_slab_reclaim(preallocator_t* a, preallocator_move_fn move, void* context) {
  preallocator_slab* victim = a->slabs;
  if (victim == nullptr || a->num_free_blocks < a->blocks_per_slab) return 0;
  a->slabs = victim->next;
  --a->num_slabs;
  for (uint64_t index = 1; index <= a->blocks_per_slab; ++index) {
    preallocator_block* block = block_at(a, victim, index);
    if (is_free(a, block))
      unlink_free_block(a, block);
    else
      move(block, take_target(a, victim), a->block_size, context);
  }
  release_slab(a, victim);
  return 1;
}

uint64_t preallocator_slab_reclaim_all(preallocator_t* a, preallocator_move_fn move,
                                       void* context) {
  uint64_t reclaimed = 0;
  while (preallocator_slab_reclaim(a, move, context) != 0) ++reclaimed;
  return reclaimed;
}
