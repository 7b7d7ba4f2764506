// Nodes of one type from a few blocks, for objects that are made by the thousand and go together.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

namespace kel::config {

/// Whoever takes nodes gives each back, or destroys it in place before the pool goes.
template <class T>
class NodePool {
 public:
  NodePool() = default;
  NodePool(const NodePool&) = delete;
  NodePool& operator=(const NodePool&) = delete;
  ~NodePool() {
    while (blocks_ != nullptr) std::free(std::exchange(blocks_, blocks_->next));
  }

  /// A fresh node, or null with errno ENOMEM.
  T* take() noexcept {
    if (free_ != nullptr) return new (std::exchange(free_, free_->next)) T();
    if (unused_ == limit_ && !add_block()) return nullptr;
    return new (unused_++) T();
  }

  void give_back(T* node) noexcept {
    node->~T();
    free_ = new (node) FreeNode{free_};
  }

 private:
  struct alignas(std::max_align_t) Block {
    Block* next;
  };
  struct FreeNode {
    FreeNode* next;
  };
  static_assert(sizeof(T) >= sizeof(FreeNode) && alignof(T) <= alignof(Block));

  bool add_block() noexcept {
    auto* block = static_cast<Block*>(std::malloc(sizeof(Block) + next_count_ * sizeof(T)));
    if (block == nullptr) return false;
    block->next = std::exchange(blocks_, block);
    unused_ = reinterpret_cast<T*>(block + 1);
    limit_ = unused_ + next_count_;
    next_count_ = std::min(2 * next_count_, kMostPerBlock);
    return true;
  }

  static constexpr std::size_t kMostPerBlock = 1024;

  Block* blocks_ = nullptr;
  FreeNode* free_ = nullptr;
  T* unused_ = nullptr;
  T* limit_ = nullptr;
  std::size_t next_count_ = 8;
};

}  // namespace kel::config
