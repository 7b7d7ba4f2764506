// Counting the memory that components hold, without a lock on the way.
#include <kel/logging.h>
#include <kel/runtime.h>

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "internal/atomic_field.h"
#include "internal/report.h"
#include "internal/text_traits.h"

using namespace kel::internal;

long datastore_malloc_total_size = 0;
long datastore_thread_total_size = 0;

namespace {

constexpr int kSlots = 16;
constexpr size_t kHeader = 16;  // the size stands in its last 8 bytes; 16 keep malloc's alignment

struct Slot {
  char name[32];
  bool enabled;
  KelFastAtomic in_use;
};

constinit Slot slots[kSlots] = {};

Slot& slot_at(int number) { return slots[static_cast<unsigned>(number) % 65536 % kSlots]; }

void report_usage(const char* name, long bytes) {
  InfoA(-1, "Memory usage of %s: %.2f MB", name,
        static_cast<double>(std::max(bytes, 0L)) / 1048576.0);
}

size_t& size_before(void* block) { return static_cast<size_t*>(block)[-1]; }
void* begin_of(void* block) { return static_cast<char*>(block) - kHeader; }

/// Counts a block that was just allocated with its header; null stays null.
void* hand_out(Slot& slot, void* begin, size_t size) {
  if (begin == nullptr) return nullptr;
  void* block = static_cast<char*>(begin) + kHeader;
  size_before(block) = size;
  slot.in_use += static_cast<long>(size);
  return block;
}

bool fits_with_header(size_t size) { return size <= SIZE_MAX - kHeader; }

int change_thread_total(size_t n, long sign) {
  if (n == 0) {
    struct rlimit stack = {};
    if (getrlimit(RLIMIT_STACK, &stack) != 0) return -1;
    n = stack.rlim_cur;
  }
  add_field(datastore_thread_total_size, sign * static_cast<long>(n));
  return 0;
}

}  // namespace

KelFastAtomic& KelFastAtomic::operator+=(long amount) noexcept {
  const unsigned long slot = load_field(next_);
  store_field(next_, slot + 1);
  add_field(slots_[slot % 64], amount);
  return *this;
}

KelFastAtomic& KelFastAtomic::operator-=(long amount) noexcept { return *this += -amount; }

long KelFastAtomic::GetValue() const noexcept {
  long sum = 0;
  for (const long& slot : slots_) sum += load_field(slot);
  return sum;
}

KelAllocator::KelAllocator(const char* name, bool enabled) noexcept : enabled_(enabled) {
  copy_cut(name_, name);
}

KelAllocator::~KelAllocator() {}  // not defaulted: it is part of the exported interface

void* KelAllocator::Alloc(unsigned long size) noexcept {
  void* block = ::operator new(size, std::nothrow);
  if (enabled_ && block != nullptr) in_use_ += static_cast<long>(size);
  return block;
}

void KelAllocator::Free(void* ptr, unsigned long size) noexcept {
  ::operator delete(ptr);
  if (enabled_ && ptr != nullptr) in_use_ -= static_cast<long>(size);
}

void KelAllocator::Report() const {
  if (!enabled_) return;
  long bytes = in_use_.GetValue();
  if (std::strcmp(name_, "datastore") == 0)
    bytes += load_field(datastore_malloc_total_size) + load_field(datastore_thread_total_size);
  report_usage(name_, bytes);
}

KelAllocator* KelAllocator::GetDefaultAllocator() {
  static KelAllocator allocator("default", false);
  return &allocator;
}

void XAllocInit(void) {
  const char* wanted = std::getenv("MEMSTAT");
  const bool enabled = wanted != nullptr && std::strtoul(wanted, nullptr, 10) != 0;
  for (Slot& slot : slots) slot.enabled = enabled;
  copy_cut(slots[0].name, "libcr");
}

void* XMalloc(int slot, size_t size) {
  Slot& s = slot_at(slot);
  if (!s.enabled) return std::malloc(size);
  if (!fits_with_header(size)) return fail_quietly<void*>(nullptr, ENOMEM);
  return hand_out(s, std::malloc(size + kHeader), size);
}

void* XCalloc(int slot, size_t count, size_t size) {
  size_t total;
  if (__builtin_mul_overflow(count, size, &total) || !fits_with_header(total))
    return fail_quietly<void*>(nullptr, ENOMEM);
  Slot& s = slot_at(slot);
  if (!s.enabled) return std::calloc(count, size);
  return hand_out(s, std::calloc(1, total + kHeader), total);
}

void* XRealloc(int slot, void* ptr, size_t size) {
  Slot& s = slot_at(slot);
  if (!s.enabled) return std::realloc(ptr, size);
  if (ptr == nullptr) return XMalloc(slot, size);
  if (!fits_with_header(size)) return fail_quietly<void*>(nullptr, ENOMEM);
  const size_t before = size_before(ptr);
  void* block = hand_out(s, std::realloc(begin_of(ptr), size + kHeader), size);
  if (block != nullptr) s.in_use -= static_cast<long>(before);
  return block;
}

void XFree(int slot, void* ptr) {
  if (ptr == nullptr) return;
  Slot& s = slot_at(slot);
  if (!s.enabled) return std::free(ptr);
  s.in_use -= static_cast<long>(size_before(ptr));
  std::free(begin_of(ptr));
}

void XAllocReport(void) {
  for (const Slot& slot : slots)
    if (slot.enabled && slot.name[0] != '\0') report_usage(slot.name, slot.in_use.GetValue());
}

void _KelFree(void** p) {
  std::free(*p);
  *p = nullptr;
}

void datastore_malloc_size_incre(size_t n) {
  if (n != 0) add_field(datastore_malloc_total_size, static_cast<long>(n));
}

void datastore_malloc_size_decre(size_t n) {
  if (n != 0) add_field(datastore_malloc_total_size, -static_cast<long>(n));
}

int datastore_thread_size_incre(size_t n) { return change_thread_total(n, 1); }
int datastore_thread_size_decre(size_t n) { return change_thread_total(n, -1); }
