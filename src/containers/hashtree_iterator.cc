// Iterators: a path with a copy of the record, good for a walk over a tree that changes meanwhile.
#include <cstdlib>
#include <cstring>

#include "containers/avl.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kNull[] = "%s: invalid NULL parameter";

enum State : uint32_t { kOnRecord = 0, kBeforeFirst = 1, kAfterLast = 2 };

/// Whether `it` can be moved; else false after a report for `function`.
bool is_usable(const KelHashTreeIterator* it, const char* function) {
  if (it == nullptr) return fail(false, EINVAL, kNull, function);
  // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): set by every init function
  if (it->path != nullptr) return true;
  return fail(false, EINVAL, "%s: unable to tell if tree path is empty: %s", function,
              std::strerror(EINVAL));
}

/// No removal since the position was established, so that the nodes of the path still exist.
bool nodes_exist(const KelHashTreeIterator* it) { return it->num_deletes == it->tree->num_deletes; }

/// Takes over the result of a tree function that looked for a record: for 1 the iterator stands on
/// it, with a fresh path, and `out` receives it. Any other result leaves the state as it was.
int arrive(KelHashTreeIterator* it, int result, void* out) {
  if (result != 1) return result;
  it->generation = it->tree->generation;
  it->state = kOnRecord;
  if (out != nullptr) std::memcpy(out, it->current, it->tree->node_data_size);
  return 1;
}

int go_to_end(KelHashTreeIterator* it, void* out, Side side) {
  const auto find = side == kBefore ? KelHashTreeFirstNode : KelHashTreeLastNode;
  const int result = find(it->tree, it->current, it->path);
  if (result == 1) it->num_deletes = it->tree->num_deletes;
  return arrive(it, result, out);
}

int step(KelHashTreeIterator* it, void* out, Side direction) {
  const State ahead = direction == kAfter ? kAfterLast : kBeforeFirst;
  if (it->state == ahead) return 0;
  if (it->state != kOnRecord) return go_to_end(it, out, opposite(direction));
  if (!nodes_exist(it) || it->generation != it->tree->generation) it->path->depth = 0;
  const auto find = direction == kAfter ? KelHashTreeNextNode : KelHashTreePrevNode;
  const int result = find(it->tree, it->current, it->current, it->path);
  if (result == 0) it->state = ahead;
  return arrive(it, result, out);
}

/// The rest of an initialisation that wants a record: `result` of looking for it, or null after a
/// report, with everything released.
KelHashTreeIterator* finish(KelHashTreeIterator* it, int result, const char* function,
                            const char* absent, const char* failed) {
  if (result == 1) return it;
  const int error = result == 0 ? ENOENT : errno;
  KelHashTreeIteratorDeinit(it);
  return fail<KelHashTreeIterator*>(nullptr, error, "%s: %s: %s", function,
                                    result == 0 ? absent : failed, std::strerror(error));
}

/// An iterator on memory of its own, set up by `init`.
template <class Init>
KelHashTreeIterator* make(const char* function, Init init) {
  auto* it = static_cast<KelHashTreeIterator*>(std::malloc(sizeof(KelHashTreeIterator)));
  if (it == nullptr) return fail_allocation(it, sizeof(KelHashTreeIterator), function);
  if (init(it) != nullptr) return it;
  const ErrnoGuard keep;
  std::free(it);
  return nullptr;
}

}  // namespace

uint64_t KelHashTreeIteratorSize(void) { return sizeof(KelHashTreeIterator); }

KelHashTreeIterator* KelHashTreeIteratorInitBegin(KelHashTreeIterator* it, KelHashTree* tree) {
  if (it == nullptr || tree == nullptr)
    return fail<KelHashTreeIterator*>(nullptr, EINVAL, kNull, __func__);
  *it = {.tree = tree,
         .current = std::malloc(tree->node_data_size),
         .path = nullptr,
         .num_deletes = tree->num_deletes,
         .state = kBeforeFirst,
         .generation = tree->generation};
  if (it->current == nullptr)
    return fail<KelHashTreeIterator*>(nullptr, errno, "%s: unable to allocate memory: %s", __func__,
                                      std::strerror(errno));
  it->path = KelHashTreePathNew();
  if (it->path == nullptr) {
    const int error = errno;
    KelHashTreeIteratorDeinit(it);
    return fail<KelHashTreeIterator*>(nullptr, error, "%s: unable to create new tree path: %s",
                                      __func__, std::strerror(error));
  }
  return it;
}

KelHashTreeIterator* KelHashTreeIteratorInitEnd(KelHashTreeIterator* it, KelHashTree* tree) {
  if (KelHashTreeIteratorInitBegin(it, tree) == nullptr) return nullptr;
  it->state = kAfterLast;
  return it;
}

KelHashTreeIterator* KelHashTreeIteratorInitFirst(KelHashTreeIterator* it, KelHashTree* tree,
                                                  void* out) {
  if (KelHashTreeIteratorInitBegin(it, tree) == nullptr) return nullptr;
  return finish(it, KelHashTreeIteratorFirst(it, out), __func__,
                "failed to find first tree iterator",
                "error occurred while finding first tree iterator");
}

KelHashTreeIterator* KelHashTreeIteratorInitLast(KelHashTreeIterator* it, KelHashTree* tree,
                                                 void* out) {
  if (KelHashTreeIteratorInitBegin(it, tree) == nullptr) return nullptr;
  return finish(it, KelHashTreeIteratorLast(it, out), __func__,
                "failed to find last tree iterator position",
                "error occurred while finding last tree iterator");
}

KelHashTreeIterator* KelHashTreeIteratorInitFind(KelHashTreeIterator* it, KelHashTree* tree,
                                                 const void* key, void* out) {
  if (KelHashTreeIteratorInitBegin(it, tree) == nullptr) return nullptr;
  const int result = KelHashTreeIteratorFind(it, key, out);
  if (result == 0)
    return fail(it, ENOENT, "%s: failed to find tree iterator: %s", __func__,
                std::strerror(ENOENT));
  if (result == 1) errno = 0;
  return finish(it, result, __func__, "", "error occurred while finding tree iterator");
}

KelHashTreeIterator* KelHashTreeIteratorNewBegin(KelHashTree* tree) {
  return make(__func__, [&](auto* it) { return KelHashTreeIteratorInitBegin(it, tree); });
}
KelHashTreeIterator* KelHashTreeIteratorNewEnd(KelHashTree* tree) {
  return make(__func__, [&](auto* it) { return KelHashTreeIteratorInitEnd(it, tree); });
}
KelHashTreeIterator* KelHashTreeIteratorNewFirst(KelHashTree* tree, void* out) {
  return make(__func__, [&](auto* it) { return KelHashTreeIteratorInitFirst(it, tree, out); });
}
KelHashTreeIterator* KelHashTreeIteratorNewLast(KelHashTree* tree, void* out) {
  return make(__func__, [&](auto* it) { return KelHashTreeIteratorInitLast(it, tree, out); });
}
KelHashTreeIterator* KelHashTreeIteratorNewFind(KelHashTree* tree, const void* key, void* out) {
  return make(__func__, [&](auto* it) { return KelHashTreeIteratorInitFind(it, tree, key, out); });
}

void KelHashTreeIteratorDeinit(KelHashTreeIterator* it) {
  if (it == nullptr) return;
  std::free(it->current);
  it->current = nullptr;
  KelHashTreePathDelete(&it->path);
}

void KelHashTreeIteratorDelete(KelHashTreeIterator** it) {
  if (it == nullptr) return;
  KelHashTreeIteratorDeinit(*it);
  std::free(*it);
  *it = nullptr;
}

int KelHashTreeIteratorBegin(KelHashTreeIterator* it) {
  if (it == nullptr) return fail(-1, EINVAL, kNull, __func__);
  it->state = kBeforeFirst;
  return 0;
}

int KelHashTreeIteratorEnd(KelHashTreeIterator* it) {
  if (it == nullptr) return fail(-1, EINVAL, kNull, __func__);
  it->state = kAfterLast;
  return 0;
}

int KelHashTreeIteratorFirst(KelHashTreeIterator* it, void* out) {
  return is_usable(it, __func__) ? go_to_end(it, out, kBefore) : -1;
}

int KelHashTreeIteratorLast(KelHashTreeIterator* it, void* out) {
  return is_usable(it, __func__) ? go_to_end(it, out, kAfter) : -1;
}

int KelHashTreeIteratorNext(KelHashTreeIterator* it, void* out) {
  return is_usable(it, __func__) ? step(it, out, kAfter) : -1;
}

int KelHashTreeIteratorPrev(KelHashTreeIterator* it, void* out) {
  return is_usable(it, __func__) ? step(it, out, kBefore) : -1;
}

int KelHashTreeIteratorCurrent(KelHashTreeIterator* it, void* out) {
  if (!is_usable(it, __func__)) return -1;
  if (it->state != kOnRecord) return 0;
  if (!nodes_exist(it) || it->path->depth == 0)
    return arrive(it, KelHashTreeFindNode(it->tree, it->current, it->current, it->path), out);
  const void* record = record_of(it->path->entries[it->path->depth - 1]);
  std::memcpy(it->current, record, it->tree->node_data_size);
  if (out != nullptr) std::memcpy(out, record, it->tree->node_data_size);
  return 1;
}

int KelHashTreeIteratorFind(KelHashTreeIterator* it, const void* key, void* out) {
  if (!is_usable(it, __func__)) return -1;
  const int result = KelHashTreeFindNode(it->tree, key, it->current, it->path);
  if (result == 0) {
    std::memcpy(it->current, key, it->tree->node_data_size);
    --it->num_deletes;
    it->state = kOnRecord;
  }
  return arrive(it, result, out);
}
