/**
 * @file
 * Whole transfers and durable renames.
 *
 * POSIX lets a transfer stop early and a signal interrupt it. The `safe_` functions and the socket
 * pair move a whole buffer or say why not: they go on after a short transfer, retry after a signal
 * without limit, stop with a short count at end of file, and fail on any other error. A failure in
 * the middle does not say how much was moved: treat the file or connection as broken.
 *
 * A file is in place for good when its data were flushed (safe_fsync()), it was renamed, and the
 * directory that holds it was flushed too (rename_dirfsync()).
 *
 * Failures return -1 (or what the function says) with `errno` set; reporting never changes it.
 * Thread-safe: no state. Streams must not be null.
 *
 * @code
 * if (safe_write(fd, data, size) != (ssize_t)size || safe_fsync(fd) != 0 ||
 *     rename_dirfsync("/repo/index.tmp", "/repo/index", "/repo", false) != 0)
 *   return -1;
 * @endcode
 */
#ifndef KEL_SAFEIO_H
#define KEL_SAFEIO_H

#include <kel/export.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>

KEL_BEGIN_DECLS

/** @name Descriptors: whole buffers
 * Return the bytes moved, or -1. Fewer than `count` means end of file for reads, and a device that
 * accepted nothing for writes. `count` 0 returns 0 without a system call. The positional forms
 * leave the file position alone.
 *
 * Errors: EINVAL for a null `buf` with a `count`, or a `count` above the largest signed 64-bit
 * value (reported, except by safe_pwrite()); else those of the system call, which only safe_write()
 * reports. @{ */
KEL_API ssize_t safe_read(int fd, void* buf, size_t count);
KEL_API ssize_t safe_write(int fd, const void* buf, size_t count);
KEL_API ssize_t safe_pread(int fd, void* buf, size_t count, off_t offset);
KEL_API ssize_t safe_pwrite(int fd, const void* buf, size_t count, off_t offset);
/** @} */

/** @name Descriptors: the system call, repeated while a signal interrupts it.
 * @{ */
KEL_API int safe_fsync(int fd);
KEL_API int safe_fdatasync(int fd);
KEL_API int safe_ftruncate(int fd, off_t length);
/** @} */

/** @name Streams: whole buffers
 * Return the bytes moved, or (size_t)-1. A count below `count` means that the stream's end-of-file
 * indicator is set.
 *
 * A failure is reported twice: first what failed (EBADF and "invalid stream" when the stream has no
 * open descriptor, else the error of the C function), then that text with the error's own. @{ */
KEL_API size_t safe_fread(FILE* fp, void* buf, size_t count);
KEL_API size_t safe_fwrite(FILE* fp, const void* buf, size_t count);
/** @} */

/** @name Streams: flushing
 * The `sync` forms flush the stream, then its descriptor to stable storage, and return 0 or -1; the
 * `safe_` forms start again from the stream when a signal interrupted either step. @{ */
/** fflush(3); after a signal, clears `errno` and the stream's indicators and tries again. */
KEL_API int safe_fflush(FILE* fp);
/** After a signal, clears `errno` and the stream's indicators. */
KEL_API int safe_ffsync(FILE* fp);
/** After a signal, leaves `errno` and the stream's indicators alone. */
KEL_API int safe_ffdatasync(FILE* fp);
KEL_API int ffsync(FILE* fp);
KEL_API int ffdatasync(FILE* fp);
/** @} */

/** fclose(3). */
KEL_API int safe_fclose(FILE* fp);
/** ftruncate(2) of the stream's descriptor, once and without a flush before; -1 when it has none.
 */
KEL_API int fftruncate(FILE* fp, off_t length);

/**
 * Reads a run of ASCII digits. The first other character stays in the stream, as does what exceeds
 * `bufsize` digits.
 *
 * @param buf      receives the digits, at most `bufsize` of them, **not** terminated
 * @param len      receives their number; may be null
 * @return `buf`, or null with `errno` EIO after a read error
 */
KEL_API char* fread_uint(FILE* fp, char* buf, size_t bufsize, size_t* len);

/** @name Sockets: whole buffers
 * Return `n` when everything was moved, less when the other side takes or gives no more, -1 on an
 * error; 0 for an `n` of 0 or less. Sending to a closed connection raises SIGPIPE unless the
 * program ignores it. On a non-blocking socket EAGAIN is an error like any other. @{ */
/** Errors are not reported. */
KEL_API int write_n_bytes(int sock, const void* buf, int n);
/** When the peer closed and `errno` was 0, `errno` is ECONNRESET afterwards. Errors are reported.
 */
KEL_API int read_n_bytes(int sock, void* buf, int n);
/** @} */

/** rename(2) without a flush. Null and empty paths are reported (EINVAL), its own failure is not.
 */
KEL_API int safe_rename(const char* src_path, const char* dst_path);

/** @name Durable directory changes
 * Return 0 or -1. `dir` is the directory to flush, normally the one that holds the entry; it is not
 * derived from the path. With `quiet` nothing is reported. When the rename or unlink succeeded and
 * the flush failed, the result is -1 and the entry has changed nevertheless. @{ */
KEL_API int dirfsync(const char* dir, bool quiet);
KEL_API int rename_dirfsync(const char* src, const char* dst, const char* dir, bool quiet);
KEL_API int unlink_dirfsync(const char* path, const char* dir, bool quiet);
/** @} */

/** @name The C library's functions under the library's names: no retry, no report.
 * @{ */
KEL_API FILE* kel_fopen(const char* path, const char* mode);
/** fopen(3) with the first three characters of `mode` that are left when every 'i' and "i-" is
 * dropped: "rbi" opens with "rb", "wi-b" with "wb". */
KEL_API FILE* kel_fopenEx(const char* path, const char* mode);
KEL_API int kel_unlink(const char* path);
KEL_API int kel_rmdir(const char* path);
KEL_API int kel_stat(const char* path, struct stat* status);
KEL_API int kel_access(const char* path, int mode);
/** atol(3). */
KEL_API int64_t kel_strtoi(const char* str);
/** Another name of kel_strtoi(). */
KEL_API int64_t kel_atoi(const char* str);
KEL_API long kel_strtol(const char* str, char** endptr, int base);
/** @} */

KEL_END_DECLS

#endif
