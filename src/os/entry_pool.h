// Memory for the entries of a walk: they come by the directory and go one by one, mostly in the
// order in which they came, so that whole chunks become free soon.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace kel::internal {

class EntryPool {
 public:
  EntryPool() = default;
  EntryPool(const EntryPool&) = delete;
  EntryPool& operator=(const EntryPool&) = delete;
  /// All blocks must have been given back.
  ~EntryPool() {
    std::free(current_);
    while (spare_ != nullptr) {
      Chunk* const next = spare_->next_spare;
      std::free(spare_);
      spare_ = next;
    }
  }

  /// `size` bytes at the alignment of a pointer; null (ENOMEM) without memory.
  void* take(std::size_t size) noexcept {
    const std::size_t whole = round_up(sizeof(Label) + size);
    if (current_ == nullptr || current_->capacity - current_->used < whole) {
      if (!refill(whole)) return nullptr;
    }
    auto* const label =
        reinterpret_cast<Label*>(reinterpret_cast<char*>(current_ + 1) + current_->used);
    label->home = current_;
    current_->used += whole;
    ++current_->blocks;
    return label + 1;
  }

  void give_back(void* block) noexcept {
    Chunk* const home = (static_cast<Label*>(block) - 1)->home;
    if (--home->blocks > 0) return;
    home->used = 0;
    if (home != current_) put_aside(home);
  }

 private:
  struct Chunk {
    Chunk* next_spare;
    std::size_t capacity;  // bytes behind this
    std::size_t used;
    std::size_t blocks;  // that were not given back
  };
  /// Stands before each block.
  struct Label {
    Chunk* home;
  };

  static constexpr std::size_t kChunkSize = 16 << 10;
  static constexpr std::size_t kCapacity = kChunkSize - sizeof(Chunk);
  static constexpr std::size_t kSpares = 32;  // chunks kept for the next directory

  static std::size_t round_up(std::size_t size) { return (size + 7) & ~std::size_t{7}; }

  bool refill(std::size_t least) noexcept {
    Chunk* chunk = spare_;
    if (chunk != nullptr && chunk->capacity >= least) {
      spare_ = chunk->next_spare;
      --spares_;
    } else {
      const std::size_t capacity = std::max(least, kCapacity);
      chunk = static_cast<Chunk*>(std::malloc(sizeof(Chunk) + capacity));
      if (chunk == nullptr) return false;
      chunk->capacity = capacity;
      chunk->used = chunk->blocks = 0;
    }
    Chunk* const full = current_;
    current_ = chunk;
    if (full != nullptr && full->blocks == 0) put_aside(full);
    return true;
  }

  void put_aside(Chunk* chunk) noexcept {
    if (spares_ == kSpares || chunk->capacity != kCapacity) {
      std::free(chunk);
      return;
    }
    chunk->next_spare = spare_;
    spare_ = chunk;
    ++spares_;
  }

  Chunk* current_ = nullptr;
  Chunk* spare_ = nullptr;
  std::size_t spares_ = 0;
};

}  // namespace kel::internal
