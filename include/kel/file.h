/**
 * @file
 * Whole files: copy, move, compare, load, name a new one, ask for the size.
 *
 * A copy never overwrites anything and leaves nothing behind when it fails; when it succeeds, its
 * data are on stable storage. On the way it can compress or uncompress (gzip, RFC 1952) and take
 * the MD5 digest and the Adler-32 checksum of the data it reads, of the uncompressed data in each
 * case.
 *
 * Options, last digest and last checksum belong to the process: set the options, copy, then ask.
 * Any thread may do so at any time, but clients that copy with different options at once, or want
 * the digest of their own copy, must take turns. Everything else has no state.
 *
 * Failures are reported and set `errno`; a file that cannot be opened for reading is reported first
 * under the name "__openReader" (as a warning when it does not exist), with EISDIR for a directory.
 *
 * @code
 * char text[33];
 * FileSetOptions(KEL_FILE_COMPRESS | KEL_FILE_MD5);
 * if (FileCopy("/srv/data", "/srv/data.gz", 0640) >= 0) puts(FileGetStringMD5(text, sizeof text));
 * @endcode
 */
#ifndef KEL_FILE_H
#define KEL_FILE_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/** @name Options of a copy
 * One of plain, compress and uncompress, with any of the two sums; the sums alone go with a plain
 * copy and stand without its bit. So 1, 2, 4, 6, 16, 18, 20, 22, 32, 34, 36 and 38 can be used. @{
 */
#define KEL_FILE_PLAIN 1
#define KEL_FILE_MD5 2
#define KEL_FILE_CRC 4
#define KEL_FILE_COMPRESS 16
#define KEL_FILE_UNCOMPRESS 32
/** @} */

KEL_BEGIN_DECLS

/** @name Copies
 * @{ */
/**
 * Sets the options of the copies that begin from now on; at first they are #KEL_FILE_PLAIN.
 *
 * @return 1; 0 with EINVAL, and nothing changed, for both #KEL_FILE_COMPRESS and
 *         #KEL_FILE_UNCOMPRESS. Other values that no copy accepts are found out by the copy.
 */
KEL_API int FileSetOptions(int options);

/**
 * Copies `src` to `dst`, which must not exist.
 *
 * An uncompressing copy takes a source that is no gzip file as it is. A plain copy may let the
 * kernel move the data. In the approved (FIPS) mode the MD5 functions warn for every block of 32
 * KiB and the last digest stays as it was.
 *
 * @param mode  permissions of the new file, less the umask; 0 means 0644
 * @return the bytes read and written, uncompressed; -1 with no `dst` left behind: EEXIST when there
 *         was one (it is untouched), EINVAL for options that cannot be used, EIO for gzip data that
 *         are damaged or end too soon, else as the system calls
 */
KEL_API ssize_t FileCopy(const char* src, const char* dst, unsigned int mode);

/**
 * Writes the MD5 digest of the last copy that succeeded with #KEL_FILE_MD5, as 32 lowercase
 * hexadecimal digits; zeros when there was none.
 *
 * @return `out`; null with EINVAL when it is null or `outlen` is below 33
 */
KEL_API char* FileGetStringMD5(char* out, size_t outlen);
/** The Adler-32 checksum of the last copy that succeeded with #KEL_FILE_CRC; 0 when there was none.
 */
KEL_API uint32_t FileGetValueCRC(void);
/** @} */

/** @name Moves
 * @{ */
/**
 * Renames `src` to `dst`; where that fails, removes an existing `dst` and tries again, and at last
 * copies (FileCopy() with the options that are set, and `mode`) and removes `src`.
 *
 * `dst` is removed only while `src` exists and is not the same directory entry, as can be between
 * two mounts of one file system: then nothing is done, and done well. The directory of the copy is
 * flushed before `src` goes.
 *
 * @return 1 moved; 0 failed: `src` is still there, `dst` may have been removed
 */
KEL_API int FileMove(const char* src, const char* dst, unsigned int mode);
/** As FileMove(), up to six times, a second apart. Every attempt that fails is reported. */
KEL_API int FileMoveWithRetry(const char* src, const char* dst, unsigned int mode);
/** rename(2). */
KEL_API int acsrename(const char* src, const char* dst);
/** @} */

/**
 * Tells whether two files hold the same, by the Adler-32 checksums of their contents so far after
 * every block of 32 KiB. It is quick and no proof: different blocks with equal checksums count as
 * equal.
 *
 * @param mode  not read
 * @return 0 for equal; -1 with `errno` 0 when the sizes differ, -1 with another `errno` after an
 *         error; else a positive number: the bytes read up to the end of the block that differs,
 *         plus the number of bytes at the start of that block that are the same in both
 */
KEL_API ssize_t FileCompare(const char* path1, const char* path2, unsigned int mode);

/** @name Into memory
 * `size` (or `*len`) is the number of bytes wanted from the start of the file, 0 for all of them. A
 * shorter file gives what it has. @{ */
/**
 * Reads into the caller's buffer, or into a new one.
 *
 * @param buf      the buffer; with `*bufsize` 0 it receives a new one, for free(3)
 * @param bufsize  capacity of `*buf`; with 0 it becomes that of the new buffer
 * @return the bytes read; -1: EINVAL for a null `buf` or `bufsize`, ENOMEM when the buffer is too
 *         small or cannot be had, ESPIPE for all of something that has no end. A read error in a
 *         caller's buffer is not reported; a new buffer is freed, with `*buf` null and `*bufsize`
 * 0.
 */
KEL_API ssize_t FileLoadToBuffer(const char* path, size_t size, void** buf, size_t* bufsize);
/**
 * Reads into a new buffer, for free(3). `len` may be null: all is read.
 *
 * @return the buffer, with the bytes read in `*len`; null after an error
 */
KEL_API void* FileToBuffer(const char* path, size_t* len);
/** As FileToBuffer(), with a terminator behind the data, which `*len` does not count. */
KEL_API char* FileToText(const char* path, size_t* len);
/** @} */

/**
 * Makes up a name "DIR/SECONDS.tmp" or "DIR/SECONDSn.tmp" (n from 0 to 97) that no file has. None
 * is created: another caller may get the same name within the second; create it with O_EXCL.
 *
 * @param dir  null or empty: "/tmp". Where files cannot be made there, the working directory is
 *             taken instead.
 * @return the name, for free(3); null: the error of access(2) when neither directory will do,
 * EEXIST (not reported) when all names are taken, ENOMEM
 */
KEL_API char* FileTemp(const char* dir);

/** Writes the size of a file to `*size`. 0, or -1: EINVAL for a null argument, else as stat(2). */
KEL_API int FileSizeGet(const char* path, uint64_t* size);
/** 1 for a file of more than 2,000,000,000 bytes, 0 for others, -1 with the `errno` of stat(2). */
KEL_API int is_big(const char* path);

KEL_END_DECLS

#endif
