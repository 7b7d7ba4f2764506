// Dynamic array: element slots that grow by whole pages, and two cursors.
#include <kel/array.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "internal/report.h"

using namespace kel::internal;

struct kelArray {
  void** elements;
  uint64_t increment;  // slots added at each growth
  uint64_t capacity;   // slots
  uint64_t free_slots;
  uint64_t size;
  uint64_t forward;   // index last returned by the forward walk
  uint64_t backward;  // and by the backward walk
};

namespace {

constexpr uint64_t kDefaultCount = 1024;

/// Slots that fill the pages which `count` slots need; 0 when their bytes exceed 64 bits.
uint64_t whole_pages(uint64_t count) {
  const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  if (count > (UINT64_MAX - page) / sizeof(void*)) return 0;
  return (count * sizeof(void*) + page - 1) / page * page / sizeof(void*);
}

/// Adds `increment` slots; on failure a report for `function`.
bool grow(kelArray* array, const char* function) {
  // No overflow: the slots so far were allocated, and so were less than half of all memory.
  const uint64_t size = (array->capacity + array->increment) * sizeof(void*);
  void* elements = std::realloc(array->elements, size);
  if (elements == nullptr)
    return fail(false, errno, "%s: unable to reallocate memory for size %lu. (%s)", function, size,
                std::strerror(errno));
  array->elements = static_cast<void**>(elements);
  array->capacity += array->increment;
  array->free_slots = array->increment;
  return true;
}

}  // namespace

kelArray* kelArrayCreate(uint64_t initial_count) {
  const uint64_t increment = whole_pages(initial_count == 0 ? kDefaultCount : initial_count);
  if (increment == 0) errno = ENOMEM;
  void* memory = increment == 0 ? nullptr : std::malloc(sizeof(kelArray));
  if (memory == nullptr)
    return fail<kelArray*>(nullptr, errno, "%s: unable to allocate memory for size %lu. (%s)",
                           __func__, initial_count, std::strerror(errno));
  return new (memory) kelArray{.elements = nullptr,
                               .increment = increment,
                               .capacity = 0,
                               .free_slots = 0,
                               .size = 0,
                               .forward = 0,
                               .backward = 0};
}

int kelArrayAdd(kelArray* array, void* element) {
  if (array->free_slots == 0 && !grow(array, __func__)) return -1;
  array->elements[array->size++] = element;
  --array->free_slots;
  return 0;
}

uint64_t kelArraySize(const kelArray* array) { return array->size; }

void* kelArrayFirst(kelArray* array) {
  array->forward = 0;
  return array->size == 0 ? nullptr : array->elements[0];
}

void* kelArrayNext(kelArray* array) {
  ++array->forward;
  return array->forward < array->size ? array->elements[array->forward] : nullptr;
}

void* kelArrayLast(kelArray* array) {
  array->backward = array->size == 0 ? 0 : array->size - 1;
  return array->size == 0 ? nullptr : array->elements[array->backward];
}

void* kelArrayPrev(kelArray* array) {
  return array->backward == 0 ? nullptr : array->elements[--array->backward];
}

int kelArrayDestroy(kelArray* array, kelElementFn fn) {
  if (array == nullptr) return 0;
  if (fn != nullptr)
    for (uint64_t i = 0; i < array->size; ++i) fn(array->elements[i]);
  std::free(array->elements);
  std::free(array);
  return 0;
}
