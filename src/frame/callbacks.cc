// Lists of callbacks that may change while they run: what is removed meanwhile is collected later.
#include <kel/logging.h>
#include <kel/runtime.h>

#include <cstdlib>

#include "internal/report.h"

using namespace kel::internal;

struct kelCallback {
  kelCallbackFn fn;
  void* context;
  int running;  // calls of this node in progress
  int count;    // registrations; at 0 the node waits to be collected
  kelCallback* previous;
  kelCallback* next;
};

namespace {

bool matches(const kelCallback* node, kelCallbackFn fn, const void* context) {
  return (fn == nullptr || node->fn == fn) && (context == nullptr || node->context == context);
}

template <class Test>
bool any(const kelCallback* list, Test test) {
  while (list != nullptr && !test(list)) list = list->next;
  return list != nullptr;
}

/// Whether the list is being called; the call walks it, so that no node may go meanwhile.
bool is_running(const kelCallback* list) {
  return any(list, [](const kelCallback* node) { return node->running != 0; });
}

bool has_unused(const kelCallback* list) {
  return any(list, [](const kelCallback* node) { return node->count <= 0; });
}

kelCallback* collect(kelCallback* list) {
  for (kelCallback* node = list; node != nullptr;) {
    kelCallback* next = node->next;
    if (node->count <= 0) {
      (node->previous != nullptr ? node->previous->next : list) = next;
      if (next != nullptr) next->previous = node->previous;
      std::free(node);
    }
    node = next;
  }
  // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the node without a previous one is the list's first
  return list;
}

}  // namespace

kelCallback* kelCallbackAdd(kelCallback* list, kelCallbackFn fn, void* context) {
  kelCallback* last = nullptr;
  for (kelCallback* node = list; node != nullptr; last = node, node = node->next) {
    if (node->fn == fn && node->context == context) {
      ++node->count;
      return list;
    }
  }
  auto* added = static_cast<kelCallback*>(std::malloc(sizeof(kelCallback)));
  if (added == nullptr) return fail_allocation(list, sizeof(kelCallback), __func__);
  *added = {fn, context, 0, 1, last, nullptr};
  if (last == nullptr) return added;
  last->next = added;
  return list;
}

kelCallback* kelCallbackRemove(kelCallback* list, kelCallbackFn fn, void* context) {
  int matched = 0;
  for (kelCallback* node = list; node != nullptr; node = node->next) {
    if (!matches(node, fn, context)) continue;
    --node->count;
    ++matched;
  }
  if (matched == 0) return list;
  if (is_running(list)) {
    if (TraceOn())
      __Trace(
          "%s: called while callback was currently executing. %i callbacks will be collected at "
          "a later time",
          __func__, matched);
    return list;
  }
  if (TraceOn()) __Trace("%s: cleaning %i callbacks", __func__, matched);
  return collect(list);
}

kelCallback* kelCallCallbackList(kelCallback* list, void* first, void* second) {
  for (kelCallback* node = list; node != nullptr; node = node->next) {
    ++node->running;
    for (int calls = node->count; calls > 0; --calls) node->fn(first, second, node->context);
    --node->running;
  }
  if (!has_unused(list) || is_running(list)) return list;
  if (TraceOn()) __Trace("%s: about to perform garbage collection", __func__);
  return collect(list);
}

void kelCallbackListDelete(kelCallback* list) {
  while (list != nullptr) {
    kelCallback* next = list->next;
    std::free(list);
    list = next;
  }
}
