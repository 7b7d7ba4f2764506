// Checks and prints a preallocator's bookkeeping.
#include <kel/preallocator.h>

#include <cstdarg>
#include <cstdio>

#include "containers/preallocator_blocks.h"

using namespace kel::internal;

namespace {

[[gnu::format(printf, 2, 3)]] void print(FILE* out, const char* format, ...) {
  if (out == nullptr) return;
  va_list args;
  va_start(args, format);
  std::vfprintf(out, format, args);
  va_end(args);
}

/// The slab whose memory holds `block`, or null; `likely` is looked at first.
preallocator_slab* slab_of(const preallocator_t* a, const void* block, preallocator_slab* likely) {
  const auto holds = [&](preallocator_slab* slab) {
    return block >= slab_begin(slab) && block < slab_end(a, slab);
  };
  if (likely != nullptr && holds(likely)) return likely;
  for (preallocator_slab* slab = a->slabs; slab != nullptr; slab = slab->next)
    if (holds(slab)) return slab;
  return nullptr;
}

uint64_t count_free(const preallocator_t* a, preallocator_slab* slab) {
  uint64_t count = 0;
  for (uint64_t index = 1; index <= a->blocks_per_slab; ++index)
    count += is_free(a, block_at(a, slab, index));
  return count;
}

bool validate_slabs(FILE* out, const preallocator_t* a) {
  bool valid = true;
  uint64_t slabs = 0;
  uint64_t markers = 0;
  for (preallocator_slab* slab = a->slabs; slab != nullptr; slab = slab->next) {
    if (++slabs > a->num_slabs) {
      print(out, "Error: %lu slabs counted, a->num_slabs = %lu", slabs, a->num_slabs);
      valid = false;
      break;
    }
    markers += count_free(a, slab);
  }
  if (slabs < a->num_slabs) {
    print(out, "Error: a->num_slabs = %lu, but found only %lu slabs in a->slabs\n", a->num_slabs,
          slabs);
    valid = false;
  }
  if (markers != a->num_free_blocks) {
    print(out, "Error: %lu blocks with free block markers found, a->num_free_blocks = %lu\n",
          markers, a->num_free_blocks);
    valid = false;
  }
  return valid;
}

bool validate_free_blocks(FILE* out, const preallocator_t* a) {
  bool valid = true;
  uint64_t count = 0;
  const preallocator_block* before = nullptr;
  preallocator_slab* slab = nullptr;
  for (const preallocator_block* block = a->free_blocks; block != nullptr && valid;
       before = block, block = block->next) {
    if (++count > a->num_free_blocks) {
      print(out, "Error: more than a->num_free_blocks = %lu blocks in a->free_blocks\n",
            a->num_free_blocks);
      valid = false;
    } else if (block->prev != before) {
      print(out, "Error: block->next->prev != block->next in a->free_blocks for block %p\n",
            static_cast<const void*>(block));
      valid = false;
    } else if (!is_free(a, block)) {
      print(out,
            "Error: block->free_block_marker != a->free_block_marker in a->free_blocks for block "
            "%p\n",
            static_cast<const void*>(block));
      valid = false;
    } else if (slab = slab_of(a, block, slab); slab == nullptr) {
      print(out, "Error: block %p in a->free_blocks but not in any slab\n",
            static_cast<const void*>(block));
      valid = false;
    }
  }
  if (count < a->num_free_blocks) {
    print(out, "Error: a->num_free_blocks = %lu, but found only %lu blocks in a->free_blocks\n",
          a->num_free_blocks, count);
    valid = false;
  }
  return valid;
}

}  // namespace

int preallocator_validate_block(FILE* out, const preallocator_t* a, const void* block) {
  preallocator_slab* slab = slab_of(a, block, nullptr);
  if (slab == nullptr) {
    print(out, "Error: the specified block %p is not inside any slab of the preallocator.\n",
          block);
    return -1;
  }
  const auto above = static_cast<uint64_t>(slab_end(a, slab) - static_cast<const char*>(block));
  if (above % a->block_size != 0 || above / a->block_size > a->blocks_per_slab) {
    print(out,
          "Error: the specified block %p is inside slab %p-%p but does not point to the begin of a "
          "block.\n",
          block, static_cast<void*>(slab), static_cast<void*>(slab_end(a, slab)));
    return -1;
  }
  if (is_free(a, static_cast<const preallocator_block*>(block))) {
    print(out, "Error: the specified block %p is not allocated (it's free_block_marker is set).",
          block);
    return -1;
  }
  return 0;
}

int preallocator_validate(FILE* out, const preallocator_t* a) {
  const bool slabs_valid = validate_slabs(out, a);
  const bool free_blocks_valid = validate_free_blocks(out, a);
  return slabs_valid && free_blocks_valid ? 0 : -1;
}

void preallocator_print(FILE* out, const preallocator_t* a) {
  if (out == nullptr) return;
  print(out, "a->flags = 0x%08x\n", a->flags);
  print(out, "a->free_block_marker = %p\n", reinterpret_cast<void*>(a->free_block_marker));
  print(out, "a->block_size = %lu\n", a->block_size);
  print(out, "a->blocks_per_slab = %lu\n", a->blocks_per_slab);
  print(out, "a->slab_size = %lu\n", a->slab_size);
  print(out, "a->num_slabs = %lu\n", a->num_slabs);
  print(out, "a->num_free_blocks = %lu\n", a->num_free_blocks);
  for (preallocator_slab* slab = a->slabs; slab != nullptr; slab = slab->next) {
    print(out, "slab %p (end %p): ", static_cast<void*>(slab),
          static_cast<void*>(slab_end(a, slab)));
    for (uint64_t index = a->blocks_per_slab; index > 0; --index)
      std::fputc(is_free(a, block_at(a, slab, index)) ? '_' : '*', out);
    const uint64_t free_blocks = count_free(a, slab);
    print(out, " (%lu blocks free, %lu used)\n", free_blocks, a->blocks_per_slab - free_blocks);
  }
}
