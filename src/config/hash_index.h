// Finds nodes by hash. It stands beside the lists that own the nodes and keep their order.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace kel::config {

/// Open addressing with linear probing, at most three quarters full; removal shifts back, so that
/// no search gets longer by what is gone. Trivially destructible, hence release().
template <class Node>
class HashIndex {
 public:
  struct Slot {
    Node* node;  ///< null: free
    std::uint64_t hash;
  };

  template <class Equal>
  Node* find(std::uint64_t hash, Equal equal) const noexcept {
    return slots_ == nullptr ? nullptr : probe(hash, equal).node;
  }

  /// Makes room for one more node; false with errno ENOMEM.
  bool reserve() noexcept {
    if (slots_ != nullptr && count_ < (mask_ + 1) / 4 * 3) return true;
    return grow(slots_ == nullptr ? kFirstSlots : 2 * (mask_ + 1));
  }

  /// Makes room for `nodes` in an empty index; false with errno ENOMEM.
  bool reserve_first(std::size_t nodes) noexcept {
    return grow(std::max(kFirstSlots, std::bit_ceil(nodes + nodes / 3 + 1)));
  }

  /// The slot of the node that `equal` accepts, or the free one where such a node belongs. Only
  /// after reserve().
  template <class Equal>
  Slot& probe(std::uint64_t hash, Equal equal) const noexcept {
    std::size_t i = hash & mask_;
    while (slots_[i].node != nullptr && !(slots_[i].hash == hash && equal(*slots_[i].node)))
      i = (i + 1) & mask_;
    return slots_[i];
  }

  /// Puts `node` into a slot from probe(), in the place of the one that was there.
  void put(Slot& slot, std::uint64_t hash, Node* node) noexcept {
    if (slot.node == nullptr) ++count_;
    slot = {node, hash};
  }

  void erase(Slot& slot) noexcept {
    --count_;
    auto hole = static_cast<std::size_t>(&slot - slots_);
    for (std::size_t i = (hole + 1) & mask_; slots_[i].node != nullptr; i = (i + 1) & mask_) {
      // A node may move back to the hole unless its search starts behind it.
      const std::size_t distance = (i - slots_[i].hash) & mask_;
      if (distance < ((i - hole) & mask_)) continue;
      slots_[hole] = slots_[i];
      hole = i;
    }
    slots_[hole].node = nullptr;
  }

  void release() noexcept {
    std::free(slots_);
    *this = HashIndex();
  }

 private:
  static constexpr std::size_t kFirstSlots = 16;

  bool grow(std::size_t wanted) noexcept {
    auto* fresh = static_cast<Slot*>(std::calloc(wanted, sizeof(Slot)));
    if (fresh == nullptr) return false;
    for (std::size_t i = 0; slots_ != nullptr && i <= mask_; ++i) {
      if (slots_[i].node == nullptr) continue;
      std::size_t to = slots_[i].hash & (wanted - 1);
      while (fresh[to].node != nullptr) to = (to + 1) & (wanted - 1);
      fresh[to] = slots_[i];
    }
    std::free(slots_);
    slots_ = fresh;
    mask_ = wanted - 1;
    return true;
  }

  Slot* slots_ = nullptr;
  std::size_t mask_ = 0;
  std::size_t count_ = 0;
};

}  // namespace kel::config
