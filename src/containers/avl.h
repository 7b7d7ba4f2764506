// What the layers of the hash tree share: records of nodes, links and paths, without the checks
// that the exported functions make.
#pragma once

#include <kel/hashtree.h>

#include <cerrno>
#include <cstddef>

namespace kel::internal {

inline constexpr uint64_t kNodeDataOffset = 24;
static_assert(sizeof(KelHashTreeNode) == kNodeDataOffset);

/// A pointer to a node where it is stored: in a table, in a caller's variable or in a node, which
/// may lie at any address.
typedef KelHashTreeNode* Link __attribute__((aligned(1)));

/// A side of a node; also the direction of a walk.
enum Side : unsigned { kBefore = 0, kAfter = 1 };
constexpr Side opposite(Side side) noexcept { return side == kBefore ? kAfter : kBefore; }

inline void* record_of(KelHashTreeNode* node) noexcept {
  return reinterpret_cast<char*>(node) + kNodeDataOffset;
}
inline const void* record_of(const KelHashTreeNode* node) noexcept {
  return reinterpret_cast<const char*>(node) + kNodeDataOffset;
}

inline void empty_path(KelHashTreePath* path) noexcept {
  if (path != nullptr) path->depth = 0;
}

/// Appends to a path, if there is one; false after a report when it is full.
inline bool push(KelHashTreePath* path, KelHashTreeNode* node) noexcept {
  if (path == nullptr) return true;
  if (path->depth >= KEL_HASHTREE_MAX_DEPTH) [[unlikely]]
    return KelHashTreePathPush(path, node) != nullptr;
  path->entries[path->depth++] = node;
  return true;
}

/// Reports a comparison that failed, with errno as it left it.
[[gnu::cold]] void report_bad_comparison(const char* function, const char* text);

/// The node equal to `record` below `root`, where `path` then ends; else null with errno, and an
/// empty path. Stands here to be part of the tree's own search: the fewer instructions a search
/// takes, the more of the next one the processor does while this one waits for memory.
[[gnu::always_inline]] inline KelHashTreeNode* search(KelHashTreeNode* root, const void* record,
                                                      KelHashTreeCompareFn compare, void* context,
                                                      KelHashTreePath* path) {
  empty_path(path);
  while (root != nullptr) {
    const int32_t order = compare(context, record, record_of(root));
    const bool failed = order == -2;
    if (failed) [[unlikely]]
      report_bad_comparison("KelHashTreeNodeFind", "bad comparison result");
    if (failed || !push(path, root)) [[unlikely]] {
      empty_path(path);
      return nullptr;
    }
    if (order == 0) return root;
    root = root->link[order > 0 ? kAfter : kBefore];
  }
  empty_path(path);
  errno = ENOENT;
  return nullptr;
}

/// Finds the node equal to `new_node` or inserts that one, as KelHashTreeNodeProbe().
KelHashTreeNode** probe(KelHashTreeNode** link, KelHashTreeNode* new_node,
                        KelHashTreeCompareFn compare, void* context, bool* inserted,
                        KelHashTreePath* path);

/// The outermost node of a tree on `side`, appended to `path` with the nodes before it; null with
/// errno when the tree is empty or the path full.
KelHashTreeNode* outermost(KelHashTreeNode* root, Side side, KelHashTreePath* path) noexcept;

enum class Step { kFound, kEnd, kStale, kError };

/// Moves the end of a path that is not empty by one node; it is empty unless the step is kFound.
Step step_along(KelHashTreePath* path, Side direction) noexcept;

}  // namespace kel::internal
