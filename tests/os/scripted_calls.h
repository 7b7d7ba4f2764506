// Decides how each of the library's next calls of a transfer function ends.
#pragma once

#include <algorithm>
#include <cerrno>
#include <deque>

#include "support/import_hook.h"

namespace kel::testing {

/// One call: at most `limit` bytes through the real function, or `errno` set and `failure`.
struct Step {
  long limit;
  int error = 0;
};
inline Step at_most(long bytes) { return {bytes}; }
inline Step fails(int error) { return {-1, error}; }
inline Step gives_nothing() { return {0}; }

/// While it lives, the library's calls of `Name`, whose third argument is the number of bytes,
/// follow the script; once that is used up they go through.
template <Symbol Name, class Signature>
class Scripted;

template <Symbol Name, class R, class Place, class Buffer, class... Rest>
class Scripted<Name, R(Place, Buffer, size_t, Rest...)> {
 public:
  explicit Scripted(std::initializer_list<Step> steps, R failure = static_cast<R>(-1))
      : hook_(call) {
    steps_ = steps;
    failure_ = failure;
    calls_ = 0;
  }
  int calls() const { return calls_; }

 private:
  using Hook = Hooked<Name, R(Place, Buffer, size_t, Rest...)>;

  static R call(Place place, Buffer buffer, size_t count, Rest... rest) {
    ++calls_;
    if (steps_.empty()) return Hook::real(place, buffer, count, rest...);
    const Step step = steps_.front();
    steps_.pop_front();
    if (step.limit > 0)
      return Hook::real(place, buffer, std::min(count, static_cast<size_t>(step.limit)), rest...);
    if (step.limit == 0) return 0;
    errno = step.error;
    return failure_;
  }

  Hook hook_;
  static inline std::deque<Step> steps_;
  static inline R failure_{};
  static inline int calls_ = 0;
};

}  // namespace kel::testing
