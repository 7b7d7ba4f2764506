/**
 * @file
 * Numbers, sizes, words and times as text, and a few string functions that work in place.
 *
 * Sizes have a unit: one of the letters k, m, g, t, p, e (kilo to exa), an "i" after it for powers
 * of 1024 instead of 1000, and a "B". The parsers take them in either case and leave out what the
 * writer left out: "10k", "10KB" and "10kb" are 10000, "10KiB" and "10ki" 10240.
 *
 * The parsers store where they stopped in `*end` when `end` is given. Wide twins follow the same
 * rules. Words, units and white space are those of ASCII, whatever the locale; the fraction of
 * sizetofloatstr() and of strpercentotvalue() is written with the locale's decimal point.
 *
 * Failures are reported and set `errno`. Thread-safe: no state.
 *
 * @code
 * char *end;
 * uint64_t chunk = strtosize(argument, &end);
 * if (errno != 0 || *end != '\0') return -1;
 *
 * char buf[KEL_SIZE_TEXT];
 * printf("chunks of %s\n", sizetostr(buf, sizeof buf, chunk));
 * @endcode
 */
#ifndef KEL_TEXT_H
#define KEL_TEXT_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

/** Room for every text of sizetostr(), terminator included. */
#define KEL_SIZE_TEXT 24

KEL_BEGIN_DECLS

/** @name Sizes to text
 * `n` is the capacity of `buf` in characters, terminator included. Null for a null `buf`, an `n` of
 * 0 or a negative `precision` (EINVAL, reported). @{ */
/**
 * Writes `value` exactly, in the largest unit that divides it: "5KB", "2KiB", "1536". Where powers
 * of 1000 and of 1024 divide it equally often, those of 1024 are taken.
 *
 * The text is flush with the end of the buffer: its terminator is `buf[n - 1]`, and the result is
 * where it starts. Null with ENOBUFS when it does not fit; that is reported when there is not even
 * room for the unit.
 */
KEL_API char* sizetostr(char* buf, size_t n, uint64_t value);
KEL_API wchar_t* sizetowcs(wchar_t* buf, size_t n, uint64_t value);
/**
 * Writes `value` for people: "1024 bytes", "2 KiB", "1.50 KiB". The unit is the power of 1024 that
 * leaves at most 1024 of it; `precision` is the number of digits after the point where it does not
 * divide `value`.
 *
 * Returns `buf`, where a text that does not fit is cut.
 */
KEL_API char* sizetofloatstr(char* buf, size_t n, uint64_t value, int precision);
KEL_API wchar_t* sizetofloatwcs(wchar_t* buf, size_t n, uint64_t value, int precision);
/** @} */

/** @name Text to sizes
 * @{ */
/**
 * Reads a decimal number, as strtoull() does, and the unit that follows it directly, if any.
 *
 * `errno` is 0 afterwards unless the number (silently) or its product with the unit (reported) is
 * above 64 bits: then it is ERANGE and the result UINT64_MAX. Null text gives 0 with EINVAL.
 */
KEL_API uint64_t strtosize(const char* s, char** end);
KEL_API uint64_t wcstosize(const wchar_t* s, wchar_t** end);
/** The multiplier that the unit at `s` stands for; 1, with `*end` at `s`, when there is none. */
KEL_API uint64_t strtosizemult(const char* s, char** end);
KEL_API uint64_t wcstosizemult(const wchar_t* s, wchar_t** end);
/** @} */

/** @name Words
 * @{ */
/**
 * 1 when the text starts with "yes", "y", "1", "true" or "t", 0 when it starts with "no", "n", "0",
 * "false" or "f", in either case. `*end` is after the first of these words, in that order, that
 * matches; what follows is not looked at unless the caller does ("yesterday" is a yes).
 *
 * Anything else gives 0 with `*end` at `s` and ERANGE, null text 0 with EINVAL; both are reported.
 */
KEL_API int strtobool(const char* s, char** end);
KEL_API int wcstobool(const wchar_t* s, wchar_t** end);
/** @} */

/**
 * Reads a time of day, H:MM or H:MM:SS.
 *
 * @param s    the text, which starts with a digit
 * @param end  receives the place after the last number, or `s` on failure; may be null
 * @return seconds since midnight, 0 to 86399; 0 on failure, which is reported: EINVAL for null
 *         text, else ERANGE. `errno` is 0 after a success, which tells midnight from a failure.
 */
KEL_API int strtotimeofday(const char* s, char** end);
/**
 * Reads a percentage: a number as of strtod(), and one '%' with any white space around it.
 *
 * @param s      the whole text
 * @param value  receives the number, which is not divided by 100
 * @return 1; 0 without a report, and `value` as it was, for anything else
 */
KEL_API int strpercentotvalue(const char* s, double* value);

/** Removes every white-space character, wherever it stands, and returns `s`; null is ignored. */
KEL_API char* strstrip(char* s);
/**
 * Cuts the next token, a run of other characters than white space, out of a text.
 *
 * @param cursor  the rest of the text; moved to the token after this one, or to the end
 * @return the token, terminated in place; null when none is left
 */
KEL_API char* StringGetNextTokenA(char** cursor);
/** Replaces every byte `from` of the text by `to` in place and returns their number; null is
 * ignored. */
KEL_API int strrepl(char* s, int from, int to);

KEL_END_DECLS

#endif
