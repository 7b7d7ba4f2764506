// Stable merge sort in memory, for elements whose size is known when compiling or only when
// running.
#pragma once

#include <array>
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
/// told which element will be compared a few steps later.
template <class Size, class Compare, class Soon>
class MergeSort {
 public:
  MergeSort(Size size, Compare compare, Soon soon) : size_(size), compare_(compare), soon_(soon) {}

  /// Sorts `count` elements at `base`; `scratch` has room for as many.
  void sort(char* base, std::size_t count, char* scratch) { sort(base, count, scratch, base); }

 private:
  static constexpr std::size_t kSmall = 10;
  static constexpr std::size_t kAhead = 4;

  void copy(char* to, const char* from) const { std::memcpy(to, from, size_); }

  /// Leaves the sorted elements of `base` in `to`, which is `base` or `other`. The halves are
  /// sorted into the other one of the two arrays, so that each level moves its elements once.
  void sort(char* base, std::size_t count, char* other, char* to) {
    if (count <= kSmall) {
      insert_each(base, count, other);
      if (to != base) std::memcpy(to, base, count * size_);
      return;
    }
    const std::size_t half = count / 2;
    char* const from = to == base ? other : base;
    sort(base, half, other, from);
    sort(base + half * size_, count - half, other + half * size_, from + half * size_);
    const char* const right = from + half * size_;
    if (compare_(right - size_, right) <= 0)
      std::memcpy(to, from, count * size_);
    else if (!merge_from_ends(from, half, count, to))
      merge(from, half, count, to);
  }

  void insert_each(char* base, std::size_t count, char* spare) {
    for (std::size_t i = 1; i < count; ++i) {
      char* place = base + i * size_;
      if (compare_(place - size_, place) <= 0) continue;
      copy(spare, place);
      do {
        copy(place, place - size_);
        place -= size_;
      } while (place != base && compare_(place - size_, spare) > 0);
      copy(place, spare);
    }
  }

  /// Merges the first `half` of `count` elements with the others, from both ends at once: the two
  /// comparisons of a step do not wait for each other. Their results, which cannot be predicted,
  /// are used as numbers and not for branches. False when they contradict each other; `to` then
  /// lacks some elements.
  bool merge_from_ends(const char* from, std::size_t half, std::size_t count, char* to) {
    const std::size_t size = size_;
    const char* left = from;
    const char* right = from + half * size;
    const char* left_end = right;
    const char* right_end = from + count * size;
    char* out_end = to + count * size;
    for (std::size_t i = 0; i < half; ++i) {
      if (i + kAhead < half) {
        soon_(left + kAhead * size);
        soon_(right + kAhead * size);
        soon_(left_end - (kAhead + 1) * size);
        soon_(right_end - (kAhead + 1) * size);
      }
      const std::size_t from_right = compare_(left, right) > 0;
      copy(to, std::array{left, right}[from_right]);
      right += from_right * size;
      left += (from_right ^ 1) * size;
      to += size;
      const std::size_t from_left = compare_(left_end - size, right_end - size) > 0;
      left_end -= from_left * size;
      right_end -= (from_left ^ 1) * size;
      out_end -= size;
      copy(out_end, std::array{right_end, left_end}[from_left]);
    }
    if (left > left_end || right > right_end) return false;
    if (to != out_end) copy(to, left != left_end ? left : right);
    return true;
  }

  /// The same with no more than what a merge needs from `compare`: whatever it says, the result has
  /// each element once.
  void merge(const char* from, std::size_t half, std::size_t count, char* to) {
    const char* left = from;
    const char* right = from + half * size_;
    const char* const left_end = right;
    const char* const right_end = from + count * size_;
    for (; left != left_end && right != right_end; to += size_) {
      const char*& next = compare_(left, right) <= 0 ? left : right;
      copy(to, next);
      next += size_;
    }
    const auto rest = static_cast<std::size_t>(left_end - left);
    std::memcpy(to, left, rest);
    std::memcpy(to + rest, right, static_cast<std::size_t>(right_end - right));
  }

  Size size_;
  Compare compare_;
  Soon soon_;
};

}  // namespace kel::internal
