/**
 * @file
 * Unique identifiers: 16 bytes that name an object independently of hosts and paths.
 *
 * Byte 0 is the version: 0 for "not set", 1 for a random identifier, whose other 15 bytes come from
 * the library's random source (RandomGetBytes()); nothing else is valid. 2^60 identifiers can be
 * drawn before two of them are likely to agree.
 *
 * The raw form is the 16 bytes; the text form is 32 lowercase hexadecimal digits, so it begins with
 * "01", and is parsed in either case. `raw` non-zero chooses the raw form.
 *
 * A failing function reports, sets `errno` (EINVAL unless said otherwise) and leaves the identifier
 * it should have filled as it was. What is "not valid" below is a null pointer ("invalid NULL
 * parameter"), version 0 ("invalid UID") or a version above 1 ("unhandled version case").
 * Identifiers are plain memory of the caller's; threads may share one that nobody changes.
 *
 * @code
 * KelUID uid;
 * char text[33];
 * KelUIDGenerate(&uid, KEL_UID_RANDOM);
 * KelUIDSerialize(text, sizeof text, &uid, 0);
 * puts(text);
 * @endcode
 */
#ifndef KEL_UID_H
#define KEL_UID_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/** The version of an identifier that was not set. */
#define KEL_UID_NOT_SET 0
/** The version of random identifiers. */
#define KEL_UID_RANDOM 1
/** What KelUIDCompare() returns for an error. */
#define KEL_UID_COMPARE_ERROR INT32_MAX

KEL_BEGIN_DECLS

/** An identifier. */
typedef struct KelUID {
  unsigned char bytes[16]; /**< bytes[0] is the version */
} KelUID;

/** Bytes of an identifier: 16. */
KEL_API size_t KelUIDSize(void);

/** @name Making and removing
 * Null with a report when that is not possible. @{ */
/** Marks the identifier as not set; returns it. */
KEL_API KelUID* KelUIDInit(KelUID* uid);
/** A new identifier, not set, for KelUIDDelete(); null with ENOMEM. */
KEL_API KelUID* KelUIDNew(void);
/** Frees the identifier and nulls the caller's pointer; null pointers are allowed. */
KEL_API void KelUIDDelete(KelUID** uid);
/** Copies a valid identifier; returns `dst`. */
KEL_API KelUID* KelUIDInitCopy(KelUID* dst, const KelUID* src);
/** Draws a new identifier of `version`, which is #KEL_UID_RANDOM; returns `uid`. */
KEL_API KelUID* KelUIDGenerate(KelUID* uid, int version);
/** @} */

/** @name Questions
 * What is not valid is reported. @{ */
/** The version, 0 or 1; 0 after a report for any other and for null. */
KEL_API int KelUIDVersionGet(const KelUID* uid);
/** 1 for a valid identifier, 0 after a report. */
KEL_API int KelUIDValidate(const KelUID* uid);
/**
 * Orders two valid identifiers of the same version as strings of bytes: -1, 0 or 1;
 * #KEL_UID_COMPARE_ERROR (0x7fffffff) when they are not that.
 */
KEL_API int32_t KelUIDCompare(const KelUID* a, const KelUID* b);
/** 1 when two valid identifiers are the same, else 0; -1 where KelUIDCompare() has an error. */
KEL_API int KelUIDEqual(const KelUID* a, const KelUID* b);
/** @} */

/** @name Raw and text form
 * `raw` non-zero chooses the raw form. @{ */
/** Bytes of the form, 16 or 32; 0 for an identifier that is not valid. */
KEL_API size_t KelUIDSerializedSize(const KelUID* uid, int raw);
/**
 * Writes the form of a valid identifier and returns its size, which `size` must reach. Text is
 * terminated only when `size` is larger. 0 on failure.
 */
KEL_API size_t KelUIDSerialize(void* buf, size_t size, const KelUID* uid, int raw);
/**
 * Reads the form of a valid identifier from the start of `size` bytes; returns the bytes used, 16
 * or 32, or 0.
 */
KEL_API size_t KelUIDDeserialize(KelUID* uid, const void* src, size_t size, int raw);
/**
 * Reads the form from a stream, which is then behind it.
 *
 * @param consumed  receives the bytes read, 16 or 32; may be null
 * @return `uid`; null with ENODATA when the stream ends too early, with its error when it cannot be
 *         read, and as KelUIDDeserialize() for what was read
 */
KEL_API KelUID* KelUIDInitFromFile(KelUID* uid, FILE* stream, int raw, size_t* consumed);
/** @} */

KEL_END_DECLS

#endif
