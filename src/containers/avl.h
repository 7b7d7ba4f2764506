// What the layers of the hash tree share: records of nodes, links and paths, without the checks
// that the exported functions make.
#pragma once

#include <kel/hashtree.h>

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

/// The outermost node of a tree on `side`, appended to `path` with the nodes before it; null with
/// errno when the tree is empty or the path full.
KelHashTreeNode* outermost(KelHashTreeNode* root, Side side, KelHashTreePath* path) noexcept;

enum class Step { kFound, kEnd, kStale, kError };

/// Moves the end of a path that is not empty by one node; it is empty unless the step is kFound.
Step step_along(KelHashTreePath* path, Side direction) noexcept;

}  // namespace kel::internal
