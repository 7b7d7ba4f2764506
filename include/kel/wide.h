/**
 * @file
 * System calls for wide paths.
 *
 * The system knows paths as bytes in the locale's encoding (LC_CTYPE, as setlocale() left it).
 * Each function here turns its wide arguments into those, makes the call of the same name without
 * `wcs`, and gives its result and `errno` back as they are, without a report. A path that has no
 * multibyte form fails like the call (-1 or null), with EILSEQ, and a report under the function's
 * name: "could not convert to multi-byte". ENOMEM is possible for paths whose encoded form has
 * 4,095 bytes or more; shorter ones need no heap. A null path goes to the system as it is (EFAULT),
 * where the manual page allows that at all.
 *
 * Thread-safe, as far as the calls are; a directory stream serves one thread at a time.
 *
 * @code
 * setlocale(LC_CTYPE, "");
 * if (wcsmkdir(L"/srv/größe", 0755) != 0 && errno != EEXIST) return -1;
 * @endcode
 */
#ifndef KEL_WIDE_H
#define KEL_WIDE_H

#include <kel/export.h>

#include <stddef.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/types.h>
#include <utime.h>
#include <wchar.h>

/** Characters in the longest name of a directory entry, terminator included. */
#define WCS_NAME_SIZE 256

KEL_BEGIN_DECLS

/** A directory stream that gives wide names. */
typedef struct wcsDIR wcsDIR;

/** An entry of a directory stream. */
typedef struct wcsdirent {
  ino_t d_ino;                   /**< inode */
  unsigned char d_type;          /**< DT_REG, DT_DIR ... or DT_UNKNOWN, see readdir(3) */
  wchar_t d_name[WCS_NAME_SIZE]; /**< name */
} wcsdirent;

/** @name Directories and the working directory
 * @{ */
KEL_API int wcsmkdir(const wchar_t* path, mode_t mode);
KEL_API int wcsrmdir(const wchar_t* path);
KEL_API int wcschdir(const wchar_t* path);
/**
 * The working directory, of at most 4,095 bytes, into `buf` of `len` characters; with a null `buf`
 * a new string, which wcsfree() releases, and `len` is not looked at.
 *
 * Failures are all reported: those of getcwd(3), EILSEQ without a wide form, ENOBUFS when it does
 * not fit, ENOMEM.
 */
KEL_API wchar_t* wcsgetcwd(wchar_t* buf, size_t len);
/** @} */

/** @name Directory streams
 * A null stream fails with EINVAL ("invalid NULL parameter"). @{ */
/** A new stream, to be closed with wcsclosedir(); null on failure. */
KEL_API wcsDIR* wcsopendir(const wchar_t* path);
/**
 * The next entry, which belongs to the stream and lasts until the next call. Null at the end, with
 * `errno` unchanged; null with `errno` set when reading failed, and, reported, for a name without a
 * wide form of fewer than 256 characters (EILSEQ, ENAMETOOLONG): then the next call goes on behind
 * it. So set `errno` to 0 before.
 */
KEL_API wcsdirent* wcsreaddir(wcsDIR* stream);
/** As wcsreaddir() into `entry`: 0 with `*result` being `entry`, or null at the end; -1 with null
 * after a failure, which is always reported. */
KEL_API int wcsreaddir_r(wcsDIR* stream, wcsdirent* entry, wcsdirent** result);
KEL_API void wcsrewinddir(wcsDIR* stream);
KEL_API int wcsclosedir(wcsDIR* stream);
KEL_API int wcsdirfd(wcsDIR* stream);
/** @} */

/** @name Opening and making
 * @{ */
KEL_API int wcsopen(const wchar_t* path, int flags, mode_t mode);
KEL_API int wcscreat(const wchar_t* path, mode_t mode);
/** Null arguments fail with EINVAL, reported; so do those of wcspopen(). */
KEL_API FILE* wcsfopen(const wchar_t* path, const wchar_t* mode);
KEL_API int wcsmkfifo(const wchar_t* path, mode_t mode);
KEL_API int wcsmknod(const wchar_t* path, mode_t mode, dev_t dev);
/** @} */

/** @name Commands for the shell
 * The command is text in the locale's encoding like a path. @{ */
KEL_API int wcssystem(const wchar_t* command);
/** To be closed with pclose(3). */
KEL_API FILE* wcspopen(const wchar_t* command, const wchar_t* mode);
/** @} */

/** @name Status
 * @{ */
KEL_API int wcsaccess(const wchar_t* path, int mode);
KEL_API int wcsstat(const wchar_t* path, struct stat* status);
KEL_API int wcslstat(const wchar_t* path, struct stat* status);
KEL_API int wcsstatvfs(const wchar_t* path, struct statvfs* status);
/** @} */

/** @name Names and links
 * @{ */
KEL_API int wcsrename(const wchar_t* from, const wchar_t* to);
KEL_API int wcsremove(const wchar_t* path);
KEL_API int wcsunlink(const wchar_t* path);
KEL_API int wcslink(const wchar_t* target, const wchar_t* path);
KEL_API int wcssymlink(const wchar_t* target, const wchar_t* path);
/**
 * The target of a symbolic link into `buf` of `len` characters. As with readlink(2), a target that
 * does not fit is cut, and only a shorter one is terminated.
 *
 * @return the characters written, or -1: the errors of readlink(2); EINVAL for a `len` of 0; EILSEQ
 *         for a target without a wide form ("could not convert path")
 */
KEL_API ssize_t wcsreadlink(const wchar_t* path, wchar_t* buf, size_t len);
/** @} */

/** @name Contents, times and rights
 * @{ */
KEL_API int wcstruncate(const wchar_t* path, off_t length);
KEL_API int wcsutimes(const wchar_t* path, const struct timeval times[2]);
KEL_API int wcsutime(const wchar_t* path, const struct utimbuf* times);
KEL_API int wcschown(const wchar_t* path, uid_t uid, gid_t gid);
KEL_API int wcslchown(const wchar_t* path, uid_t uid, gid_t gid);
KEL_API int wcschmod(const wchar_t* path, mode_t mode);
/** @} */

/** free(3), for strings of the conversion functions and of wcsgetcwd(). */
KEL_API void wcsfree(void* text);

KEL_END_DECLS

#endif
