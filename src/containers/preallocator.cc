// Slab preallocator: slabs, blocks, counters and the walk over allocated blocks.
#include <kel/preallocator.h>

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "containers/preallocator_blocks.h"
#include "internal/report.h"

namespace kel::internal {
namespace {

constexpr uint32_t kSlabFromMalloc = 0x1;

/// Holds the caller's quota lock, where there is one.
class QuotaLock {
 public:
  explicit QuotaLock(pthread_mutex_t* mutex) noexcept : mutex_(mutex) {
    if (mutex_ != nullptr) pthread_mutex_lock(mutex_);
  }
  ~QuotaLock() {
    if (mutex_ != nullptr) pthread_mutex_unlock(mutex_);
  }
  QuotaLock(const QuotaLock&) = delete;
  QuotaLock& operator=(const QuotaLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

bool take_quota(preallocator_t* a) noexcept {
  if (a->slab_quota == nullptr) return true;
  const QuotaLock lock(a->slab_quota_lock);
  if (*a->slab_quota == 0) return false;
  --*a->slab_quota;
  return true;
}

void give_quota(preallocator_t* a) noexcept {
  if (a->slab_quota == nullptr) return;
  const QuotaLock lock(a->slab_quota_lock);
  ++*a->slab_quota;
}

/// Bytes of the processor's large pages.
constexpr uint64_t kLargePage = 2 << 20;
constexpr uint64_t kPage = 4096;

/// Memory for a slab with its header cleared; null with errno ENOMEM.
preallocator_slab* map_slab(uint64_t size, uint64_t block_size) noexcept {
  uint32_t flags = 0;
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    memory = std::malloc(size);
    if (memory == nullptr) return nullptr;
    flags = kSlabFromMalloc;
  } else if (size >= kLargePage && block_size <= kPage) {
    // The free list touches every page anyway, so large ones cost no memory and spare faults.
    const ErrnoGuard keep;
    madvise(memory, size, MADV_HUGEPAGE);
  }
  std::memset(memory, 0, 16);
  auto* slab = static_cast<preallocator_slab*>(memory);
  slab->flags = flags;
  return slab;
}

/// Frees every block of `slab`, the lowest last so that it is handed out first.
void free_all_blocks(preallocator_t* a, preallocator_slab* slab) noexcept {
  for (uint64_t index = 1; index <= a->blocks_per_slab; ++index)
    give_block(a, block_at(a, slab, index));
}

void release_all_slabs(preallocator_t* a) noexcept {
  while (preallocator_slab* slab = a->slabs) {
    a->slabs = slab->next;
    release_slab(a, slab);
  }
}

/// The message for sizes of which no slab can be made, or null.
const char* size_fault(uint64_t slab_size, uint64_t block_size) noexcept {
  if (slab_size < kSlabHeaderSize || slab_size - kSlabHeaderSize < block_size)
    return "slab size smaller than block size";
  if (block_size < kMinBlockSize) return "block size smaller than block";
  return nullptr;
}

template <class T>
T get(const preallocator_t* a, T preallocator_t::*field, const char* function) {
  if (a == nullptr) return fail<T>(0, EINVAL, "%s: invalid NULL parameter", function);
  return a->*field;
}

}  // namespace

int add_slab(preallocator_t* a) noexcept {
  if (!take_quota(a)) return fail_quietly(-1, ENOSPC);
  preallocator_slab* slab = map_slab(a->slab_size, a->block_size);
  if (slab == nullptr) {
    const int result = fail(-1, errno, "%s: could not allocate memory (%s:%i)",
                            "preallocator_slab_add", __FILE__, __LINE__);
    const ErrnoGuard keep;
    give_quota(a);
    return result;
  }
  if ((a->flags & PREALLOCATOR_MLOCK) != 0) mlock(slab, a->slab_size);
  slab->next = a->slabs;
  a->slabs = slab;
  ++a->num_slabs;
  free_all_blocks(a, slab);
  return 0;
}

void* take_block_of_new_slab(preallocator_t* a) noexcept {
  return add_slab(a) == 0 ? take_free_block(a) : nullptr;
}

void release_slab(preallocator_t* a, preallocator_slab* slab) noexcept {
  if ((a->flags & PREALLOCATOR_MLOCK) != 0) munlock(slab, a->slab_size);
  if ((slab->flags & kSlabFromMalloc) != 0)
    std::free(slab);
  else
    munmap(slab, a->slab_size);
  give_quota(a);
}

}  // namespace kel::internal

using namespace kel::internal;

uint64_t preallocator_calc_slab_size(uint64_t num_blocks, uint64_t block_size) {
  if (block_size != 0 && num_blocks > (UINT64_MAX - 4) / block_size)
    return fail(uint64_t{0}, ERANGE, "%s: too many blocks per slab", __func__);
  return num_blocks * block_size + kSlabHeaderSize;
}

uint64_t preallocator_calc_num_blocks_per_slab(uint64_t slab_size, uint64_t block_size) {
  if (const char* fault = size_fault(slab_size, block_size))
    return fail(uint64_t{0}, ERANGE, "%s: %s", __func__, fault);
  return (slab_size - kSlabHeaderSize) / block_size;
}

preallocator_t* preallocator_construct(uint64_t slab_size, uint64_t block_size,
                                       uint64_t free_block_marker, uint32_t flags,
                                       uint64_t* slab_quota, pthread_mutex_t* slab_quota_lock) {
  if (const char* fault = size_fault(slab_size, block_size))
    return fail<preallocator_t*>(nullptr, EINVAL, "%s: %s", __func__, fault);
  void* memory = std::malloc(sizeof(preallocator_t));
  if (memory == nullptr)
    return fail<preallocator_t*>(nullptr, errno, "%s: could not allocate memory", __func__);
  return new (memory) preallocator_t{
      .flags = flags,
      .free_block_marker = free_block_marker,
      .block_size = block_size,
      .blocks_per_slab = (slab_size - kSlabHeaderSize) / block_size,
      .slab_size = slab_size,
      .slabs = nullptr,
      .num_slabs = 0,
      .free_blocks = nullptr,
      .num_free_blocks = 0,
      .slab_quota = slab_quota,
      .slab_quota_lock = slab_quota_lock,
  };
}

void preallocator_destruct(preallocator_t* a) {
  if (a == nullptr) return;
  release_all_slabs(a);
  std::free(a);
}

void preallocator_reinit(preallocator_t* a) {
  if (a == nullptr) return;
  release_all_slabs(a);
  a->num_slabs = 0;
  a->free_blocks = nullptr;
  a->num_free_blocks = 0;
}

void preallocator_reset(preallocator_t* a) {
  a->free_blocks = nullptr;
  a->num_free_blocks = 0;
  for (preallocator_slab* slab = a->slabs; slab != nullptr; slab = slab->next)
    free_all_blocks(a, slab);
}

int preallocator_preallocate(preallocator_t* a, uint64_t num_blocks) {
  if (a->num_free_blocks >= num_blocks) return 0;
  const uint64_t missing = num_blocks - a->num_free_blocks;
  const uint64_t slabs = missing / a->blocks_per_slab + (missing % a->blocks_per_slab != 0);
  for (uint64_t added = 0; added < slabs; ++added)
    if (add_slab(a) != 0) return -1;
  return 0;
}

void* preallocator_alloc(preallocator_t* a) { return take_block(a); }

void preallocator_free(preallocator_t* a, void* block) {
  if (block != nullptr) give_block(a, block);
}

int preallocator_set_flags(preallocator_t* a, uint32_t flags) {
  if (((a->flags ^ flags) & PREALLOCATOR_MLOCK) == 0) return 0;
  a->flags ^= PREALLOCATOR_MLOCK;
  const auto apply = (a->flags & PREALLOCATOR_MLOCK) != 0 ? mlock : munlock;
  for (preallocator_slab* slab = a->slabs; slab != nullptr; slab = slab->next)
    apply(slab, a->slab_size);
  return 0;
}

uint32_t preallocator_get_flags(const preallocator_t* a) {
  return get(a, &preallocator_t::flags, __func__);
}
uint64_t preallocator_get_block_size(const preallocator_t* a) {
  return get(a, &preallocator_t::block_size, __func__);
}
uint64_t preallocator_get_slab_size(const preallocator_t* a) {
  return get(a, &preallocator_t::slab_size, __func__);
}
uint64_t preallocator_get_num_blocks_per_slab(const preallocator_t* a) {
  return get(a, &preallocator_t::blocks_per_slab, __func__);
}
uint64_t preallocator_get_num_slabs(const preallocator_t* a) {
  return get(a, &preallocator_t::num_slabs, __func__);
}
uint64_t preallocator_get_num_free_blocks(const preallocator_t* a) {
  return get(a, &preallocator_t::num_free_blocks, __func__);
}
uint64_t preallocator_get_num_allocated_blocks(const preallocator_t* a) {
  const uint64_t free_blocks = get(a, &preallocator_t::num_free_blocks, __func__);
  return a == nullptr ? 0 : a->num_slabs * a->blocks_per_slab - free_blocks;
}

namespace {

/// Moves `it` to the first allocated block of its slab from `index` on, or of the slabs behind it.
void* find_allocated(preallocator_iterator_t* it, uint64_t index) {
  const preallocator_t* a = it->allocator;
  for (; it->slab != nullptr; it->slab = it->slab->next, index = 1) {
    for (; index <= a->blocks_per_slab; ++index) {
      preallocator_block* block = block_at(a, it->slab, index);
      if (!is_free(a, block)) return it->block = block;
    }
  }
  return it->block = nullptr;
}

}  // namespace

void* preallocator_iterator_first(preallocator_iterator_t* it, preallocator_t* a) {
  if (it == nullptr || a == nullptr)
    return fail<void*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  it->allocator = a;
  it->slab = a->slabs;
  return find_allocated(it, 1);
}

void* preallocator_iterator_next(preallocator_iterator_t* it) {
  if (it == nullptr) return fail<void*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  if (it->block == nullptr) return nullptr;
  const auto above = slab_end(it->allocator, it->slab) - static_cast<char*>(it->block);
  return find_allocated(it, static_cast<uint64_t>(above) / it->allocator->block_size + 1);
}
