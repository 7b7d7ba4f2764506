// Memory for keys and passwords: wiped before it goes, whichever way the scope is left.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <memory>
#include <type_traits>

namespace kel::internal {

/// Plain data that starts as zeros and is wiped when the scope ends.
template <class T>
struct Secret {
  static_assert(std::is_trivially_copyable_v<T>);

  ~Secret() { OPENSSL_cleanse(&value, sizeof value); }
  T value{};
};

/// Wipes blocks before it frees them, also those that a container leaves behind when it grows. For
/// std::vector only: std::string keeps short texts in itself.
template <class T>
struct WipingAllocator {
  using value_type = T;

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* block, std::size_t count) noexcept {
    OPENSSL_cleanse(block, count * sizeof(T));
    std::allocator<T>().deallocate(block, count);
  }
  friend bool operator==(const WipingAllocator&, const WipingAllocator&) noexcept { return true; }
};

[[gnu::noinline]] inline void wipe_dead_stack() noexcept {
  char dead[16 << 10];
  OPENSSL_cleanse(dead, sizeof dead);
}

/// Wipes the stack below the scope when that ends: what is left of the calls that were made, which
/// includes registers that the dynamic linker saved when a library that is bound lazily made its
/// first call of something. Stands first in a function, so that it goes last.
struct DeadStackWiper {
  DeadStackWiper() noexcept = default;
  DeadStackWiper(const DeadStackWiper&) = delete;
  DeadStackWiper& operator=(const DeadStackWiper&) = delete;
  ~DeadStackWiper() { wipe_dead_stack(); }
};

}  // namespace kel::internal
