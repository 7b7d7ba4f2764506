/**
 * @file
 * The header of an archive stream: 14 bytes that name the format, say how the payload was
 * compressed and encrypted, and give the size of the buffer that a reader must provide.
 *
 * | Offset | Size | Field |
 * |---|---|---|
 * | 0 | 4 | "KEL " |
 * | 4 | 2 | flags, big-endian; 0 is never valid |
 * | 6 | 8 | block size in bytes, big-endian; in a stream with #KEL_MAGIC_V2 a multiple of 4096 |
 *
 * With #KEL_MAGIC_ENCRYPTED the key prefix of the cipher follows (8 bytes, or 16 for AES-256-CTR).
 * The cipher itself is not stored: writer and reader agree on it outside the stream.
 *
 * Every reading function returns a **decoded result**:
 *
 * - above 0: the flags of a valid header
 * - 0: not an archive (another magic), or an argument error
 * - -1: 14 bytes could not be had; `errno` tells why, ENODATA for a short file or buffer
 * - -2: the magic is right but the flags are 0; from kelMagicRead2() also a failed read or seek
 *
 * `blockSize` may be null; it is written only when the result is above 0. The block size is not
 * judged here: the stream reader does that.
 *
 * Thread-safe: no state, except in kelMagicDesc().
 */
#ifndef KEL_MAGIC_H
#define KEL_MAGIC_H

#include <kel/export.h>

#include <stdint.h>
#include <stdio.h>

/** Size of the header in bytes. */
#define KEL_MAGIC_SIZE 14

/** @name Flags that the stream writer sets.
 * @{ */
#define KEL_MAGIC_SIMPLE 0x0001    /**< neither compressed nor encrypted */
#define KEL_MAGIC_ENCRYPTED 0x0002 /**< with the cipher that both sides know */
#define KEL_MAGIC_DEFLATED 0x0010  /**< compressed with zlib */
#define KEL_MAGIC_LZO 0x0020       /**< compressed with LZO1X */
#define KEL_MAGIC_KEY_CHECK 0x0200 /**< every encrypted stream; Blowfish, CFB, OFB: check block */
#define KEL_MAGIC_KEY_256 0x1000   /**< every encrypted stream: the key has 256 bits */
#define KEL_MAGIC_V2 0x4000        /**< every stream: blocks and trailer of the second version */
/** @} */

/** @name Flags that are recognised but never written.
 * @{ */
#define KEL_MAGIC_PLUGIN_ENCRYPTED 0x0004
#define KEL_MAGIC_SKIPJACK 0x0008
#define KEL_MAGIC_CACHE 0x0040
#define KEL_MAGIC_PUBLIC_KEYS 0x0080
#define KEL_MAGIC_RSA 0x0100
#define KEL_MAGIC_STREAMABLE 0x0400
#define KEL_MAGIC_BLOCKLIST 0x0800
#define KEL_MAGIC_SPOOLER_LOG 0x2000
/** @} */

KEL_BEGIN_DECLS

/** @name Writing a header
 * Return #KEL_MAGIC_SIZE, or -1 unless all of it was written. Of `flags` the low 16 bits count. @{
 */
/** Into `buf`; -1 with `errno` EINVAL, not reported, when `buf` is null or `bufLen` too small. */
KEL_API int kelMagicMake(int flags, void* buf, int bufLen, uint64_t blockSize);
/** At the descriptor's current offset; errors of the write are reported by safe_write(). */
KEL_API int kelMagicWrite(int flags, int fd, uint64_t blockSize);
/** With one fwrite(3); errors are not reported. */
KEL_API int kelMagicFwrite(int flags, FILE* fp, uint64_t blockSize);
/** @} */

/** @name Reading a header
 * Return a decoded result. @{ */
/**
 * From the start of the file `path`, or from `buf` when `path` is null.
 *
 * A file that cannot be opened or read is not reported. Errors of the buffer, reported, give 0:
 * ENODATA when `len` is below #KEL_MAGIC_SIZE, EINVAL for a null `buf`.
 */
KEL_API int kelMagicDecode(const char* path, const void* buf, int len, uint64_t* blockSize);
/** From offset 0 of a seekable descriptor, which is left behind the header. EBADF (reported, 0) for
 * a descriptor below 1, standard input included. */
KEL_API int kelMagicRead(int fd, uint64_t* blockSize);
/**
 * From the current offset of a descriptor; with a non-zero `rewind` it is put back there.
 *
 * Errors, reported: EBADF (0) for a negative descriptor; a failed or short read, or a failed seek
 * (-2, `errno` from the call, unchanged by a short read).
 */
KEL_API int kelMagicRead2(int fd, uint64_t* blockSize, int rewind);
/** From offset 0 of a seekable stream. EBADF (reported, 0) for a null stream. */
KEL_API int kelMagicFread(FILE* fp, uint64_t* blockSize);
/** From the #KEL_MAGIC_SIZE bytes at `buf`. */
KEL_API int kelMagicFromBuffer(const void* buf, uint64_t* blockSize);
/** @} */

/**
 * Tells whether a header announces encryption or compression.
 *
 * @param len         bytes at `buf`
 * @param encrypted   1 or 0, written when the result is above 0; may be null
 * @param compressed  likewise
 * @return a decoded result; -1 also for the reported errors ENODATA (`len` below #KEL_MAGIC_SIZE)
 *         and EINVAL (null `buf`)
 */
KEL_API int kelMagicGetCryptSettings(const void* buf, unsigned len, int* encrypted,
                                     int* compressed);

/**
 * Describes a decoded result for tools and logs: "AES-256-CTR Encrypted archive 256bit key
 * LZO Compressed Streamable, v2". A result of -1 gives the text of the current `errno`.
 *
 * @param cipherType  0 Blowfish, 1 AES-256-CFB, 2 AES-256-OFB, 3 AES-256-CTR
 * @return a static text that the next call overwrites: one thread at a time
 */
KEL_API const char* kelMagicDesc(int result, unsigned char cipherType);

KEL_END_DECLS

#endif
