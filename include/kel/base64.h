/**
 * @file
 * Bytes as printable text: Base64 and hexadecimal codecs, and the ASCII tables under them.
 *
 * Base64 is that of RFC 4648 in its standard (section 4, '+' and '/') and its URL-safe alphabet
 * (section 5, '-' and '_'), with '=' padding in both: written always, and required when reading. No
 * line breaks are written; white space is skipped anywhere when reading. Hexadecimal text is
 * written in upper case and read in either.
 *
 * Nothing here depends on the locale. Thread-safe: no state.
 *
 * @code
 * char text[KEL_BASE64_SIZE(sizeof key)];
 * Base64Encode(key, sizeof key, text, sizeof text);
 *
 * unsigned char again[sizeof key];
 * if ((int)Base64Decode(text, again, sizeof again) != sizeof key) return -1;
 * @endcode
 */
#ifndef KEL_BASE64_H
#define KEL_BASE64_H

#include <kel/export.h>

#include <stddef.h>

#ifdef __cplusplus
#include <string>
#endif

/** The size that the Base64 text of `size` bytes needs, terminator included. */
#define KEL_BASE64_SIZE(size) (((size) + 2) / 3 * 4 + 1)

/** What the Base64 functions return when they fail: -1 as a 32-bit int. */
#define KEL_BASE64_FAILURE ((size_t)0xFFFFFFFFu)

/** @name Character classes
 * Bits of #kelascii_ctype_table. @{ */
#define KELASCII_LOWER 0x01 /**< a to z */
#define KELASCII_UPPER 0x02 /**< A to Z */
#define KELASCII_DIGIT 0x04 /**< 0 to 9 */
#define KELASCII_PUNCT                                                                             \
  0x08                       /**< the 32 printable characters that are none of the above nor space \
                              */
#define KELASCII_SPACE 0x10  /**< tab, newline, vertical tab, form feed, carriage return, space */
#define KELASCII_XDIGIT 0x20 /**< 0 to 9, A to F, a to f */
/** @} */

KEL_BEGIN_DECLS

/** The classes of each character code, whatever the locale; codes from 128 on have none. */
KEL_API extern const unsigned char kelascii_ctype_table[256];
/** Maps a to z to A to Z and every other code to itself. */
KEL_API extern const unsigned char kelascii_toupper_table[256];
/** The 16 upper-case hexadecimal digits. */
KEL_API extern const char* const __kel_hex_tab;

/** @name Base64
 * Results are sizes; #KEL_BASE64_FAILURE, whose low 32 bits are -1, says that the call failed. What
 * was written until then stays in the buffer. Failures are reported with code -1 under the names
 * Base64EncodeImpl and Base64DecodeImpl, whichever alphabet was asked for, except that a character
 * that does not belong in the text fails without a report. `errno` is ENOBUFS when the buffer was
 * too small, else EINVAL. @{ */
/**
 * Encodes `srcLen` bytes.
 *
 * The buffer `dst` of `dstLen` bytes must hold #KEL_BASE64_SIZE(srcLen). The result is the number
 * of characters written, the terminator not counted.
 */
KEL_API size_t Base64Encode(const unsigned char* src, size_t srcLen, char* dst, size_t dstLen);
/** As Base64Encode(), in the URL-safe alphabet. */
KEL_API size_t Base64URLEncode(const unsigned char* src, size_t srcLen, char* dst, size_t dstLen);
/**
 * Decodes the terminated text `src` and returns the number of bytes that it holds.
 *
 * With a null `dst` the text is only checked and measured. Bits of the last letter that belong to
 * no byte must be 0, which is checked when there is a `dst`. Since the byte after a full one
 * receives those bits for a moment, a padded text needs one byte more in `dst` than it holds.
 */
KEL_API size_t Base64Decode(const char* src, unsigned char* dst, size_t dstLen);
/** As Base64Decode(), in the URL-safe alphabet. */
KEL_API size_t Base64URLDecode(const char* src, unsigned char* dst, size_t dstLen);
/** @} */

/**
 * Writes two upper-case digits for each byte, and a terminator.
 *
 * @param src  the bytes
 * @param dst  has room for 2 x `len` + 1 bytes; must not overlap `src`
 * @param len  number of bytes
 * @return 2 x `len`; 0 for a null `dst`, or a null `src` with a `len`
 */
KEL_API size_t HexEncode(const void* src, char* dst, unsigned len);
/**
 * Decodes hexadecimal text in place: `text` receives the bytes, then zeros up to `len`.
 *
 * Characters are not checked: one below 'A' counts as its code minus 48, any other as the code of
 * its upper case minus 55, and what exceeds a byte is dropped. A digit whose partner is missing is
 * the high one of a last byte. Nothing beyond `len` is read or written.
 *
 * @return the number of bytes, (len + 1) / 2; 0 for a null `text` or a `len` below 1
 */
KEL_API int HexDecode(char* text, int len);
/**
 * The byte that two digits stand for, 0 to 255; -1 with EINVAL, reported, for a null `two` or a
 * character that is no digit.
 */
KEL_API int hextobyte(const char* two);

KEL_END_DECLS

#ifdef __cplusplus
/** Replaces `out` by two upper-case digits for each byte; by nothing, with ENOMEM, without memory.
 */
KEL_API void blob2hexstring(const unsigned char* data, size_t len, std::string& out);
/**
 * Decodes hexadecimal text into new memory. Other characters than digits count as 0, and an odd
 * last digit is ignored.
 *
 * @param len  receives the number of bytes, `hex.size() / 2`
 * @return the bytes, for the caller to free(); null with `len` 0 and ENOMEM without memory
 */
KEL_API unsigned char* hexstring2blob(std::string hex, unsigned long& len);
#endif

#endif
