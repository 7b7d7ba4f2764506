// Object set: a hash tree whose records are pointers to the caller's objects.
#include <kel/set.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kNull[] = "%s: invalid NULL parameter";
constexpr uint64_t kSlabSize = 8192;
constexpr uint64_t kObjectsPerBucket = 16;
constexpr uint32_t kMaxBits = 24;
constexpr uint32_t kOnRecord = 0;  // KelHashTreeIterator::state

/// Records lie at multiples of 8: so do the nodes in slabs of kSlabSize.
const void* object_of(const void* record) { return *static_cast<void* const*>(record); }

int32_t compare_records(void* context, const void* a, const void* b) {
  const auto* set = static_cast<const KelSet*>(context);
  return set->compare(set->context, object_of(a), object_of(b));
}

/// The tree chooses the bucket by low bits, the set by the high ones of the caller's hash.
uint32_t hash_record(void* context, const void* record) {
  const auto* set = static_cast<const KelSet*>(context);
  const uint32_t bits = set->tree->bits;
  if (bits == 0) return 0;
  return set->hash(set->context, object_of(record)) >> (32 - bits);
}

uint32_t bits_for(uint64_t max_objects) {
  const uint64_t buckets = max_objects / kObjectsPerBucket;
  return buckets <= 1 ? 0 : std::min(static_cast<uint32_t>(std::bit_width(buckets - 1)), kMaxBits);
}

/// The result of a function that looked for one object, from the tree's `result`.
void* found(int result, void* object, const char* function) {
  if (result == 1) return object;
  if (result == 0) return fail_quietly<void*>(nullptr, ENOENT);
  if (result == -1) return nullptr;
  return fail<void*>(nullptr, EINVAL, "%s: unexpected situation: %s", function,
                     std::strerror(EINVAL));
}

/// Moves the walk on when it stands on `removed`. The iterator finds its place again by comparing
/// with the object that it is on, which has to be one that nobody frees.
void leave_object(KelSet* set, const void* removed) {
  KelHashTreeIterator* it = set->iterator;
  if (it == nullptr || it->state != kOnRecord || object_of(it->current) != removed) return;
  const int result = KelHashTreeIteratorNext(it, nullptr);
  set->ahead = result >= 0 ? result : -errno;
  if (result < 0) KelHashTreeIteratorEnd(it);
}

}  // namespace

uint64_t KelSetSize(void) { return sizeof(KelSet); }

KelSet* KelSetInit(KelSet* set, KelSetCompareFn compare, KelSetHashFn hash, void* context,
                   uint64_t max_objects) {
  if (set == nullptr || compare == nullptr) return fail<KelSet*>(nullptr, EINVAL, kNull, __func__);
  *set = {.tree = nullptr,
          .iterator = nullptr,
          .compare = compare,
          .hash = hash,
          .context = context,
          .max_objects = max_objects,
          .ahead = 0};
  set->tree = KelHashTreeNew(hash == nullptr ? 0 : bits_for(max_objects), sizeof(void*),
                             compare_records, hash_record, set, kSlabSize);
  if (set->tree == nullptr)
    return fail<KelSet*>(nullptr, errno, "%s: unable to create hashtree: %s", __func__,
                         std::strerror(errno));
  set->iterator = KelHashTreeIteratorNewBegin(set->tree);
  if (set->iterator == nullptr) {
    report_error(errno, "%s: unable to create iterator: %s", __func__, std::strerror(errno));
    const ErrnoGuard keep;
    KelSetDeinit(set);
    return nullptr;
  }
  return set;
}

KelSet* KelSetNew(KelSetCompareFn compare, KelSetHashFn hash, void* context, uint64_t max_objects) {
  auto* set = static_cast<KelSet*>(std::malloc(sizeof(KelSet)));
  if (set == nullptr) return fail_allocation(set, sizeof(KelSet), __func__);
  if (KelSetInit(set, compare, hash, context, max_objects) != nullptr) return set;
  const ErrnoGuard keep;
  std::free(set);
  return nullptr;
}

void KelSetDeinit(KelSet* set) {
  if (set == nullptr) return;
  KelHashTreeIteratorDelete(&set->iterator);
  KelHashTreeDelete(&set->tree);
}

void KelSetDelete(KelSet** set) {
  if (set == nullptr) return;
  KelSetDeinit(*set);
  std::free(*set);
  *set = nullptr;
}

int KelSetReset(KelSet* set) {
  if (set == nullptr) return fail(-1, EINVAL, kNull, __func__);
  if (KelHashTreeIteratorBegin(set->iterator) != 0)
    return fail(-1, errno, "%s: unable to get beginning pointer", __func__);
  set->ahead = 0;
  return KelHashTreeEmpty(set->tree);
}

int KelSetValidate(const KelSet* set) {
  if (set == nullptr || set->tree == nullptr || set->iterator == nullptr || set->compare == nullptr)
    return fail_quietly(0, EINVAL);
  return 1;
}

void* KelSetFindOrInsert(KelSet* set, void* object, uint32_t* inserted) {
  if (set == nullptr || object == nullptr) return fail<void*>(nullptr, EINVAL, kNull, __func__);
  const uint64_t used = KelHashTreeGetNumUsedNodes(set->tree);
  if (used >= set->max_objects)
    return fail<void*>(nullptr, ENOBUFS,
                       "%s: number of used nodes (%lu) greater than max objects (%lu): %s",
                       __func__, used, set->max_objects, std::strerror(ENOBUFS));
  void* stored = object;
  const int result = KelHashTreeFindOrInsert(set->tree, &object, &stored);
  if (result != 0 && result != 1) return found(result, nullptr, __func__);
  if (inserted != nullptr) *inserted = result == 1;
  return stored;
}

void* KelSetFind(KelSet* set, const void* object) {
  if (set == nullptr || object == nullptr) return fail<void*>(nullptr, EINVAL, kNull, __func__);
  void* stored = nullptr;
  const int result = KelHashTreeGet(set->tree, &object, &stored);
  return found(result, stored, __func__);
}

void* KelSetRemove(KelSet* set, const void* object) {
  if (set == nullptr || object == nullptr) return fail<void*>(nullptr, EINVAL, kNull, __func__);
  void* stored = nullptr;
  const int result = KelHashTreeRemove(set->tree, &object, &stored);
  if (result == 1) leave_object(set, stored);
  return found(result, stored, __func__);
}

uint64_t KelSetGetNumObjects(const KelSet* set) {
  if (set == nullptr) return fail(UINT64_MAX, EINVAL, kNull, __func__);
  return KelHashTreeGetNumUsedNodes(set->tree);
}

void* KelSetGetFirstObject(KelSet* set) {
  if (set == nullptr) return fail<void*>(nullptr, EINVAL, kNull, __func__);
  set->ahead = 0;
  void* object = nullptr;
  const int result = KelHashTreeIteratorFirst(set->iterator, &object);
  return found(result, object, __func__);
}

void* KelSetGetNextObject(KelSet* set) {
  if (set == nullptr) return fail<void*>(nullptr, EINVAL, kNull, __func__);
  if (set->ahead < 0) return fail_quietly<void*>(nullptr, -set->ahead);
  if (set->ahead == 1) {
    set->ahead = 0;
    return *static_cast<void**>(set->iterator->current);
  }
  void* object = nullptr;
  const int result = KelHashTreeIteratorNext(set->iterator, &object);
  return found(result, object, __func__);
}
