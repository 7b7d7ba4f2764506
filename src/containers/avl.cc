// Insertion into and removal from one bucket's AVL tree.
#include "containers/avl.h"

#include <algorithm>
#include <cstring>

#include "internal/report.h"

using namespace kel::internal;

namespace {

/// More levels than any AVL tree in memory has; a deeper one is damaged.
constexpr unsigned kMaxLevels = 64;

/// Balances a subtree whose top leans by two to the side `heavy`; returns its new top: the child
/// after a single rotation, the grandchild after a double one. The height shrinks by one unless the
/// new top is left leaning.
KelHashTreeNode* rotate(KelHashTreeNode* top, Side heavy) noexcept {
  const Side light = opposite(heavy);
  const int8_t lean = heavy == kAfter ? 1 : -1;
  const auto counter_lean = static_cast<int8_t>(-lean);
  KelHashTreeNode* child = top->link[heavy];
  if (child->balance != counter_lean) {
    const bool level = child->balance == 0;
    top->link[heavy] = child->link[light];
    child->link[light] = top;
    top->balance = level ? lean : 0;
    child->balance = level ? counter_lean : 0;
    return child;
  }
  KelHashTreeNode* grandchild = child->link[light];
  top->link[heavy] = grandchild->link[light];
  child->link[light] = grandchild->link[heavy];
  grandchild->link[light] = top;
  grandchild->link[heavy] = child;
  top->balance = grandchild->balance == lean ? counter_lean : 0;
  child->balance = grandchild->balance == counter_lean ? lean : 0;
  grandchild->balance = 0;
  return grandchild;
}

/// The way from a root to where a new node goes, as far as balancing needs it.
struct Descent {
  Link* at;              // the link that holds the equal node, or is null where the new one goes
  Link* pivot;           // the link to the lowest node on the way that leans, or to the root
  uint64_t pivot_depth;  // of that node; the root's is 0
  uint64_t turns;        // sides taken from that node on, first in the lowest bit

  Side turn(unsigned number) const noexcept { return static_cast<Side>(turns >> number & 1); }
};

enum class Found { kEqual, kPlace, kError };

Found descend(Descent& way, KelHashTreeNode* new_node, KelHashTreeCompareFn compare, void* context,
              KelHashTreePath* path) {
  constexpr const char* kFunction = "KelHashTreeNodeProbe";
  uint64_t depth = 0;
  unsigned num_turns = 0;
  while (KelHashTreeNode* node = *way.at) {
    const int32_t order = compare(context, record_of(node), record_of(new_node));
    if (order == -2) [[unlikely]] {
      report_bad_comparison(kFunction, "bad comparission value");
      return Found::kError;
    }
    if (!push(path, node)) return Found::kError;
    if (order == 0) return Found::kEqual;
    if (node->balance != 0) {
      way.pivot = way.at;
      way.pivot_depth = depth;
      way.turns = num_turns = 0;
    }
    if (num_turns == kMaxLevels)
      return fail(Found::kError, EINVAL, "%s: encountered invalid state", kFunction);
    const Side side = order < 0 ? kAfter : kBefore;
    way.turns |= uint64_t{side} << num_turns++;
    way.at = &node->link[side];
    ++depth;
  }
  return push(path, new_node) ? Found::kPlace : Found::kError;
}

/// Makes `path` lead from the root to `new_node` again after the rotation that made `top` the top
/// in the place of `old_top`.
void correct_path(KelHashTreePath* path, const Descent& way, Side heavy, KelHashTreeNode* top,
                  KelHashTreeNode* old_top, bool is_double, const KelHashTreeNode* new_node) {
  if (path == nullptr) return;
  const uint64_t depth = way.pivot_depth;
  if (!is_double) {
    KelHashTreePathRemove(path, depth);
    return;
  }
  // Old top, child, grandchild ... have become grandchild, then child or old top, ...
  path->entries[depth] = top;
  KelHashTreePathRemove(path, depth + 2);
  if (top == new_node)
    path->depth = depth + 1;
  else if (way.turn(2) != heavy)
    path->entries[depth + 1] = old_top;
}

/// Balances the tree above `new_node`, which was just linked at `way.at`; returns where it is
/// linked then.
Link* balance_insertion(const Descent& way, KelHashTreeNode* new_node, KelHashTreePath* path) {
  KelHashTreeNode* old_top = *way.pivot;
  unsigned number = 0;
  for (KelHashTreeNode* node = old_top; node != new_node; node = node->link[way.turn(number++)])
    node->balance = static_cast<int8_t>(node->balance + (way.turn(number) == kAfter ? 1 : -1));
  if (old_top->balance >= -1 && old_top->balance <= 1) return way.at;

  const Side heavy = way.turn(0);
  KelHashTreeNode* child = old_top->link[heavy];
  KelHashTreeNode* top = rotate(old_top, heavy);
  *way.pivot = top;
  const bool is_double = top != child;
  correct_path(path, way, heavy, top, old_top, is_double, new_node);
  if (!is_double) return way.at;
  if (top == new_node) return way.pivot;
  // What hung on the grandchild has been handed to the two nodes below it.
  if (way.at == &top->link[heavy]) return &child->link[opposite(heavy)];
  if (way.at == &top->link[opposite(heavy)]) return &old_top->link[heavy];
  return way.at;
}

/// The links from a root down to a node, to walk back up on.
class LinkStack {
 public:
  bool push(Link* link) noexcept {
    if (size_ == kMaxLevels) return false;
    links_[size_++] = link;
    return true;
  }
  Link* pop() noexcept { return size_ == 0 ? nullptr : links_[--size_]; }
  unsigned size() const noexcept { return size_; }
  void replace(unsigned index, Link* link) noexcept { links_[index] = link; }

 private:
  Link* links_[kMaxLevels];
  unsigned size_ = 0;
};

/// Puts the node that follows `*at` in its place; returns the link below which the tree has become
/// lower, or null when the tree is too deep.
Link* unlink_node(Link* at, LinkStack& above) noexcept {
  KelHashTreeNode* node = *at;
  KelHashTreeNode* after = node->link[kAfter];
  if (after == nullptr) {
    *at = node->link[kBefore];
    return at;
  }
  if (!above.push(at)) return nullptr;
  if (after->link[kBefore] == nullptr) {
    after->link[kBefore] = node->link[kBefore];
    after->balance = node->balance;
    *at = after;
    return &after->link[kAfter];
  }
  const unsigned below_node = above.size();
  Link* lowest = &node->link[kAfter];
  while ((*lowest)->link[kBefore] != nullptr) {
    if (!above.push(lowest)) return nullptr;
    lowest = &(*lowest)->link[kBefore];
  }
  KelHashTreeNode* successor = *lowest;
  *lowest = successor->link[kAfter];
  successor->link[kBefore] = node->link[kBefore];
  successor->link[kAfter] = node->link[kAfter];
  successor->balance = node->balance;
  *at = successor;
  above.replace(below_node, &successor->link[kAfter]);
  return lowest;
}

/// Balances the tree upward from `lower`, the link below which it has become lower by one.
void balance_removal(Link* lower, LinkStack& above) noexcept {
  while (Link* link = above.pop()) {
    KelHashTreeNode* node = *link;
    const Side heavy = lower == &node->link[kAfter] ? kBefore : kAfter;
    node->balance = static_cast<int8_t>(node->balance + (heavy == kAfter ? 1 : -1));
    if (node->balance == 1 || node->balance == -1) return;
    if (node->balance != 0) {
      *link = rotate(node, heavy);
      if ((*link)->balance != 0) return;
    }
    lower = link;
  }
}

}  // namespace

KelHashTreeNode** kel::internal::probe(KelHashTreeNode** link, KelHashTreeNode* new_node,
                                       KelHashTreeCompareFn compare, void* context, bool* inserted,
                                       KelHashTreePath* path) {
  empty_path(path);
  Descent way = {.at = link, .pivot = link, .pivot_depth = 0, .turns = 0};
  switch (descend(way, new_node, compare, context, path)) {
    case Found::kEqual:
      return way.at;
    case Found::kError:
      empty_path(path);
      return nullptr;
    case Found::kPlace:
      break;
  }
  new_node->link[kBefore] = new_node->link[kAfter] = nullptr;
  new_node->balance = 0;
  *way.at = new_node;
  *inserted = true;
  return balance_insertion(way, new_node, path);
}

KelHashTreeNode** KelHashTreeNodeProbe(KelHashTreeNode** link, KelHashTreeNode* new_node,
                                       KelHashTreeCompareFn compare, void* context,
                                       uint32_t* inserted, KelHashTreePath* path) {
  if (link == nullptr || new_node == nullptr || compare == nullptr)
    return fail<KelHashTreeNode**>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  bool is_new = false;
  if (inserted != nullptr) *inserted = 0;
  KelHashTreeNode** at = probe(link, new_node, compare, context, &is_new, path);
  if (inserted != nullptr) *inserted = is_new;
  return at;
}

KelHashTreeNode* KelHashTreeNodeFindOrInsert(KelHashTreeNode** link, KelHashTreeNode* new_node,
                                             KelHashTreeCompareFn compare, void* context,
                                             uint32_t* inserted, KelHashTreePath* path) {
  const Link* at = KelHashTreeNodeProbe(link, new_node, compare, context, inserted, path);
  if (at == nullptr)
    return fail<KelHashTreeNode*>(nullptr, errno, "%s: unable to probe tree path: %s", __func__,
                                  std::strerror(errno));
  return *at;
}

KelHashTreeNode* KelHashTreeNodeReplaceOrInsert(KelHashTreeNode** link, KelHashTreeNode* new_node,
                                                KelHashTreeCompareFn compare, void* context,
                                                uint32_t* inserted, KelHashTreePath* path) {
  Link* at = KelHashTreeNodeProbe(link, new_node, compare, context, inserted, path);
  if (at == nullptr)
    return fail<KelHashTreeNode*>(nullptr, errno, "%s: unable to probe tree path: %s", __func__,
                                  std::strerror(errno));
  KelHashTreeNode* old = *at;
  if (old == new_node) return new_node;
  new_node->link[kBefore] = old->link[kBefore];
  new_node->link[kAfter] = old->link[kAfter];
  new_node->balance = old->balance;
  *at = new_node;
  if (path != nullptr) path->entries[path->depth - 1] = new_node;
  return old;
}

KelHashTreeNode* KelHashTreeNodeRemove(KelHashTreeNode** link, const KelHashTreeNode* key_node,
                                       KelHashTreeCompareFn compare, void* context) {
  if (link == nullptr || key_node == nullptr || compare == nullptr)
    return fail<KelHashTreeNode*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  LinkStack above;
  Link* at = link;
  for (;;) {
    KelHashTreeNode* node = *at;
    if (node == nullptr) return fail_quietly<KelHashTreeNode*>(nullptr, ENOENT);
    const int32_t order = compare(context, record_of(key_node), record_of(node));
    if (order == 0) break;
    if (order == -2) [[unlikely]] {
      report_bad_comparison(__func__, "bad comparison result");
      return nullptr;
    }
    if (!above.push(at))
      return fail<KelHashTreeNode*>(nullptr, EINVAL, "%s: encountered invalid state", __func__);
    at = &node->link[order > 0 ? kAfter : kBefore];
  }
  KelHashTreeNode* removed = *at;
  Link* lower = unlink_node(at, above);
  if (lower == nullptr)
    return fail<KelHashTreeNode*>(nullptr, EINVAL, "%s: encountered invalid state", __func__);
  balance_removal(lower, above);
  return removed;
}
