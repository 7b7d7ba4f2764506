// Searches, steps and checks in one bucket's AVL tree.
#include <cstring>

#include "containers/avl.h"
#include "internal/report.h"

namespace kel::internal {

void report_bad_comparison(const char* function, const char* text) {
  report_error(errno, "%s: %s: %s", function, text, std::strerror(errno));
}

KelHashTreeNode* outermost(KelHashTreeNode* root, Side side, KelHashTreePath* path) noexcept {
  empty_path(path);
  if (root == nullptr) return fail_quietly<KelHashTreeNode*>(nullptr, ENOENT);
  KelHashTreeNode* last = nullptr;
  for (KelHashTreeNode* node = root; node != nullptr; node = node->link[side]) {
    if (!push(path, node)) {
      empty_path(path);
      return nullptr;
    }
    last = node;
  }
  return last;
}

Step step_along(KelHashTreePath* path, Side direction) noexcept {
  const Side back = opposite(direction);
  KelHashTreeNode* node = path->entries[path->depth - 1];
  if (node->link[direction] != nullptr) {
    for (node = node->link[direction]; node != nullptr; node = node->link[back]) {
      if (push(path, node)) continue;
      path->depth = 0;
      return Step::kError;
    }
    return Step::kFound;
  }
  while (--path->depth > 0) {
    KelHashTreeNode* parent = path->entries[path->depth - 1];
    if (parent->link[back] == node) return Step::kFound;
    if (parent->link[direction] != node) {
      path->depth = 0;
      return Step::kStale;
    }
    node = parent;
  }
  return Step::kEnd;
}

}  // namespace kel::internal

using namespace kel::internal;

namespace {

constexpr char kNull[] = "%s: invalid NULL parameter";

/// How a search for a neighbour reports.
struct StepNames {
  const char* function;
  const char* bad_comparison;
};

/// The nearest node beyond the key, by a descent from the root.
KelHashTreeNode* search_neighbour(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                                  KelHashTreeCompareFn compare, void* context,
                                  KelHashTreePath* path, Side direction, const StepNames& names) {
  KelHashTreeNode* nearest = nullptr;
  uint64_t depth = 0;
  empty_path(path);
  while (root != nullptr) {
    const int32_t order = compare(context, record_of(key_node), record_of(root));
    if (order == -2) {
      report_bad_comparison(names.function, names.bad_comparison);
      empty_path(path);
      return nullptr;
    }
    if (!push(path, root)) {
      empty_path(path);
      return nullptr;
    }
    if (direction == kAfter ? order < 0 : order > 0) {
      nearest = root;
      if (path != nullptr) depth = path->depth;
      root = root->link[opposite(direction)];
    } else {
      root = root->link[direction];
    }
  }
  if (path != nullptr) path->depth = depth;
  if (nearest == nullptr) errno = ENOENT;
  return nearest;
}

KelHashTreeNode* neighbour(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                           KelHashTreeCompareFn compare, void* context, KelHashTreePath* path,
                           Side direction, const StepNames& names) {
  if (key_node == nullptr || compare == nullptr)
    return fail<KelHashTreeNode*>(nullptr, EINVAL, kNull, names.function);
  if (path != nullptr && path->depth != 0) {
    switch (step_along(path, direction)) {
      case Step::kFound:
        return path->entries[path->depth - 1];
      case Step::kEnd:
        return fail_quietly<KelHashTreeNode*>(nullptr, ENOENT);
      case Step::kError:
        return nullptr;
      case Step::kStale:
        break;
    }
  }
  return search_neighbour(root, key_node, compare, context, path, direction, names);
}

bool has_valid_balances(const KelHashTreeNode* root) {
  if (root == nullptr) return true;
  return root->balance >= -1 && root->balance <= 1 && has_valid_balances(root->link[kBefore]) &&
         has_valid_balances(root->link[kAfter]);
}

}  // namespace

KelHashTreeNode* KelHashTreeNodeFind(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                                     KelHashTreeCompareFn compare, void* context,
                                     KelHashTreePath* path) {
  if (key_node == nullptr || compare == nullptr)
    return fail<KelHashTreeNode*>(nullptr, EINVAL, kNull, __func__);
  return search(root, record_of(key_node), compare, context, path);
}

KelHashTreeNode* KelHashTreeNodeFirst(KelHashTreeNode* root, KelHashTreePath* path) {
  return outermost(root, kBefore, path);
}

KelHashTreeNode* KelHashTreeNodeLast(KelHashTreeNode* root, KelHashTreePath* path) {
  return outermost(root, kAfter, path);
}

KelHashTreeNode* KelHashTreeNodeNext(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                                     KelHashTreeCompareFn compare, void* context,
                                     KelHashTreePath* path) {
  return neighbour(root, key_node, compare, context, path, kAfter,
                   {__func__, "unable to compare tree nodes"});
}

KelHashTreeNode* KelHashTreeNodePrev(KelHashTreeNode* root, const KelHashTreeNode* key_node,
                                     KelHashTreeCompareFn compare, void* context,
                                     KelHashTreePath* path) {
  return neighbour(root, key_node, compare, context, path, kBefore,
                   {__func__, "unable to compare nodes"});
}

uint64_t KelHashTreeNodeCount(const KelHashTreeNode* root) {
  if (root == nullptr) return 0;
  return 1 + KelHashTreeNodeCount(root->link[kBefore]) + KelHashTreeNodeCount(root->link[kAfter]);
}

uint64_t KelHashTreeNodeDepth(const KelHashTreeNode* root) {
  uint64_t depth = 0;
  for (; root != nullptr; ++depth) root = root->link[root->balance >= 0 ? kAfter : kBefore];
  return depth;
}

int KelHashTreeNodeHasChild(const KelHashTreeNode* node, const KelHashTreeNode* child) {
  if (node == nullptr) return fail(-1, EINVAL, kNull, __func__);
  return node->link[kBefore] == child || node->link[kAfter] == child;
}

int KelHashTreeNodeValidate(const KelHashTreeNode* root) {
  if (has_valid_balances(root)) return 1;
  return fail(0, EINVAL, "%s: encountered invalid state", __func__);
}

uint64_t KelHashTreeNodeDataOffset(void) { return kNodeDataOffset; }

void* KelHashTreeNodeGetNodeData(const KelHashTreeNode* node) {
  return const_cast<void*>(record_of(node));
}
