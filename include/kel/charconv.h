/**
 * @file
 * Character sets: UTF-8, UTF-16, wide text, ISO 8859-1, ASCII, the locale's, and any pair of sets
 * that iconv knows.
 *
 * Text comes in three shapes: multi-byte strings in the locale's code set, UTF-8 strings, and wide
 * strings, whose characters are 32-bit code points. The checks (`is_valid_utf8_...`) accept exactly
 * the well-formed sequences of the Unicode Standard (table 3-7): no surrogates, no over-long forms,
 * nothing above U+10FFFF. The converters between UTF-8 and wide text are wider: they know the 1- to
 * 6-byte forms of RFC 2279 for every value of 31 bits and take each form as it is, so check first
 * where text comes from outside.
 *
 * New texts are terminated and belong to the caller, who releases them with utf8free() or free().
 * Functions return null, or -1, when they fail; that is reported unless said otherwise, and `errno`
 * tells why: EINVAL for a null argument, ENOMEM without memory. A destination that exists is then
 * the empty string.
 *
 * Thread-safe, but a conversion handle carries state and serves one thread at a time. What depends
 * on the locale follows the process's, as setlocale() left it.
 *
 * @code
 * charconv_t *latin = charconv_open("UTF-8", "ISO-8859-1");
 * char *text = charconv_string_malloced_simple(latin, input);
 * charconv_close(latin);
 * @endcode
 */
#ifndef KEL_CHARCONV_H
#define KEL_CHARCONV_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <wchar.h>

/** For mbsconvert() and wcsconvert(): a new string when the text does not fit. */
#define KEL_CONVERT_ALLOCATE 1

KEL_BEGIN_DECLS

/** A conversion between two character sets; see charconv_open(). */
typedef struct charconv_t charconv_t;

/** @name Well-formed UTF-8
 * Failures are reported with the text from the bad sequence on, under the code that `errno` had
 * before, and leave EILSEQ there. @{ */
/** The length, 1 to 4, of the sequence at `s`, of which at most `n` bytes are looked at; or -1. */
KEL_API int is_valid_utf8_char(const unsigned char* s, unsigned n);
/** The number of characters in exactly `n` bytes, zeros among them included; or -1, after the
 * report of is_valid_utf8_char(). A negative `n` fails with EINVAL. */
KEL_API int is_valid_utf8_string(const unsigned char* s, int n);
/** @} */

/** @name Single characters
 * Nothing is checked or reported. @{ */
/** 1 for a UTF-16 code unit that is no surrogate, 2 for a high surrogate with a low one after it, 0
 * for any other surrogate. The second unit is only read when the first is a high surrogate. */
KEL_API int validate_utf16_codeunit(const uint16_t* u);
/** Writes `c` as one or two UTF-16 code units and returns how many; `c` is at most 0x10FFFF. */
KEL_API int wc_to_utf16(wchar_t c, uint16_t out[2]);
/** Writes `c` as 1 to 6 bytes of UTF-8 and returns the place after them. Bit 31 is ignored. */
KEL_API unsigned char* wc_to_utf8c(wchar_t c, unsigned char* out);
/** The number of bytes that wc_to_utf8c() writes. */
KEL_API int wc_to_utf8c_len(wchar_t c);
/** Decodes the sequence at `s`, which is known to be whole, and returns the place after it. A byte
 * that begins no sequence counts as the character of its value. */
KEL_API const unsigned char* utf8c_to_wc_nochecks(const unsigned char* s, wchar_t* out);
/** @} */

/** @name Whole strings in new memory
 * @{ */
/** UTF-8 to wide. A byte that is not where it belongs fails with EINVAL and is reported with the
 * text from its sequence on. */
KEL_API wchar_t* utf8towcs_malloced(const char* utf8);
/** Wide to UTF-8; every character has a form. */
KEL_API char* wcstoutf8_malloced(const wchar_t* w);
/** UTF-8 to the locale's code set, as charconv_string_malloced_simple() does it. */
KEL_API char* utf8tostr_malloced(const char* s);
/** The locale's code set to UTF-8. */
KEL_API char* strtoutf8_malloced(const char* s);
/** Releases a string of this family; null is ignored. */
KEL_API void utf8free(void* p);
/** @} */

/** @name ISO 8859-1 and ASCII
 * Characters keep their value. The forms with a buffer return `dst`, which has room for `n`
 * characters, terminator included. @{ */
/** Fails with EINVAL when the text, with its terminator, does not fit. */
KEL_API wchar_t* iso8859_1towcs_buf(wchar_t* dst, const unsigned char* src, unsigned n);
KEL_API wchar_t* iso8859_1towcs_malloced(const unsigned char* src);
/** As iso8859_1towcs_buf(); a byte above 127 fails with EINVAL too. */
KEL_API wchar_t* ascii7towcs_buf(wchar_t* dst, const char* src, int n);
KEL_API wchar_t* ascii7towcs_malloced(const char* src);
/** A character above 127 fails with EILSEQ; a text that does not fit with ENOBUFS, unreported. */
KEL_API char* wcstoascii7_buf(char* dst, const wchar_t* src, unsigned n);
KEL_API char* wcstoascii7_malloced(const wchar_t* src);
/** @} */

/** @name The locale's multi-byte text
 * @{ */
/**
 * Converts `src` to wide text.
 *
 * The result is `dst` when the text and its terminator fit there in `n` characters. When they do
 * not, or `dst` is null, it is a new string, provided that `flags` has #KEL_CONVERT_ALLOCATE; `dst`
 * is then the empty string. Null without a report: EILSEQ for a sequence that the locale does not
 * know, ENOBUFS when nothing may be allocated.
 */
KEL_API wchar_t* mbsconvert(const char* src, wchar_t* dst, size_t n, int flags);
/** The reverse of mbsconvert(): `n` and the result's size are in bytes. */
KEL_API char* wcsconvert(const wchar_t* src, char* dst, size_t n, int flags);
/** @} */

/** @name Conversion handles
 * Every conversion starts in the initial state. @{ */
/** A handle that converts from one set to the other, named as for iconv_open(3); null means the
 * locale's code set. Null with EINVAL, unreported, for a pair that is not known. */
KEL_API charconv_t* charconv_open(const char* tocode, const char* fromcode);
KEL_API charconv_t* charconv_open_utf8_to_locale(void);
KEL_API charconv_t* charconv_open_locale_to_utf8(void);
/** Releases the handle; the result of iconv_close(3). */
KEL_API int charconv_close(charconv_t* h);
/** Puts the handle into its initial state; 0, or -1 unreported when iconv(3) cannot. */
KEL_API int charconv_reset(charconv_t* h);
/** @} */

/** @name Converting
 * A sequence that the source set does not have fails with EILSEQ, one that the end of the input
 * cuts short with EINVAL. @{ */
/** The number of bytes that `len` bytes of input convert to, a return to the initial state of a
 * stateful set included; or -1. */
KEL_API ssize_t charconv_buf_len(charconv_t* h, const char* in, size_t len);
/**
 * One conversion into a buffer of the caller's, without a terminator.
 *
 * `*inLen` holds the size of the input and receives the number of bytes that were left over.
 * `*outLen` holds the capacity of `out` and receives the number of bytes written, also when the
 * conversion fails: with E2BIG when `out` was too small. The result is that of iconv(3), the number
 * of characters converted in an irreversible way, or -1.
 */
KEL_API ssize_t _charconv_buf_buf(charconv_t* h, char* in, size_t* inLen, char* out,
                                  size_t* outLen);
/**
 * Converts a buffer into a new one.
 *
 * The new buffer grows with the output, a return to the initial state of a stateful set included,
 * and ends in four zero bytes, a terminator in every set. `*outLen`, which may be null, receives
 * its size without these, 0 on failure.
 */
KEL_API char* charconv_buf_malloced(charconv_t* h, const char* in, size_t len, size_t* outLen);
KEL_API char* charconv_buf_malloced_simple(charconv_t* h, const char* in, size_t len);
/** As charconv_buf_malloced(), from a string that ends at its first zero byte. */
KEL_API char* charconv_string_malloced(charconv_t* h, const char* s, size_t* outLen);
KEL_API char* charconv_string_malloced_simple(charconv_t* h, const char* s);
/** charconv_buf_len() of a string that ends at its first zero byte. */
KEL_API ssize_t charconv_string_len(charconv_t* h, const char* s);
/** @} */

KEL_END_DECLS

#endif
