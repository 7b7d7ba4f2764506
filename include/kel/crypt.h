/**
 * @file
 * Archive streams: data that are compressed (zlib or LZO1X) and encrypted as the writer wishes, in
 * a form that says itself how to read it, key and cipher type apart.
 *
 * The interface follows zlib's: the caller owns a ::c_stream_t, points it at input and output and
 * calls dcpEncrypt() or dcpDecrypt() until it returns 1. Any sizes of output windows, and for the
 * reader any sizes of input, give the same bytes. One call does it all for data in one buffer:
 * dcpEncryptDataToBuffer(), dcpDecryptDataToBuffer(), dcpDecryptData().
 *
 * Streams are not authenticated: a reader finds damage that breaks the format, the compression or
 * the length, and with the cipher types 0 to 2 a wrong key; it cannot find bytes that were
 * exchanged. Whatever the input, it is safe to read: memory stays bounded by 64 KiB, zlib's window
 * and, for LZO, what arrived and what that can really expand to.
 *
 * Results are codes (see dcpCryptError()), reports are few: the one-call functions, allocations of
 * an init, an unknown algorithm or cipher type. Nothing throws. One thread at a time uses a stream.
 *
 * @code
 * c_stream_t c = {};
 * int code = dcpEncryptInit(&c, 0, key, 3);  // LZO and AES-256-CTR
 * c.next_in = data;
 * c.avail_in = length;
 * while (code == 0) {
 *   c.next_out = window;
 *   c.avail_out = sizeof window;
 *   code = dcpEncrypt(&c);
 *   if (code >= 0) fwrite(window, 1, sizeof window - c.avail_out, file);
 * }
 * dcpEncryptEnd(&c);
 * @endcode
 */
#ifndef KEL_CRYPT_H
#define KEL_CRYPT_H

#include <kel/cipher.h>
#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>

/** @name Flags of dcpEncryptInit(); 0: LZO and encryption.
 * @{ */
#define KEL_CRYPT_NO_COMPRESSION 0x2
#define KEL_CRYPT_NO_ENCRYPTION 0x4
#define KEL_CRYPT_ZLIB 0x40 /**< zlib instead of LZO, when `zalgorithm` is 0 */
/** @} */

/** @name Values of c_stream_t::zalgorithm.
 * @{ */
#define KEL_CRYPT_ALGORITHM_LZO 1
#define KEL_CRYPT_ALGORITHM_ZLIB 2
/** @} */

/** A stream of either direction; all zero before its init function. */
typedef struct c_stream_t {
  const unsigned char* next_in; /**< next input byte */
  unsigned int avail_in;        /**< input bytes at next_in */
  uint64_t total_in;            /**< input bytes consumed */
  unsigned char* next_out;      /**< where the next output byte goes */
  unsigned int avail_out;       /**< room at next_out */
  uint64_t total_out;           /**< output bytes produced */
  uint64_t saved_last;  /**< writer: bytes the last compression step saved, 0 when it grew */
  uint64_t saved_total; /**< writer: sum of saved_last */
  void* state;          /**< private; null when not initialised */
  uint16_t zlevel;     /**< compression level: LZO 6 to 16 (dictionary bits, default 14; 1 to 5 mean
                            the default), zlib 1 to 10 (zlib's level plus 1, default 6); 0: default */
  uint16_t zwindow;    /**< block buffer of 2^zwindow bytes, 12 to 31; 0: 17 */
  uint16_t zalgorithm; /**< 0: by the init flags, which stores 1 (LZO) or 2 (zlib) here */
} c_stream_t;

KEL_BEGIN_DECLS

/**
 * The text of a result code. One static buffer holds the text of unknown codes, so that those are
 * for one thread at a time.
 *
 * | Code | Meaning |
 * |------|---------|
 * | 1    | stream complete |
 * | 0    | call again with more output room or input |
 * | -1   | system error, named by `errno` |
 * | -2   | bad argument or state |
 * | -3   | data error: bad header, damaged or cut-off stream, input too large for LZO |
 * | -4   | out of memory |
 * | -5   | no progress possible: no output room, or input after the end |
 * | -6   | zlib version mismatch |
 * | -31  | invalid or missing key |
 *
 * After any negative code but -5, and -2 for a bad argument, a stream can only be ended or reset.
 */
KEL_API const char* dcpCryptError(int code);

/**
 * Writes on: takes input and gives output until one of them runs out. The stream ends, with its
 * trailer, as soon as all input that was given is consumed, so the first call must have all of it
 * (up to 4 GiB - 1; up to 2 GiB - 1 with LZO). Empty input makes a stream without blocks.
 *
 * @return 1 when everything is out, 0 when output room ran out, or a negative code: -2 for a null
 *         `next_out`, or null `next_in` with input; -3 for 2^31 bytes or more with LZO, or no
 * memory for its block; -5 without output room, or with input after the trailer
 */
KEL_API int dcpEncrypt(c_stream_t* c);
/** Frees the writer's state, wipes its key material and clears the settings; 0, or -2 without a
 * state. Writes nothing. */
KEL_API int dcpEncryptEnd(c_stream_t* c);

/**
 * Sets when LZO leaves data uncompressed: samples of `sampleRatio` thousandths at the start and the
 * end, if they have at least `lowerBound` bytes, must both stay above `ratio` percent of their
 * size. Default: 95, 10, 1024. A ratio of 100 or more samples nothing. The first call of the
 * process counts, later ones are ignored; to be made before streams run.
 */
KEL_API void adaptive_compression_init(unsigned ratio, unsigned sampleRatio, unsigned lowerBound);
/** Initialises the LZO library once per process, as LZO streams do themselves; 0, or -3. */
KEL_API int lzo_compression_init(void);

/**
 * Reads on: takes input and gives output until one of them runs out or the stream ends. Input after
 * the trailer is left where it is.
 *
 * Input that is no archive, or names no mode, goes to the output as it is, header included; it is
 * complete when all of it is delivered and `flush` is 1. Fewer than 14 bytes are no archive and no
 * such input either, but an error.
 *
 * When the trailer's total is below what the blocks hold, the output is cut: `total_out` is set to
 * the total, and `next_out` goes back as far as this call's output allows. Who stored earlier
 * output elsewhere cuts it at `total_out`.
 *
 * @param flush  1 when there is no input beyond what is given, so that a stream that ends early is
 *               found (-3); else 0
 * @return 1 when the trailer was reached and all output delivered, 0 when more input or output room
 *         is needed, or a negative code: -2 also for any other `flush`; -5 when nothing can be done
 *         without output room; -31 for a wrong key
 */
KEL_API int dcpDecrypt(c_stream_t* c, int flush);
/** Frees the reader's state, wipes its key material and clears the settings; 0, or -2 without a
 * state. */
KEL_API int dcpDecryptEnd(c_stream_t* c);

/**
 * The data key of a seed: 64 lowercase hexadecimal digits that are the same in every process.
 *
 * The SHA-512/256 text of HMAC-SHA256 over two built-in constants; a seed that is neither null nor
 * empty gives a key of its own, HMAC-SHA256 of the seed under that first HMAC taking its place.
 *
 * @param dataKey  receives the first `len` characters of the text, and a terminator when there is
 * room for one (`len` above 64)
 * @return 0, or -1 (EINVAL, reported) for a null `dataKey` or a `len` of 0
 */
KEL_API int dcpGetDecrptKeyFromSeed(char* dataKey, size_t len, const char* seed);
/**
 * Encrypts a text with AES-256-CTR under the data key without a seed (its first 32 characters).
 *
 * @param encodeText  receives lowercase hexadecimal text and a terminator: 16 random bytes of IV,
 * then one byte for each of the text
 * @param len         capacity, at least 2 * (16 + strlen(plainText)) + 1
 * @return 0, or -1 after a report: EINVAL for a null pointer, ENOBUFS for too small a `len`
 */
KEL_API int dcpEncodeText(const char* plainText, char* encodeText, size_t len);

KEL_END_DECLS

#ifdef __cplusplus

/**
 * Starts a writer: settings are checked, memory is allocated, header and key prefix wait for
 * output.
 *
 * @param c      zero but for zlevel, zwindow and zalgorithm
 * @param flags  KEL_CRYPT_ flags
 * @return 0; -2 for a bad level, window or (reported) cipher type; -3 (reported) for a bad
 *         algorithm; -4 (reported, but for zlib's own) without memory; -1 (reported) when OpenSSL
 *         fails. After -2 and -3 dcpEncryptEnd() is still due, else the state is null.
 */
KEL_API int dcpEncryptInit(c_stream_t* c, unsigned long flags, const KelKey& key,
                           unsigned char cipherType);
/** Starts another stream on the memory and settings of this one; 0, or a code as from the init
 * function, -2 also without a state. */
KEL_API int dcpEncryptReset(c_stream_t* c, const KelKey& key, unsigned char cipherType);
/**
 * Writes the stream of one buffer into another.
 *
 * @param inLen   1 to 2^32 - 1
 * @param outLen  at least inLen * 1.05 + 100
 * @return bytes written, or -1: EINVAL (a warning) for null or zero arguments, ENOBUFS without a
 *         message when `outLen` is below its least, else a report with the code
 */
KEL_API long dcpEncryptDataToBuffer(const KelKey& key, unsigned char cipherType,
                                    const unsigned char* in, unsigned long inLen,
                                    unsigned char* out, unsigned long outLen, unsigned long flags);

/** Starts a reader; the stream's header is read by dcpDecrypt(). 0; -2 for a bad cipher type
 * (reported); -4 without memory. The state is null after a failure. */
KEL_API int dcpDecryptInit(c_stream_t* c, const KelKey& key, unsigned char cipherType);
/** Readies a reader for another stream, whatever became of the last; 0, or a code as from the init
 * function, -2 also without a state. */
KEL_API int dcpDecryptReset(c_stream_t* c, const KelKey& key, unsigned char cipherType);
/**
 * Reads the stream in one buffer into another. A plain stream (header flags 0x4001) is copied block
 * by block: what it holds is the result even when it is cut off.
 *
 * @return bytes written, or -1: EINVAL (a warning) for null or zero arguments, ENOBUFS for too
 * small an `outLen`, else a report with the code
 */
KEL_API long dcpDecryptDataToBuffer(const KelKey& key, unsigned char cipherType, unsigned char* in,
                                    unsigned inLen, unsigned char* out, unsigned outLen);
/**
 * Reads the stream in one buffer into a new one, which the caller releases with free(3).
 *
 * @param len          in: input bytes; out: output bytes, unchanged on failure
 * @param reserved     ignored
 * @param initialSize  guess of the output's size; 0: from the input's
 * @return null after a report; EINVAL (a warning) for a null `in` or `len`
 */
KEL_API unsigned char* dcpDecryptData(const KelKey& key, unsigned char cipherType,
                                      const unsigned char* in, unsigned* len, unsigned* reserved,
                                      unsigned initialSize);

#endif
#endif
