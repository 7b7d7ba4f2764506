/**
 * @file
 * Fingerprints: digests that name data by its contents.
 *
 * Two families, alike but for their size: `MD5` (16 bytes, RFC 1321) and `SHA256` (32 bytes), which
 * is **SHA-512/256** of FIPS 180-4, not SHA-256. A digest is a plain array of bytes of the
 * caller's, ordered as a big-endian number; its text form is lowercase hexadecimal, 32 or 64
 * characters, and is parsed in either case.
 *
 * MD5 is there to read existing data and is no protection against a forger. In the approved (FIPS)
 * mode of OpenSSL the `SHA256` family computes the same digests through the approved interface, and
 * the MD5 functions that compute warn and do nothing: their digests are then all zero.
 *
 * Errors are reported and set `errno` to EINVAL unless said otherwise; results are null or 0.
 * Functions that end in `_r` and the incremental ones are reentrant; those that return a static
 * buffer (MD5DigestToString(), MD5StringToDigest(), SHA256StringToDigest(), MD5GetString(),
 * MD5FromData(), SHA256FromData(), SHA256FromFile()) share it among all threads.
 *
 * @code
 * char text[65];
 * if (SHA256FromFile_r("/srv/a", text, sizeof text) != NULL) puts(text);
 * @endcode
 */
#ifndef KEL_DIGEST_H
#define KEL_DIGEST_H

#include <kel/export.h>

#include <openssl/md5.h>
#include <openssl/sha.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
struct evp_md_ctx_st; /* OpenSSL's EVP_MD_CTX */
#ifdef __cplusplus
}
#endif

KEL_BEGIN_DECLS

/** A running MD5; storage of the caller's, set up by MD5Initialize(). */
typedef struct MD5Context {
  MD5_CTX state;
  unsigned char digest[16]; /**< filled by MD5Finalize() */
} MD5Context;

/**
 * A running SHA-512/256; storage of the caller's, set up by SHA256Initialize(). Every context that
 * was initialised must be finalised: in approved mode it owns memory of OpenSSL's until then.
 */
typedef struct SHA256Context {
  unsigned char digest[32]; /**< filled by SHA256Finalize() */
  SHA512_CTX state;
  struct evp_md_ctx_st* approved; /**< used instead of `state` in approved mode, else null */
} SHA256Context;

/** @name Empty input
 * The digest of zero bytes, and whether a digest or a text (in any case) is that. @{ */
extern KEL_API const unsigned char md5_empty_digest[16];
extern KEL_API const unsigned char sha256_empty_digest[32];
KEL_API const unsigned char* MD5EmptyDigest(void);
KEL_API const unsigned char* SHA256EmptyDigest(void);
KEL_API int MD5IsEmptyDigest(const unsigned char* digest);
KEL_API int SHA256IsEmptyDigest(const unsigned char* digest);
KEL_API int MD5IsEmptyFP(const char* text);
KEL_API int SHA256IsEmptyFP(const char* text);
/** @} */

/** @name Order and arithmetic
 * For key ranges: the least and the greatest digest, and steps by one, which wrap around. Return
 * `digest`. @{ */
KEL_API unsigned char* MD5DigestInitMinimum(unsigned char* digest);
KEL_API unsigned char* SHA256DigestInitMinimum(unsigned char* digest);
KEL_API unsigned char* MD5DigestInitMaximum(unsigned char* digest);
KEL_API unsigned char* SHA256DigestInitMaximum(unsigned char* digest);
KEL_API unsigned char* MD5DigestIncrement(unsigned char* digest);
KEL_API unsigned char* SHA256DigestIncrement(unsigned char* digest);
KEL_API unsigned char* MD5DigestDecrement(unsigned char* digest);
KEL_API unsigned char* SHA256DigestDecrement(unsigned char* digest);
/** @} */

/** @name Hash
 * The first four bytes as a big-endian number: a ready hash for tables. @{ */
KEL_API uint32_t MD5DigestHash32(const unsigned char* digest);
KEL_API uint32_t SHA256DigestHash32(const unsigned char* digest);
/** @} */

/** @name Raw and text form
 * `raw` non-zero chooses the bytes as they are, zero the hexadecimal text. @{ */
/** Bytes of the form: 16 or 32, 32 or 64. */
KEL_API size_t MD5DigestSerializedSize(int raw);
KEL_API size_t SHA256DigestSerializedSize(int raw);
/**
 * Writes the form and returns its size, which `size` must reach. Text is terminated only when
 * `size` is larger.
 */
KEL_API size_t MD5DigestSerialize(void* buf, size_t size, const unsigned char* digest, int raw);
KEL_API size_t SHA256DigestSerialize(void* buf, size_t size, const unsigned char* digest, int raw);
/** Reads the form from `size` bytes and returns the bytes used; `digest` is unchanged on failure.
 */
KEL_API size_t MD5DigestDeserialize(unsigned char* digest, const void* src, size_t size, int raw);
KEL_API size_t SHA256DigestDeserialize(unsigned char* digest, const void* src, size_t size,
                                       int raw);
/** Terminated text in `buf`, which holds 33 or 65 bytes; returns `buf`. */
KEL_API char* MD5DigestToString_r(const unsigned char* digest, char* buf, size_t size);
KEL_API char* SHA256DigestToString_r(const unsigned char* digest, char* buf, size_t size);
/** As MD5DigestToString_r(), into a static buffer. */
KEL_API char* MD5DigestToString(const unsigned char* digest);
/** Parses the first 32 or 64 characters of `text`; returns `digest`, which is unchanged on failure.
 */
KEL_API unsigned char* MD5StringToDigest_r(const char* text, unsigned char* digest);
KEL_API unsigned char* SHA256StringToDigest_r(const char* text, unsigned char* digest);
/** As the `_r` forms, into a static buffer. */
KEL_API unsigned char* MD5StringToDigest(const char* text);
KEL_API unsigned char* SHA256StringToDigest(const char* text);
/** Returns only for exactly 32 or 64 characters of [0-9a-f]; else reports and ends the process. */
KEL_API void MD5ValidateAndExitOnError(const char* text);
KEL_API void SHA256ValidateAndExitOnError(const char* text);
/** @} */

/** @name In steps
 * Initialise, append any number of times, finalise; then the context's `digest` is set. @{ */
KEL_API void MD5Initialize(MD5Context* context);
KEL_API void MD5Append(MD5Context* context, const void* data, uint32_t length);
KEL_API void MD5Finalize(MD5Context* context);
KEL_API void SHA256Initialize(SHA256Context* context);
KEL_API void SHA256Append(SHA256Context* context, const void* data, size_t length);
KEL_API void SHA256Finalize(SHA256Context* context);
/** Text of a finalised context's digest in `buf`, which holds 33 or 65 bytes; returns `buf`. */
KEL_API char* MD5GetString_r(const MD5Context* context, char* buf, size_t size);
KEL_API char* SHA256GetString_r(const SHA256Context* context, char* buf, size_t size);
/** As MD5GetString_r(), into a static buffer. */
KEL_API char* MD5GetString(const MD5Context* context);
/** @} */

/** @name At once
 * `data` may be null when `length` is 0. The `_r` forms need 33 or 65 bytes and return `buf`. @{ */
KEL_API char* MD5FromData(const void* data, size_t length);
KEL_API char* MD5FromData_r(const void* data, size_t length, char* buf, size_t size);
/** The 16 bytes of the digest into `digest`, which is returned. */
KEL_API unsigned char* MD5DigestFromData_r(const void* data, size_t length, unsigned char* digest);
KEL_API char* SHA256FromData(const void* data, size_t length);
KEL_API char* SHA256FromData_r(const void* data, size_t length, char* buf, size_t size);
/** Of a file's contents; null with the `errno` of the failed open or read. */
KEL_API char* SHA256FromFile(const char* path);
KEL_API char* SHA256FromFile_r(const char* path, char* buf, size_t size);
/** @} */

KEL_END_DECLS

#endif
