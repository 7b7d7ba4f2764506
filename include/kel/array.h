/**
 * @file
 * Dynamic array and linked list of untyped pointers.
 *
 * `kelArray` is for elements that are added at the end and read in either direction; `kelList` for
 * elements that also leave again. Both carry their own cursors, so that a walk needs no variable of
 * its caller's. Neither owns its elements: they are never read, and freed only by the function that
 * the destroy functions take. An element may be null, but a walk that ends at the first null then
 * ends early: count to kelArraySize() instead.
 *
 * Functions need a valid array or list unless their description mentions null. An allocation that
 * fails is reported and leaves the container as it was; `errno` is ENOMEM.
 *
 * Threads: a container is used by one thread at a time, its walks included.
 *
 * @code
 * kelArray *names = kelArrayCreate(0);
 * if (kelArrayAdd(names, strdup("a")) != 0) return -1;
 * for (char *name = kelArrayFirst(names); name != NULL; name = kelArrayNext(names)) puts(name);
 * kelArrayDestroy(names, free);
 * @endcode
 */
#ifndef KEL_ARRAY_H
#define KEL_ARRAY_H

#include <kel/export.h>

#include <stdint.h>

KEL_BEGIN_DECLS

/** A growable array. */
typedef struct kelArray kelArray;
/** A doubly linked list. */
typedef struct kelList kelList;

/** Applied to each element by the destroy functions; free() is one. */
typedef void (*kelElementFn)(void* element);

/** @name Array
 * @{ */
/**
 * Makes an empty array. It takes no room for elements before the first is added, and then grows by
 * the same number of elements each time it is full: `initial_count`, rounded up so that the step
 * fills whole memory pages (512 elements each). A count near the expected size is best: an array
 * that grows far beyond it is moved often.
 *
 * @param initial_count  elements; 0 stands for 1024
 * @return for kelArrayDestroy(); null with ENOMEM, reported
 */
KEL_API kelArray* kelArrayCreate(uint64_t initial_count);
/** Appends `element`; 0, or -1 with the array unchanged. */
KEL_API int kelArrayAdd(kelArray* array, void* element);
/** The number of elements. */
KEL_API uint64_t kelArraySize(const kelArray* array);
/** Calls `fn`, if there is one, on every element in order, and frees the array; 0. Null is ignored.
 */
KEL_API int kelArrayDestroy(kelArray* array, kelElementFn fn);
/** @} */

/** @name Walks over an array
 * The forward and the backward walk have a cursor each and do not disturb each other, and elements
 * may be added meanwhile. @{ */
/** Starts the forward walk: element 0, or null for an empty array. */
KEL_API void* kelArrayFirst(kelArray* array);
/** The element behind the one last returned by the forward walk; null beyond the last. Each call
 * moves on, also beyond the end. */
KEL_API void* kelArrayNext(kelArray* array);
/** Starts the backward walk: the last element, or null for an empty array. */
KEL_API void* kelArrayLast(kelArray* array);
/** The element before the one last returned by the backward walk; null when that was element 0. */
KEL_API void* kelArrayPrev(kelArray* array);
/** @} */

/** @name List
 * @{ */
/** An empty list for kelListDestroy(); null with ENOMEM, not reported. */
KEL_API kelList* kelListCreate(void);
/** Appends `element`, at a cost that does not depend on the length; 0, or -1. */
KEL_API int kelListAdd(kelList* list, void* element);
/**
 * Takes out the first `element`, compared by address, searching from the head. Elements may be
 * removed during a walk, the one just returned and the one to come too.
 *
 * @return 0; -1 with ENOENT, reported, when it is not in the list
 */
KEL_API int kelListRemove(kelList* list, const void* element);
/** Calls `fn`, if there is one, on every element in order, and frees the list; null is ignored. */
KEL_API void kelListDestroy(kelList* list, kelElementFn fn);
/** Starts the walk: the first element; null for an empty list or a null `list`. */
KEL_API void* kelListFirst(kelList* list);
/** The walk's next element; null at the end, before the first kelListFirst(), or for a null `list`.
 */
KEL_API void* kelListNext(kelList* list);
/** Bytes that an element costs in a list, the allocator's own not counted: 24. */
KEL_API uint64_t kelGetListNodeSize(void);
/** @} */

KEL_END_DECLS

#endif
