// Relaxed access to plain fields of exported objects that are read without a lock.
#pragma once

#include <atomic>

namespace kel::internal {

template <class T>
T load_field(const T& field) noexcept {
  return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_relaxed);
}

template <class T>
void store_field(T& field, T value) noexcept {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

template <class T>
T add_field(T& field, T amount) noexcept {
  return std::atomic_ref<T>(field).fetch_add(amount, std::memory_order_relaxed) + amount;
}

}  // namespace kel::internal
