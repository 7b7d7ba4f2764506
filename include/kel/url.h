/**
 * @file
 * Percent-encoding of text for URLs and form data, and back.
 *
 * Letters, digits, '-', '.', '@' and '_' stand for themselves; every other byte is written as '%'
 * and two upper-case hexadecimal digits. Wide text is written as narrow text too: characters up to
 * 255 as two digits, larger ones as "%u" and the four digits of their low 16 bits (the form that
 * ECMAScript's escape() made common; no RFC has it).
 *
 * The decoders read '+' as a space. They take every escape for what its characters give: one below
 * 'A' counts as its code minus 48, any other as its code without bit 0x20 minus 55, and what
 * exceeds the width is dropped. An escape that the end of the text cuts short is copied as it is;
 * nothing beyond the terminator is read. An escape may decode to a zero, which then ends the text.
 *
 * Nothing here depends on the locale. Thread-safe: no state.
 *
 * @code
 * char query[3 * sizeof name];
 * URLEncode(name, query);        // "a b&c" becomes "a%20b%26c"
 * URLDecode(query);              // and back, in place
 * @endcode
 */
#ifndef KEL_URL_H
#define KEL_URL_H

#include <kel/export.h>

#include <stdio.h>
#include <wchar.h>

KEL_BEGIN_DECLS

/** For the character codes 32 to 127, at index code - 32: 1 when it stands for itself, else 0. */
KEL_API extern const unsigned char __kel_url_allow_chars[96];

/** @name Encoding
 * Writes the encoded text and a terminator to `dst` and returns `dst`, whose room is the caller's
 * duty. The forms with `n` take at most the first `n` characters. A null `src` counts as empty; a
 * null `dst` is returned as it is. @{ */
/** `dst` needs 3 bytes for each of `src` and one more. */
KEL_API char* URLEncode(const char* src, char* dst);
KEL_API char* URLEncodeN(const char* src, char* dst, int n);
/** `dst` needs 6 bytes for each character of `src` and one more. */
KEL_API char* URLEncodeW(const wchar_t* src, char* dst);
KEL_API char* URLEncodeNW(const wchar_t* src, char* dst, int n);
/** As URLEncodeW() into new memory, for the caller to free(); null with ENOMEM, reported, without
 * memory, and with EINVAL for a null `src`. */
KEL_API char* URLEncodeW_malloced(const wchar_t* src);
/** @} */

/** @name Decoding in place
 * Both return `s`; the text never grows. Null is returned as it is. @{ */
/** Each escape becomes one byte. "%u" is no escape here: it is copied, and so is what follows. */
KEL_API char* URLDecode(char* s);
/** Each escape, "%u" ones included, is a code point, which is written as UTF-8. Other bytes are
 * copied. */
KEL_API char* URLDecodeUTF8(char* s);
/** @} */

/** @name Decoding to wide text
 * Each escape becomes one character, each other byte the character of its value. @{ */
/** Returns `dst`, which needs a character for each byte of `src` and one more. */
KEL_API wchar_t* URLDecodeW(const char* src, wchar_t* dst);
/** As URLDecodeW() into new memory, for the caller to free(); null as URLEncodeW_malloced(). */
KEL_API wchar_t* URLDecodeW_malloced(const char* src);
/** @} */

/**
 * Writes the encoded `text` to a stream.
 *
 * @return 0; -1 with EINVAL for a null argument and ENOMEM without memory, both reported, or with
 *         the error of the stream
 */
KEL_API int fprint_urlencoded(FILE* fp, const char* text);

KEL_END_DECLS

#endif
