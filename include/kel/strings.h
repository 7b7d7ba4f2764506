/**
 * @file
 * Bounded strings: copies and joins into buffers of a known capacity.
 *
 * Every size is the capacity of the destination in characters, terminator included (bytes for the
 * narrow functions, wide characters for the wide ones). A destination that exists and has room for
 * anything is always terminated afterwards: on failure it holds the prefix that fitted, or the
 * empty string. Misuse and truncation are reported and set `errno`:
 *
 * - EINVAL: null source; a join whose destination holds no terminator within its size
 * - ENOBUFS: null or zero-length destination; the text did not fit
 *
 * Thread-safe: no state.
 *
 * @code
 * char name[16];
 * if (kelstrcpy(name, input, sizeof name) == NULL) return -1;  // reported, errno is set
 * @endcode
 */
#ifndef KEL_STRINGS_H
#define KEL_STRINGS_H

#include <kel/export.h>

#include <stddef.h>
#include <wchar.h>

KEL_BEGIN_DECLS

/** @name Copies
 * Return `dst`, or null on any failure. The forms with `n` want the first `n` characters of `src`
 * at most; truncation is a failure only when those do not fit. @{ */
/** Truncation is a warning that shows the source text and the size. */
KEL_API char* kelstrcpy(char* dst, const char* src, size_t dstsize);
KEL_API char* kelstrncpy(char* dst, const char* src, size_t dstsize, size_t n);
/** A null source sets `errno` without a message. */
KEL_API wchar_t* kelwcscpy(wchar_t* dst, const wchar_t* src, size_t dstsize);
KEL_API wchar_t* kelwcsncpy(wchar_t* dst, const wchar_t* src, size_t dstsize, size_t n);
/** @} */

/** @name Sized copies
 * Return the size that the wanted text needs, terminator included, whether or not it fitted: a
 * result above `dstsize` means truncation. 0 for a null source. @{ */
KEL_API size_t kelstrlcpy(char* dst, const char* src, size_t dstsize);
/** A null source sets `errno` without a message. */
KEL_API size_t kelstrlncpy(char* dst, const char* src, size_t dstsize, size_t n);
KEL_API size_t kelwcslcpy(wchar_t* dst, const wchar_t* src, size_t dstsize);
KEL_API size_t kelwcslncpy(wchar_t* dst, const wchar_t* src, size_t dstsize, size_t n);
/** @} */

/** @name Joins
 * Append to the text in `dst` and return where the appended text starts, or null on any failure.
 * Failures of the copy step are reported under the name of the copy. @{ */
KEL_API char* kelstrcat(char* dst, const char* src, size_t dstsize);
KEL_API char* kelstrncat(char* dst, const char* src, size_t dstsize, size_t n);
KEL_API wchar_t* kelwcscat(wchar_t* dst, const wchar_t* src, size_t dstsize);
KEL_API wchar_t* kelwcsncat(wchar_t* dst, const wchar_t* src, size_t dstsize, size_t n);
/** @} */

/** @name Lengths
 * The length of `s` when a terminator lies within the first `maxlen` characters; else `maxlen` with
 * `errno` EINVAL (also for a null `s`), without a message. @{ */
KEL_API size_t kelstrlen(const char* s, size_t maxlen);
KEL_API size_t kelwcslen(const wchar_t* s, size_t maxlen);
/** @} */

/** The first character of `s` that occurs in `accept`; null when none does or either is null. */
KEL_API char* kelstrpbrk(const char* s, const char* accept);

/**
 * Hides password values before a text is logged: what follows "passwd" or "password" (any case),
 * spaces and '=' is replaced by one '*', up to the next of `delimiters` or the end of the text.
 *
 * @param text        changed in place; never grows
 * @param delimiters  characters that end a value; not null
 */
KEL_API void kelstrsanitize(char* text, const char* delimiters);

KEL_END_DECLS

#endif
