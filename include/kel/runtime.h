/**
 * @file
 * Small services: memory accounting, callback lists, clocks, random bytes.
 *
 * Each is independent of the others. Unless a function says otherwise it may be called from any
 * thread.
 */
#ifndef KEL_RUNTIME_H
#define KEL_RUNTIME_H

#include <kel/export.h>

#include <pthread.h>
#include <stddef.h>
#include <time.h>
#include <wchar.h>

KEL_BEGIN_DECLS

/** @name Accounted memory
 * malloc and its kin, counted by slot, 0 to 15. The slots count when the environment variable
 * MEMSTAT holds a number other than 0 at the time of XAllocInit(); else the functions are those of
 * the C library. A counted block carries its size in the 8 bytes before it and is aligned as malloc
 * aligns.
 *
 * A block is resized and freed through the slot that it came from, and the settings do not change
 * while blocks are alive. Null results leave `errno` ENOMEM and are not reported. @{ */
/** Reads MEMSTAT and names slot 0 "libcr"; _KelLibInit() calls it. */
KEL_API void XAllocInit(void);
KEL_API void* XMalloc(int slot, size_t size);
/** Zeroed; null when `count` times `size` does not fit in 64 bits. */
KEL_API void* XCalloc(int slot, size_t count, size_t size);
/** On failure the old block stays valid and counted; a null `ptr` makes it XMalloc(). */
KEL_API void* XRealloc(int slot, void* ptr, size_t size);
KEL_API void XFree(int slot, void* ptr);
/** Reports the bytes in use of every counting slot that has a name, at information level. */
KEL_API void XAllocReport(void);
/** Frees `*p` when it is not null and nulls it. */
KEL_API void _KelFree(void** p);
/** @} */

/** @name Totals of the datastore
 * Bytes, kept by whoever allocates them. @{ */
extern KEL_API long datastore_malloc_total_size;
extern KEL_API long datastore_thread_total_size;
KEL_API void datastore_malloc_size_incre(size_t n);
KEL_API void datastore_malloc_size_decre(size_t n);
/** For an `n` of 0 the soft limit of the stack size is taken; 0, or -1 when that cannot be read. */
KEL_API int datastore_thread_size_incre(size_t n);
KEL_API int datastore_thread_size_decre(size_t n);
/** @} */

/** Called with the two arguments of kelCallCallbackList() and the context it was added with. */
typedef void (*kelCallbackFn)(void* first, void* second, void* context);
typedef struct kelCallback kelCallback;

/** @name Callback lists
 * A list is its first node, null when empty; every operation returns the list as it then is. A
 * callback may add to and remove from the list that is calling it: what it removes is freed when
 * the call of the list ends. One thread at a time uses a list. @{ */
/**
 * Adds a callback at the end, or counts one up that is there already with the same context: it is
 * called that many times. An allocation failure is reported and leaves the list as it is.
 */
KEL_API kelCallback* kelCallbackAdd(kelCallback* list, kelCallbackFn fn, void* context);
/** Counts every match down and drops those at 0. A null `fn` or `context` matches any. */
KEL_API kelCallback* kelCallbackRemove(kelCallback* list, kelCallbackFn fn, void* context);
/** Calls every callback as often as it was added, then frees what was removed meanwhile. */
KEL_API kelCallback* kelCallCallbackList(kelCallback* list, void* first, void* second);
/** Frees every node, whatever its state. */
KEL_API void kelCallbackListDelete(kelCallback* list);
/** @} */

/** @name Clocks
 * @{ */
/** Milliseconds of a clock that only runs forward, cut to 32 bits (49.7 days); 0 before
 * _KelLibInit(). */
KEL_API unsigned int GetTickCount(void);
/** Milliseconds since 1970. */
KEL_API unsigned long get_millis(void);
/** Microseconds since 1970. */
KEL_API unsigned long gethrtime(void);
/** The millisecond within the current second, 0 to 999, at the resolution of the kernel's tick. */
KEL_API long get_only_ms(void);
/** Microseconds to seconds. */
KEL_API double hrtime2seconds(long t);
/** Seconds to microseconds, cut toward zero. */
KEL_API long seconds2hrtime(double s);
/**
 * Sleeps, but lets a signal interrupt.
 *
 * @return 0 when the time passed; the seconds left, at least 1, after a signal; -1 on another
 * failure
 */
KEL_API long KelSleep(unsigned int seconds);
/** localtime_r(3). */
KEL_API struct tm* KelLocaltime(const time_t* t, struct tm* out);
/** ctime_r(3); `buf` holds 26 bytes. */
KEL_API char* KelCtime(const time_t* t, char* buf);
/** @} */

/** @name Random numbers
 * From OpenSSL's generator, fit for keys. @{ */
/** Makes the generator's lock; the first RandomGetBytes() runs it once. */
KEL_API void RandomInit(void);
/** Fills `buf`; always 0. A generator that cannot deliver ends the process: no caller could go on.
 */
KEL_API int RandomGetBytes(void* buf, size_t len);
/** A number from `low` to `high`; slightly uneven when the range does not divide 2^32. */
KEL_API unsigned int RandomRange(unsigned int low, unsigned int high);
/**
 * Fills `buf` with random bytes other than 0 and sets the high bit of one of them, which the last
 * byte's value v chooses (v mod `len`).
 *
 * @return v / `len`; 0 for a `len` of 0
 */
KEL_API size_t _dc_open0(void* buf, size_t len);
/** @} */

/** @name One-liners
 * @{ */
/** pthread_self(3). */
KEL_API unsigned long GetTid(void);
/** 1 when `thread` is not 0. */
KEL_API int KelThreadActive(pthread_t thread);
/** 1 when `s` is empty or ASCII digits only. */
KEL_API int KelIsDecimalNumber(const char* s);
/** getenv(3). */
KEL_API char* kelgetenv(const char* name);
/** The text of the current `errno`, which is kept, in a static buffer; one caller at a time. */
KEL_API const wchar_t* OSErrorW(void);
/** hstrerror(3) in another static buffer; one caller at a time. */
KEL_API const wchar_t* hstrerrorW(int error);
/** @} */

KEL_END_DECLS

#ifdef __cplusplus
/**
 * A counter for many writers: 64 slots, so that concurrent changes rarely meet. Exact when the
 * writers are quiet.
 */
class KEL_API KelFastAtomic {
 public:
  constexpr KelFastAtomic() noexcept : slots_(), next_(0) {}

  KelFastAtomic& operator+=(long amount) noexcept;
  KelFastAtomic& operator-=(long amount) noexcept;
  long GetValue() const noexcept;

 private:
  long slots_[64];
  unsigned long next_;  // a lost update only changes which slot is used
};

/** An allocator that counts, under a name, the bytes that it handed out. */
class KEL_API KelAllocator {
 public:
  /// @param name  cut at 31 characters
  KelAllocator(const char* name, bool enabled) noexcept;
  ~KelAllocator();

  /// operator new, but null when there is no memory.
  void* Alloc(unsigned long size) noexcept;
  /// @param size  what was given to Alloc()
  void Free(void* ptr, unsigned long size) noexcept;
  /// Reports the bytes in use at information level, when enabled. "datastore" adds the datastore
  /// totals.
  void Report() const;
  /// A disabled one, named "default".
  static KelAllocator* GetDefaultAllocator();

 private:
  char name_[32];
  bool enabled_;
  KelFastAtomic in_use_;
};
#endif

#endif
