// Paths from a bucket's root down to one of its nodes.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "containers/avl.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kNull[] = "%s: invalid NULL parameter";

/// Whether `path` has an entry `index`; else false after a report for `function`.
bool has_entry(const KelHashTreePath* path, uint64_t index, const char* function) {
  if (path == nullptr) return fail(false, EINVAL, kNull, function);
  if (index < path->depth) return true;
  return fail(false, ENOENT, "%s: depth (%lu) greater than or equal to path depth (%lu)", function,
              index, path->depth);
}

/// Whether `path` has a last entry; else false after a report for `function`.
bool has_end(const KelHashTreePath* path, const char* function) {
  if (path == nullptr) return fail(false, EINVAL, kNull, function);
  if (path->depth > 0) return true;
  return fail(false, ENOENT, "%s: path depth is 0", function);
}

}  // namespace

uint64_t KelHashTreePathSize(void) { return sizeof(KelHashTreePath); }

KelHashTreePath* KelHashTreePathInit(KelHashTreePath* path) {
  if (path == nullptr) return fail(path, EINVAL, kNull, __func__);
  path->entries[0] = nullptr;
  path->depth = 0;
  return path;
}

void KelHashTreePathDeinit(KelHashTreePath* path) {
  if (path != nullptr) KelHashTreePathInit(path);
}

KelHashTreePath* KelHashTreePathNew(void) {
  auto* path = static_cast<KelHashTreePath*>(std::malloc(sizeof(KelHashTreePath)));
  if (path == nullptr) return fail_allocation(path, sizeof(KelHashTreePath), __func__);
  return KelHashTreePathInit(path);
}

void KelHashTreePathDelete(KelHashTreePath** path) {
  if (path == nullptr) return;
  std::free(*path);
  *path = nullptr;
}

int KelHashTreePathEmpty(KelHashTreePath* path) {
  if (path == nullptr) return fail(-1, EINVAL, kNull, __func__);
  path->depth = 0;
  return 0;
}

KelHashTreeNode* KelHashTreePathPush(KelHashTreePath* path, KelHashTreeNode* node) {
  if (path == nullptr || node == nullptr)
    return fail<KelHashTreeNode*>(nullptr, EINVAL, kNull, __func__);
  if (path->depth >= KEL_HASHTREE_MAX_DEPTH)
    return fail<KelHashTreeNode*>(nullptr, ENOBUFS,
                                  "%s: current depth (%lu) equal to max depth allowed (%lu)",
                                  __func__, path->depth, uint64_t{KEL_HASHTREE_MAX_DEPTH});
  return path->entries[path->depth++] = node;
}

KelHashTreeNode* KelHashTreePathPop(KelHashTreePath* path) {
  return has_end(path, __func__) ? path->entries[--path->depth] : nullptr;
}

KelHashTreeNode* KelHashTreePathPeek(const KelHashTreePath* path) {
  return has_end(path, __func__) ? path->entries[path->depth - 1] : nullptr;
}

KelHashTreeNode* KelHashTreePathGet(const KelHashTreePath* path, uint64_t index) {
  return has_entry(path, index, __func__) ? path->entries[index] : nullptr;
}

uint64_t KelHashTreePathGetDepth(const KelHashTreePath* path) {
  if (path == nullptr) return fail(UINT64_MAX, EINVAL, kNull, __func__);
  return path->depth;
}

KelHashTreePath* KelHashTreePathSetDepth(KelHashTreePath* path, uint64_t depth) {
  if (path == nullptr) return fail(path, EINVAL, kNull, __func__);
  if (depth > path->depth)
    return fail<KelHashTreePath*>(nullptr, EINVAL, "%s: depth (%lu) greater than path depth (%lu)",
                                  __func__, depth, path->depth);
  path->depth = depth;
  return path;
}

KelHashTreeNode* KelHashTreePathRemove(KelHashTreePath* path, uint64_t index) {
  if (!has_entry(path, index, __func__)) return nullptr;
  KelHashTreeNode* const* end = path->entries + path->depth--;
  KelHashTreeNode** entry = path->entries + index;
  KelHashTreeNode* removed = *entry;  // NOLINT(clang-analyzer-core.NullDereference): checked above
  std::copy<KelHashTreeNode* const*>(entry + 1, end, entry);
  return removed;
}

KelHashTreeNode* KelHashTreePathReplace(KelHashTreePath* path, uint64_t index,
                                        KelHashTreeNode* node) {
  if (node == nullptr) return fail(node, EINVAL, kNull, __func__);
  if (!has_entry(path, index, __func__)) return nullptr;
  KelHashTreeNode* old = path->entries[index];
  path->entries[index] = node;
  return old;
}

int KelHashTreePathValidateCompletely(const KelHashTreePath* path, const KelHashTreeNode* root,
                                      const KelHashTreeNode* node) {
  if (path == nullptr || root == nullptr || node == nullptr || path->depth == 0)
    return fail(0, EINVAL, kNull, __func__);
  if (path->entries[0] != root)
    return fail(0, EINVAL, "%s: initial path does not point to tree root", __func__);
  if (path->entries[path->depth - 1] != node)
    return fail(0, EINVAL, "%s: final path does not point to specified node", __func__);
  for (uint64_t index = 1; index < path->depth; ++index)
    if (KelHashTreeNodeHasChild(path->entries[index - 1], path->entries[index]) != 1)
      return fail(0, EINVAL, "%s: parent does not have specified node as a child", __func__);
  return 1;
}
