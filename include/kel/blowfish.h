/**
 * @file
 * Blowfish (B. Schneier, 1993): 64-bit blocks, 16 rounds, keys of 1 to 72 bytes; electronic
 * codebook and cipher block chaining over buffers of any length.
 *
 * An input whose length is no multiple of 8 is filled up with zero bytes; nothing in the output
 * tells how many, so the caller keeps the true length. Blocks and keys are read big-endian.
 *
 * A context is plain storage of the caller, for one key and one direction; nothing is allocated. It
 * holds secrets: wipe it after use. One thread at a time uses a context; different contexts are
 * independent.
 *
 * New designs should not choose a cipher with 64-bit blocks; this one reads and writes existing
 * data.
 */
#ifndef KEL_BLOWFISH_H
#define KEL_BLOWFISH_H

#include <kel/export.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

KEL_BEGIN_DECLS

/** Key schedule, mode and chain of one key and direction. */
typedef struct BlowfishContext {
  uint32_t P[18];         /**< subkeys */
  uint32_t S[4][256];     /**< S-boxes */
  uint32_t mode;          /**< 0 ECB, 1 CBC encryption, 2 CBC decryption */
  unsigned char chain[8]; /**< last ciphertext block of a CBC chain; zero at its start */
} BlowfishContext;

/** -5 after a failed BlowfishTest(); nothing else writes it. */
extern KEL_API int bf_errno;

/**
 * Runs the key schedule and sets ECB mode. The key is repeated until 72 bytes are used; what is
 * beyond them has no effect.
 *
 * @param length  bytes of `key`, at least 1
 * @return true
 */
KEL_API bool BlowfishInit(BlowfishContext* context, const unsigned char* key, size_t length);
/**
 * Runs the key schedule and starts a CBC chain from eight zero bytes.
 *
 * @param direction  1 to decrypt, anything else to encrypt
 * @return true, or false (reported) when the key schedule failed
 */
KEL_API bool BlowfishInitCBC(BlowfishContext* context, const unsigned char* key, size_t length,
                             long direction);

/** @name By the context's mode
 * Process `length` bytes at `in` into `out`, which holds BlowfishGetOutputLength(`length`) bytes
 * and is either `in` itself or apart from it. Successive CBC calls form one chain as long as every
 * call but the last has a multiple of 8.
 *
 * Return the bytes written (the length rounded up to a multiple of 8; `length` is at most
 * 2,147,483,640), or -1 with `errno` EINVAL, reported, for a null context or a mode that is not of
 * that direction. @{ */
KEL_API int BlowfishEncode(BlowfishContext* context, const void* in, void* out, uint32_t length);
KEL_API int BlowfishDecode(BlowfishContext* context, const void* in, void* out, uint32_t length);
/** @} */

/** @name By name, without a check of the mode
 * As above; the arguments must be valid. @{ */
KEL_API int BlowfishEncodeECB(BlowfishContext* context, const void* in, void* out, uint32_t length);
KEL_API int BlowfishDecodeECB(BlowfishContext* context, const void* in, void* out, uint32_t length);
KEL_API int BlowfishEncodeCBC(BlowfishContext* context, const void* in, void* out, uint32_t length);
KEL_API int BlowfishDecodeCBC(BlowfishContext* context, const void* in, void* out, uint32_t length);
/** @} */

/** `length` rounded up to a multiple of 8. */
KEL_API long BlowfishGetOutputLength(long length);

/** Known answers and round trips in both modes, in a scratch `context`: 1, or 0 with #bf_errno -5.
 */
KEL_API int BlowfishTest(BlowfishContext* context);

KEL_END_DECLS

#endif
