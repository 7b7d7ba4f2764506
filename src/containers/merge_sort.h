// Stable merge sort in memory, for elements whose size is known when compiling or only when
// running.
#pragma once

#include <cstddef>
#include <cstring>

namespace kel::internal {

/// A size in bytes that the compiler can turn into one or two moves.
template <std::size_t Bytes>
struct FixedSize {
  // NOLINTNEXTLINE(google-explicit-constructor): stands for the number
  constexpr operator std::size_t() const noexcept { return Bytes; }
};

/// `compare(a, b)` gets addresses of two elements and returns negative, 0 or positive. `soon(e)` is
/// told which element will be compared a few steps later; `e` may lie behind the last one.
template <class Size, class Compare, class Soon>
class MergeSort {
 public:
  /// `scratch` has room for half the elements of the largest sort, and for one at least.
  MergeSort(Size size, char* scratch, Compare compare, Soon soon)
      : size_(size), scratch_(scratch), compare_(compare), soon_(soon) {}

  void sort(char* base, std::size_t count) {
    if (count <= kSmall) return insert_each(base, count);
    const std::size_t half = count / 2;
    sort(base, half);
    sort(base + half * size_, count - half);
    merge(base, base + half * size_, base + count * size_);
  }

 private:
  static constexpr std::size_t kSmall = 6;
  static constexpr std::size_t kAhead = 4;

  void copy(char* to, const char* from) const { std::memcpy(to, from, size_); }

  void insert_each(char* base, std::size_t count) {
    for (std::size_t i = 1; i < count; ++i) {
      char* place = base + i * size_;
      if (compare_(place - size_, place) <= 0) continue;
      copy(scratch_, place);
      do {
        copy(place, place - size_);
        place -= size_;
      } while (place != base && compare_(place - size_, scratch_) > 0);
      copy(place, scratch_);
    }
  }

  /// Merges [base, right) and [right, end). The left part moves out of the way; the right part
  /// stays where it is, so that its rest is in place when the left one is used up.
  void merge(char* base, char* right, char* end) {
    if (compare_(right - size_, right) <= 0) return;
    std::memcpy(scratch_, base, static_cast<std::size_t>(right - base));
    const char* left = scratch_;
    const char* const left_end = scratch_ + (right - base);
    char* out = base;
    while (left != left_end && right != end) {
      soon_(left + kAhead * size_);
      soon_(right + kAhead * size_);
      // Written without a branch: which side is next cannot be predicted.
      const bool takes_left = compare_(left, right) <= 0;
      copy(out, takes_left ? left : right);
      left += takes_left ? static_cast<std::size_t>(size_) : 0;
      right += takes_left ? 0 : static_cast<std::size_t>(size_);
      out += size_;
    }
    std::memcpy(out, left, static_cast<std::size_t>(left_end - left));
  }

  Size size_;
  char* scratch_;
  Compare compare_;
  Soon soon_;
};

}  // namespace kel::internal
