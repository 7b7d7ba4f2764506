/**
 * @file
 * Integers and byte buffers to raw or text form and back.
 *
 * `raw` non-zero chooses the raw form: the integer's bytes, big-endian. Zero chooses text: decimal
 * digits for integers (8, 32 and 64 bits; there is no text form of 16 bits), lowercase hexadecimal
 * digits for buffers. The serializers of kel/digest.h and kel/uid.h use the same flag and results.
 *
 * Failures are reported and set `errno` (EINVAL unless said otherwise); results are then 0 or null,
 * and outputs are as they were unless said otherwise. Thread-safe: no state.
 *
 * @code
 * char record[64];
 * size_t used, size = KelUint32Serialize(record, sizeof record, 4096, 0);
 * uint32_t value;
 * if (KelUint32InitDeserialize(&value, record, size, 0, &used) != NULL) use(value);
 * @endcode
 */
#ifndef KEL_SERIALIZE_H
#define KEL_SERIALIZE_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

KEL_BEGIN_DECLS

/** @name Sizes
 * Bytes of a form: 1, 2, 4 or 8 raw, else the number of decimal digits of `value`. @{ */
KEL_API size_t KelUint8SerializedSize(uint8_t value, int raw);
KEL_API size_t KelUint16SerializedSize(uint16_t value, int raw);
KEL_API size_t KelUint32SerializedSize(uint32_t value, int raw);
KEL_API size_t KelUint64SerializedSize(uint64_t value, int raw);
/** @} */

/** @name Writing
 * Write the form and return its size, which `size` must reach. Text is terminated only when `size`
 * is larger.
 *
 * Errors: ENOBUFS when the form does not fit; a text buffer then holds an empty text, if it holds
 * anything. @{ */
KEL_API size_t KelUint8Serialize(void* buf, size_t size, uint8_t value, int raw);
/** Raw only; that the form does not fit is not reported. */
KEL_API size_t KelUint16Serialize(void* buf, size_t size, uint16_t value, int raw);
KEL_API size_t KelUint32Serialize(void* buf, size_t size, uint32_t value, int raw);
KEL_API size_t KelUint64Serialize(void* buf, size_t size, uint64_t value, int raw);
/** @} */

/** @name Reading
 * Read a form from the start of `size` bytes and return `pvalue`; `used`, which may be null,
 * receives the bytes that were used. The raw form needs its 1, 2, 4 or 8 bytes.
 *
 * Text is a run of digits from the first byte on, with neither sign nor white space before it, and
 * ends at the first other byte or at the end of the source, which needs no terminator. A run of
 * more than 31 digits, zeros in front included, is out of range.
 *
 * Errors: EINVAL for everything. A text that is refused sets the value to 0. @{ */
KEL_API uint8_t* KelUint8InitDeserialize(uint8_t* pvalue, const void* src, size_t size, int raw,
                                         size_t* used);
/** Raw only. */
KEL_API uint16_t* KelUint16InitDeserialize(uint16_t* pvalue, const void* src, size_t size, int raw,
                                           size_t* used);
KEL_API uint32_t* KelUint32InitDeserialize(uint32_t* pvalue, const void* src, size_t size, int raw,
                                           size_t* used);
KEL_API uint64_t* KelUint64InitDeserialize(uint64_t* pvalue, const void* src, size_t size, int raw,
                                           size_t* used);
/** @} */

/** @name Reading from a stream
 * As above, from the stream's position. Text takes at most 32 digits from the stream and leaves the
 * first other character to be read next.
 *
 * Errors: EIO when the stream cannot be read, or ends before a raw form does; else as above, with
 * the bytes in question taken from the stream. @{ */
KEL_API uint8_t* KelUint8InitFromFile(uint8_t* pvalue, FILE* stream, int raw, size_t* used);
KEL_API uint32_t* KelUint32InitFromFile(uint32_t* pvalue, FILE* stream, int raw, size_t* used);
KEL_API uint64_t* KelUint64InitFromFile(uint64_t* pvalue, FILE* stream, int raw, size_t* used);
/** @} */

/** @name Buffers
 * Always as text. @{ */
/**
 * Writes the `len` bytes at `data`, at least one, as 2 * `len` lowercase hexadecimal digits without
 * a terminator; returns their number, which `size` must reach.
 */
KEL_API size_t KelBufToSerialize(void* buf, size_t size, const void* data, size_t len);
/**
 * Reads `len` bytes, at least one, from 2 * `len` hexadecimal digits in either case, which `size`
 * must reach; returns the number of digits. When a character is none, the bytes before it may have
 * been stored.
 */
KEL_API size_t KelBufToDeserialize(void* data, size_t len, const void* src, size_t size);
/** @} */

KEL_END_DECLS

#ifdef __cplusplus
#include <set>
#include <string>

/**
 * The id of a backup from the name of one of its image files.
 *
 * `name` is split at its last dot. When what follows begins with ".info", ".img", ".hdr", ".map" or
 * ".fmk", the id is what comes before the dot, without white space around it.
 *
 * @return the id; `name` itself when it has no dot; an empty text for every other ending, and with
 *         ENOMEM when memory ran out
 */
KEL_API std::string getbackupid(const std::string& name);

/**
 * Reads a file of container ids, one decimal number a line, into `set`.
 *
 * White space around a number and empty lines do not count; what follows the digits does not
 * either. Ids below 64 are reserved: they, numbers that do not fit below 2^64 - 1 and lines without
 * a number are left out with a warning each.
 *
 * @return true; false after a report, with the `errno` of the failed call, when the file could not
 *         be opened or read to its end or memory ran out, with what was read so far in `set`
 */
KEL_API bool ReadDcidFile(const std::string& path, std::set<unsigned long>* set);
#endif

#endif
