// Redirects the calls that libkel.so makes of one C function, by patching its import slots. Only
// the library's own calls are affected, so that a test can fail its 3rd malloc() and nobody else's.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>
#include <type_traits>
#include <vector>

namespace kel::testing {

class ImportHook {
 public:
  /// Throws std::logic_error when the library does not import `symbol`.
  ImportHook(const char* symbol, void* replacement);
  ~ImportHook();
  ImportHook(const ImportHook&) = delete;
  ImportHook& operator=(const ImportHook&) = delete;

  void* original() const { return original_; }

 private:
  std::vector<void**> slots_;
  void* original_ = nullptr;
};

/// A symbol's name as a template argument.
template <size_t N>
struct Symbol {
  char text[N]{};
  // NOLINTNEXTLINE(google-explicit-constructor): written as a plain literal
  constexpr Symbol(const char (&from)[N]) {
    for (size_t i = 0; i < N; ++i) text[i] = from[i];
  }
};

/// While it lives, the library's calls of `Name` go to `Function`, a callable with that signature;
/// `Hooked::real(...)` is the function itself.
template <Symbol Name, class Signature>
class Hooked;

template <Symbol Name, class R, class... Args>
class Hooked<Name, R(Args...)> {
 public:
  using Function = R (*)(Args...);

  explicit Hooked(Function function) : hook_(Name.text, reinterpret_cast<void*>(function)) {
    real_ = reinterpret_cast<Function>(hook_.original());
  }
  static R real(Args... args) { return real_(args...); }

 private:
  ImportHook hook_;
  static inline Function real_ = nullptr;
};

/// Fails the library's `nth` call of `Name` (counted from 1); all other calls go through.
template <Symbol Name, class Signature>
class Fault;

template <Symbol Name, class R, class... Args>
class Fault<Name, R(Args...)> {
 public:
  Fault(long nth, std::type_identity_t<R> failure, int error) : hook_(call) {
    calls_ = 0;
    nth_ = nth;
    failure_ = failure;
    error_ = error;
  }
  bool happened() const { return calls_ >= nth_; }
  long calls() const { return calls_; }

 private:
  using Hook = Hooked<Name, R(Args...)>;

  static R call(Args... args) {
    if (++calls_ != nth_) return Hook::real(args...);
    errno = error_;
    return failure_;
  }

  Hook hook_;
  static inline std::atomic<long> calls_ = 0;
  static inline long nth_ = 0;
  static inline R failure_{};
  static inline int error_ = 0;
};

/// Runs `scenario` again and again while its 1st, 2nd, 3rd ... call of `Name` fails, until a run
/// gets by without a failure; returns how many calls were failed.
template <Symbol Name, class Signature, class R, class Scenario>
long fail_each(R failure, int error, Scenario scenario) {
  for (long nth = 1;; ++nth) {
    Fault<Name, Signature> fault(nth, failure, error);
    scenario();
    if (!fault.happened()) return nth - 1;
  }
}

template <class Scenario>
long fail_each_malloc(Scenario scenario) {
  return fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, scenario);
}
template <class Scenario>
long fail_each_calloc(Scenario scenario) {
  return fail_each<"calloc", void*(size_t, size_t)>(nullptr, ENOMEM, scenario);
}
template <class Scenario>
long fail_each_realloc(Scenario scenario) {
  return fail_each<"realloc", void*(void*, size_t)>(nullptr, ENOMEM, scenario);
}
/// As fail_each() for the library's calls of operator new, which throw.
template <class Scenario>
long fail_each_new(Scenario scenario) {
  using Hook = Hooked<"_Znwm", void*(size_t)>;
  static long left;
  const Hook hook(
      [](size_t size) { return --left == 0 ? throw std::bad_alloc() : Hook::real(size); });
  for (long nth = 1;; ++nth) {
    left = nth;
    scenario();
    if (left > 0) return nth - 1;
  }
}

}  // namespace kel::testing
